#!/bin/sh
# Makes the Debian packages in two folders and compares their bytes, lets lintian judge them,
# installs them, records the sample there, and builds programs with the installed files.
#
#   sh scripts/check_packages.sh
#
# As root, and where a Debian system can be made from the first mirror of apt, they are installed in
# a new one by apt. Otherwise they are unpacked into a folder.
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
-h | --help)
    sed -n 's/^#   *//p' "$0"
    exit 0
    ;;
esac
sources=$PWD
rm -rf build/packages
mkdir -p build/packages
place=$PWD/build/packages
root=$place/root

fail() {
    echo "check_packages.sh: $1" >&2
    exit 1
}

# quietly COMMAND ...: shows what the command printed only if it fails.
quietly() {
    "$@" > "$place/log" 2>&1 || {
        cat "$place/log" >&2
        fail "failed: $*"
    }
}

# pack FOLDER BUILD: builds the sources in the folder, and makes the packages in the build.
pack() {
    (
        cd "$1"
        quietly cmake --fresh --preset package -B "$2" -D TDMBREC_WARNINGS_AS_ERRORS=ON
        quietly cmake --build "$2" -j "$(nproc)"
        cd "$2"
        quietly cpack
    )
}

# with_mounts COMMAND ...: what the command mounts is gone when it ends.
with_mounts() {
    unshare -m "$@"
}

# Compares the two builds, and packs the second one again as a user who hides new files.
check_same_packages() {
    cd "$place/one"
    for package in *.deb; do
        cmp "$package" "$place/two/deeper/build/$package"
    done
    (
        umask 077
        cd "$place/two/deeper/build"
        rm -rf _CPack_Packages
        quietly cpack
    )
    for package in *.deb; do
        dpkg-deb -c "$package" > "$place/files"
        dpkg-deb -c "$place/two/deeper/build/$package" | diff "$place/files" - ||
            fail "the files of $package depend on the umask"
    done
    cd "$sources"
}

make_bare_system() {
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(ORIGIN)' \
        'Identifier: Packages' | awk '$3 == "Debian" { print $2, $1; exit }')
    with_mounts debootstrap --variant=minbase ${mirror% *} "$root" "${mirror#* }"
}

# in_system COMMAND ...: as root of the bare system, where the loader needs /proc.
in_system() {
    with_mounts sh -c 'mount --bind /proc "$0/proc" && exec chroot "$0" "$@"' "$root" "$@"
}

install_in_system() {
    cp "$place/one/"*.deb "$root/root"
    quietly in_system apt-get update -q
    quietly in_system env DEBIAN_FRONTEND=noninteractive sh -c \
        'exec apt-get install -q -y --no-install-recommends /root/*.deb'
}

unpack_into_folder() {
    rm -rf "$root"
    for package in "$place/one/"*.deb; do
        dpkg-deb -x "$package" "$root"
    done
    mkdir "$root/root"
}

# run ARGUMENT ...: the installed command, in the folder of the recording.
run() {
    if [ "$installed" = system ]; then
        in_system sh -c 'cd /root && exec tdmbrec "$@"' sh "$@"
    else
        (cd "$root/root" && "$root/usr/bin/tdmbrec" "$@")
    fi
}

check_recording() {
    run --version > "$place/version"
    sed -n 1p "$place/version" | grep -qxF "tdmbrec $version" || fail "--version is not $version"
    sed -n 2p "$place/version" | grep -q . || fail 'no version of the muxer'
    cp samples/programme.h264 samples/programme.wav "$root/root"
    quietly run record --video programme.h264 --audio programme.wav --output out.mp4
    quietly run info out.mp4
    ffprobe -v warning -of compact -show_entries stream=codec_name,sample_rate,nb_frames \
        "$root/root/out.mp4" > "$place/streams"
    grep -q '|codec_name=h264|nb_frames=300$' "$place/streams" &&
        grep -q '|codec_name=aac|sample_rate=48000|nb_frames=469$' "$place/streams" ||
        fail "not the sample: $(cat "$place/streams")"
}

# Each header alone, one program with the CMake package, and it and the examples with pkg-config.
check_development() {
    (cd "$root/usr/include/tdmbrec" && find . -name '*.h') > "$place/headers"
    while read -r header; do
        printf '#include "%s"\n' "$header" |
            c++ -std=c++20 -Wall -Werror -I "$root/usr/include/tdmbrec" -x c++ -fsyntax-only -
    done < "$place/headers"
    quietly cmake -S tests/packages -B "$place/consumer" -D CMAKE_PREFIX_PATH="$root/usr"
    quietly cmake --build "$place/consumer"
    "$place/consumer/consumer"
    PKG_CONFIG_PATH=$(dirname "$(find "$root/usr/lib" -name tdmbrec.pc)")
    export PKG_CONFIG_PATH
    flags=$(pkg-config --cflags --libs tdmbrec tdmbrec-mp4mux tdmbrec-aacenc tdmbrec-recovery)
    for program in tests/packages/consumer.c "$root/usr/share/doc/tdmbrec/examples/"*.c; do
        [ ! -e "$program" ] || quietly cc -Wall -Werror -o "$place/program" "$program" $flags
        [ "$program" != tests/packages/consumer.c ] || "$place/program"
    done
}

system_pid=
trap 'wait; rm -rf "$root" "$place/two"' EXIT
if [ "$(id -u)" = 0 ] && with_mounts true 2> /dev/null; then
    make_bare_system > "$place/system.log" 2>&1 &
    system_pid=$!
fi

pack "$sources" "$place/one"
mkdir -p "$place/two/deeper"
tar -cf - --exclude=./build --exclude=./.git . | tar -xf - -C "$place/two/deeper"
# A cache of compiled files would only show that it is one.
(
    export CCACHE_DISABLE=1
    pack "$place/two/deeper" "$place/two/deeper/build"
)
check_same_packages
lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs --allow-root \
    "$place/one/"*.deb
version=$(dpkg-deb -f "$place/one/"tdmbrec_*.deb Version)
version=${version%-*}

if [ -n "$system_pid" ] && wait "$system_pid"; then
    installed=system
    install_in_system
else
    installed=folder
    if [ -n "$system_pid" ]; then
        echo "No Debian system can be made: $(tail -n 1 "$place/system.log")"
    fi
    unpack_into_folder
fi
check_recording
check_development
echo "The packages of version $version record the sample, installed in a $installed."
