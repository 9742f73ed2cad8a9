#!/bin/sh
# Matroska benchmark: the H.264 video of an M2TS of more than 1 GB into an MKV file, by the
# sonvex program ("sonvex big.m2ts 1: out.mkv", reader, muxing stage and libavformat's writer,
# then the header patch), by "ffmpeg -map 0:v -c copy out.mkv" and by "mkvmerge -A -S -B -M".
# Prints wall time, ratios against ffmpeg, peak memory and context switches of each.
# Usage: bench/mkv.sh [build dir]   (a Release build: cmake -DCMAKE_BUILD_TYPE=Release)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build-release}
corpus=$here/../shared/corpus/gen
work=${TMPDIR:-/tmp}/sonvex_mkv_bench
big=${BIG_M2TS:-$work/big.m2ts}
mkdir -p "$work"

# A build folder of its own is configured here; an existing one is only built.
[ -f "$build/CMakeCache.txt" ] ||
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target sonvex >/dev/null

# About 5 MB per loop of bd_h264_multi.m2ts with video and two audio tracks: 216 loops pass 1 GiB.
if [ ! -s "$big" ] || [ "$(stat -c %s "$big")" -lt 1073741824 ]; then
  ffmpeg -nostdin -v error -y -stream_loop 215 -i "$corpus/bd_h264_multi.m2ts" \
    -map 0:0 -map 0:1 -map 0:3 -c copy -f mpegts -mpegts_m2ts_mode 1 "$big"
fi
echo "source: $big ($(stat -c %s "$big") bytes)"
cat "$big" > /dev/null  # the same warm page cache for everybody

# run NAME COMMAND...: times one run; leaves "seconds peak_kb switches" in $work/NAME.time
run() {
  name=$1; shift
  rm -f "$work"/out_*; sync
  /usr/bin/time -f "%e %M %c %w" -o "$work/$name.time" "$@" >/dev/null 2>&1
  sync
}
run sonvex sh -c "cd '$work' && '$build/sonvex' '$big' 1: out_sonvex.mkv"
sv_frames=$(ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 "$work/out_sonvex.mkv" 2>/dev/null || echo ?)
run ffmpeg ffmpeg -nostdin -v error -y -i "$big" -map 0:v -c copy "$work/out_ffmpeg.mkv"
if command -v mkvmerge >/dev/null; then
  run mkvmerge mkvmerge -q -o "$work/out_mkvmerge.mkv" -A -S -B -M "$big"
fi

ff=$(cut -d' ' -f1 "$work/ffmpeg.time")
echo "frames in sonvex's MKV: $sv_frames"
printf '%-10s %8s %8s %10s %10s %10s\n' tool seconds "vs ffmpeg" "peak KB" "inv. ctx" "vol. ctx"
for name in sonvex ffmpeg mkvmerge; do
  [ -s "$work/$name.time" ] || continue
  set -- $(tail -1 "$work/$name.time")
  printf '%-10s %8.2f %8.2f %10s %10s %10s\n' "$name" "$1" "$(echo "$1 / $ff" | bc -l)" "$2" "$3" "$4"
done
rm -f "$work"/out_*
