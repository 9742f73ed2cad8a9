#!/usr/bin/env bash
# Builds sonvex and runs its main job on a sample made here: a Blu-ray style M2TS with H.264
# video and 5.1 AC3 audio is listed, then every track is demuxed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
cmake --build build -j "$(nproc)"
sample=build/sample
mkdir -p "$sample"
if [ ! -f "$sample/sample.m2ts" ]; then
  ffmpeg -nostdin -hide_banner -loglevel error -y \
    -f lavfi -i testsrc2=size=1920x1080:rate=24000/1001 \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 10 \
    -filter_complex "[1:a]pan=5.1|FL=c0|FR=c0|FC=c0|LFE=c0|BL=c0|BR=c0[a]" -map 0:v -map "[a]" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a ac3 -b:a 448k \
    -f mpegts -mpegts_m2ts_mode 1 "$sample/sample.m2ts"
fi
cd "$sample"
../sonvex sample.m2ts
../sonvex sample.m2ts -demux
ls -l
