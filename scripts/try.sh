#!/bin/sh
# Installs what is needed, builds the recorder, records the sample programme and shows the result as
# ffprobe sees it.
#
#   sh scripts/try.sh
set -eu
cd "$(dirname "$0")/.."

sh scripts/install_dependencies.sh
cmake --preset release -D TDMBREC_TESTS=OFF -D TDMBREC_BENCH=OFF
cmake --build --preset release
build/release/bin/tdmbrec record --force --output programme.mp4 \
    --video samples/programme.h264 --audio samples/programme.wav
ffprobe -v warning -show_entries \
    format=filename,duration,size:stream=codec_name,profile,width,height,sample_rate,channels,nb_frames \
    -of compact programme.mp4
