#!/usr/bin/env bash
# Makes programme.h264 and programme.wav in the given directory (default: beside this script).
# Needs the Debian packages ffmpeg, espeak-ng, sox and perl; the same versions give the same bytes.
#
#   samples/make_programme.sh [DIRECTORY]
set -euo pipefail
case ${1:-} in
-*)
    sed -n 's/^#   //p' "$0"
    exit 0
    ;;
esac

out=$(realpath "${1:-$(dirname "$0")}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
seconds=10

# Video: a test pattern, a zoom into a fractal, and cells that move over a turning gradient.
# Single-threaded and without processor-specific shortcuts, so that the bytes repeat.
scenes='
testsrc2=s=320x240:r=30:d=3.5 [pattern];
mandelbrot=s=320x240:r=30:start_scale=2.2:end_scale=0.02:end_pts=120:maxiter=600,
    trim=duration=3.5 [zoom];
gradients=s=320x240:r=30:c0=0x203060:c1=0xd08040:x0=0:y0=0:x1=320:y1=240:speed=0.05:seed=7,
    trim=duration=3, format=rgb24 [sky];
life=s=80x60:r=30:rule=B3/S23:mold=12:seed=11:ratio=0.25:life_color=0xf0f0c0:death_color=0x401010,
    scale=320x240:flags=neighbor, trim=duration=3, format=rgb24 [cells];
[sky][cells] blend=all_mode=screen [meadow];
[pattern] format=yuv420p, setsar=1 [a];
[zoom] scale=flags=bitexact+accurate_rnd, format=yuv420p, setsar=1 [b];
[meadow] scale=flags=bitexact+accurate_rnd, format=yuv420p, setsar=1 [c];
[a][b][c] concat=n=3:v=1:a=0 [v]'
x264='threads=1:lookahead-threads=1:sliced-threads=0:cpu-independent=1'
x264+=':keyint=30:min-keyint=30:scenecut=0:repeat-headers=1:aud=0:ref=2'
ffmpeg -nostdin -v error -filter_complex_threads 1 -filter_complex "$scenes" -map '[v]' -r 30 \
    -t $seconds -flags +bitexact -fflags +bitexact \
    -c:v libx264 -preset slower -profile:v baseline -level 1.3 -x264-params "$x264" \
    -b:v 290k -maxrate 380k -bufsize 380k -bsf:v filter_units=remove_types=6 \
    -f h264 "$work/programme.h264"
# Start codes of four bytes throughout.
perl -0777 -pe 's/(?<!\x00)\x00\x00\x01/\x00\x00\x00\x01/g' "$work/programme.h264" \
    > "$out/programme.h264"

# Audio: the voice is louder on the left, the music on the right.
voice='Good evening. You are watching channel twelve. After the news, our programme takes you
to the coast, where six fishermen, a lighthouse and a storm wait for you.'
espeak-ng -v en-gb -s 170 -p 45 -w "$work/voice.wav" "$voice"
sox -R -D "$work/voice.wav" -b 16 -c 1 "$work/speech.wav" \
    gain -n -4 rate -h 48000 pad 0.3 $seconds

bars=()
for chord in 'A2 E3 A3 C4 E4' 'F2 C3 A3 C4 F4' 'C3 G3 C4 E4 G4' 'G2 D3 G3 B3 D4' 'A2 E3 A3 C4 E4'; do
    read -r -a notes <<< "$chord"
    strings=()
    delays=()
    for i in "${!notes[@]}"; do
        strings+=(pluck "${notes[$i]}")
        delays+=("0.$((i * 20 + 10))")
    done
    sox -R -D -r 48000 -b 16 -n "$work/bar${#bars[@]}.wav" synth 2 "${strings[@]}" \
        delay "${delays[@]}" remix - trim 0 2 fade 0 2 0.1 gain -n -3
    bars+=("$work/bar${#bars[@]}.wav")
done
sox -R -D "${bars[@]}" "$work/strings.wav"
sox -R -D -r 48000 -b 16 -n "$work/beat.wav" \
    synth 0.05 noise gain -n -8 highpass 7000 fade l 0 0.05 0.045 gain -n -14 pad 0 0.45 repeat 19
sox -R -D -m "$work/strings.wav" "$work/beat.wav" "$work/music.wav"
sox -R -D -M "$work/speech.wav" "$work/music.wav" -b 16 "$work/programme.wav" \
    remix 1v0.7,2v0.35 2v0.7,1v0.2 trim 0 $seconds gain -n -1
# Without tags, so that the header has 44 bytes.
ffmpeg -nostdin -v error -y -i "$work/programme.wav" -map_metadata -1 -c:a copy \
    -fflags +bitexact -flags +bitexact "$out/programme.wav"
