#!/bin/sh
# PGS demux benchmark: the subtitle track of a looped bd_h264_pgs.m2ts (H.264 + PGS) to .sup by
# the sonvex program (analysis pass, then the demux of the subtitle PID) and by
# "ffmpeg -map 0:s:0 -c copy -f sup", with cat as the floor. Prints times, ratios, peak memory
# and context switches, and checks that both outputs are the same bytes.
# Usage: bench/pgs.sh [build dir] [loops]
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$here/build-release}")
loops=${2:-40}
corpus=$here/../shared/corpus/gen
work=${TMPDIR:-/tmp}/sonvex_pgs_bench
big=$work/pgs_loop$loops.m2ts
mkdir -p "$work"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target sonvex >/dev/null

if [ ! -s "$big" ]; then
  ffmpeg -nostdin -v error -y -stream_loop "$((loops - 1))" -i "$corpus/bd_h264_pgs.m2ts" \
    -map 0 -c copy -f mpegts -mpegts_m2ts_mode 1 "$big"
fi
echo "source: $big ($(stat -c %s "$big") bytes)"
cat "$big" > /dev/null

run() {  # label, command...: prints seconds, peak KiB, voluntary and involuntary switches
  label=$1; shift
  rm -f "$work"/out_*
  /usr/bin/time -f "%e %M %w %c" -o "$work/time.txt" "$@" >/dev/null 2>&1
  set -- $(cat "$work/time.txt")
  printf '%-8s %6.2f s  %7d KiB  %6d/%d switches\n' "$label" "$1" "$2" "$3" "$4"
  eval "${label}_time=$1"
}
run cat sh -c "cat '$big' > '$work/out_copy.m2ts'"
run ffmpeg ffmpeg -nostdin -v error -y -i "$big" -map 0:s:0 -c copy -f sup "$work/out_ff.sup"
cp "$work/out_ff.sup" "$work/ff.sup"
run sonvex sh -c "cd '$work' && '$build/sonvex' '$big' 2: out_sv.sup"
cmp -s "$work/out_sv.sup" "$work/ff.sup" && echo "outputs identical" || echo "OUTPUTS DIFFER"
printf 'sonvex / ffmpeg: %6.2f\n' "$(echo "$sonvex_time / $ffmpeg_time" | bc -l)"
printf 'sonvex / cat:    %6.2f\n' "$(echo "$sonvex_time / $cat_time" | bc -l)"
rm -f "$work"/out_* "$work/ff.sup"
