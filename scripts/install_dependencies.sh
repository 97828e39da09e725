#!/bin/sh
# Installs the Debian packages that the recorder and its tests need. Does nothing when all of them
# are installed.
#
#   sh scripts/install_dependencies.sh                      the packages for the command
#   sh scripts/install_dependencies.sh tests                also those for the tests
#   sh scripts/install_dependencies.sh --missing [tests]    prints those that are missing only
set -eu

list_only=
if [ "${1:-}" = --missing ]; then
    list_only=1
    shift
fi
packages="g++ cmake ninja-build pkg-config ffmpeg libavformat-dev libavcodec-dev libavutil-dev
    libswresample-dev libcli11-dev nlohmann-json3-dev"
case ${1:-} in
'') ;;
tests)
    packages="$packages clang clang-16 clang-19 clang-format-19 clang-tidy-19 libclang-rt-14-dev
        libclang-rt-19-dev g++-12-multilib
        g++-12-arm-linux-gnueabihf qemu-user libgtest-dev libgmock-dev googletest libbenchmark-dev
        valgrind spin git time libc++-14-dev libc++abi-14-dev gstreamer1.0-tools gstreamer1.0-plugins-base
        gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
        gstreamer1.0-libav mpv chromium faad mkvtoolnix mediainfo python3 python3-numpy util-linux
        groff-base lintian debootstrap dpkg-dev sox espeak-ng"
    ;;
*)
    sed -n 's/^#   //p' "$0" >&2
    exit 2
    ;;
esac

if ! command -v dpkg-query > /dev/null; then
    echo "install_dependencies.sh: this is not Debian; install these packages or equivalents by" \
        "hand:" $packages >&2
    exit 1
fi
missing=
for package in $packages; do
    dpkg-query -W -f '${Status}' "$package" 2> /dev/null | grep -q 'ok installed' ||
        missing="$missing $package"
done
missing=${missing# }
if [ -n "$list_only" ]; then
    [ -z "$missing" ] || echo "$missing"
    exit 0
fi
[ -n "$missing" ] || exit 0

# refuse REASON
refuse() {
    echo "install_dependencies.sh: $1; as root, run: apt-get install --no-install-recommends" \
        "$missing" >&2
    exit 1
}

as_root=
if [ "$(id -u)" != 0 ]; then
    command -v sudo > /dev/null || refuse "packages are missing, and there is no sudo"
    as_root=sudo
fi
$as_root apt-get update -q || refuse "the lists of packages cannot be updated"
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
    $missing || refuse "the packages cannot be installed"
