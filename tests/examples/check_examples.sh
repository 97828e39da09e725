#!/bin/sh
# check_examples.sh ROOT BUILD [COMPILER-OPTION ...]: the line in the head of each example builds it
# without a warning, and its file has every frame of the sample, without a fault and in step.
set -eu
if [ -z "${EXAMPLES_STORAGE:-}" ]; then
    EXAMPLES_STORAGE=mine exec unshare -rm sh "$0" "$@"
fi
mount -t tmpfs none /mnt
mkdir /mnt/sdcard
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
cd "$1"
build=$2
shift 2
video=samples/programme.h264
wav=samples/programme.wav

fail() {
    echo "$1"
    exit 1
}

# expect WHAT WANTED GOT
expect() {
    [ "$2" = "$3" ] || fail "$1: $3, not $2"
}

# probe FILE KIND ENTRY: one value for each stream or packet of the kind (v, a).
probe() {
    ffprobe -v error -count_packets -select_streams "$2" -show_entries "$3" -of csv=p=0 "$1"
}

# judge FILE SOUND-FRAMES
judge() {
    expect "sound frames of $1" "$2" "$(probe "$1" a stream=nb_read_packets)"
    expect "complaints about $1" '' "$(ffmpeg -nostdin -v error -xerror -i "$1" -f null - 2>&1)"
}

# judge_mp4 FILE SOUND-FRAMES
judge_mp4() {
    judge "$1" "$2"
    expect "pictures of $1" "$(probe $video v stream=nb_read_packets)" \
        "$(probe "$1" v stream=nb_read_packets)"
    "$build/bin/tdmbrec" info "$1" | grep -qF 'No fault found.' || fail "$1 has a fault"
}

for example in encode_only mux_only minimal_player; do
    line=$(sed -n '/^ *gcc /,/[^\]$/p' "examples/$example.c" | sed "s|build/release|$build|g")
    [ -n "$line" ] || fail "$example has no line that builds it"
    rm -f "$build/bin/$example"
    expect "warnings of $example" '' "$(eval "$line $*" 2>&1)"
done

frames=$((($(probe $wav a stream=duration_ts) + 1023) / 1024))
"$build/bin/encode_only" $wav "$place/sound.aac"
judge "$place/sound.aac" $((frames + 1))
"$build/bin/mux_only" $video "$place/sound.aac" "$place/muxed.mp4"
judge_mp4 "$place/muxed.mp4" $((frames + 1))

status=0
"$build/bin/minimal_player" $video $wav "$place/outside.mp4" || status=$?
expect 'exit code outside the storage' 10 $status
recording=/mnt/sdcard/programme.mp4
"$build/bin/minimal_player" $video $wav $recording
judge_mp4 $recording "$frames"
# In step: the sound is neither early nor late, and each frame has its length of 1024.
expect 'durations of sound frames' 1024 "$(probe $recording a packet=duration | sed '$d' | sort -u)"
for file in $wav $recording; do
    ffmpeg -nostdin -v error -y -i "$file" -ac 1 -f s16le "$place/$(basename "$file").pcm"
done
python3 - "$place/programme.wav.pcm" "$place/programme.mp4.pcm" <<'END'
import array
import sys

sent, heard = (array.array("h", open(name, "rb").read()) for name in sys.argv[1:])
start, count = 5 * 48000, 8192


def likeness(lag):
    return abs(sum(sent[i] * heard[i + lag] for i in range(start, start + count)))


best = max(range(-2048, 2049, 128), key=likeness)
sys.exit(f"the sound is {best} samples late" if best != 0 else 0)
END
