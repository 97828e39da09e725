#!/bin/sh
# Installs what building, testing and judging the recorder needs, from Debian's packages. Does
# nothing when everything is there.
#
#   sh scripts/install_dependencies.sh          what the command needs
#   sh scripts/install_dependencies.sh tests    what the tests need, too
set -eu

packages="g++ cmake ninja-build pkg-config ffmpeg libavformat-dev libavcodec-dev libavutil-dev
    libswresample-dev libcli11-dev nlohmann-json3-dev"
if [ "${1:-}" = tests ]; then
    packages="$packages clang clang-format libclang-rt-14-dev g++-12-multilib
        g++-12-arm-linux-gnueabihf qemu-user libgtest-dev libgmock-dev googletest libbenchmark-dev
        valgrind gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
        gstreamer1.0-plugins-bad gstreamer1.0-libav mpv chromium faad mkvtoolnix mediainfo python3
        python3-numpy util-linux"
fi

missing=
for package in $packages; do
    dpkg-query -W -f '${Status}' "$package" 2> /dev/null | grep -q 'ok installed' ||
        missing="$missing $package"
done
[ -z "$missing" ] && exit 0

as_root=
[ "$(id -u)" = 0 ] || as_root=sudo
$as_root apt-get update -q
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends $missing
