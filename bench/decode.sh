#!/bin/sh
# Decoding speed against ffmpeg, timed in the same script on the same files:
#  1. TrueHD 96 kHz 5.1 (60 s, made here with ffmpeg's encoder) to FLAC
#  2. DTS-HD Master Audio (the corpus XLL streams, looped) to WAV
# Prints each time and the ratio ours / ffmpeg (below 1: faster than ffmpeg).
set -e
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build-release}
corpus=${SONVEX_CORPUS:-$here/../shared/corpus}
work=${TMPDIR:-/tmp}/sonvex_bench_decode
mkdir -p "$work"
if [ ! -x "$build/decode_bench" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
  cmake --build "$build" -j2 --target decode_bench >/dev/null
fi

thd="$work/noise_96k_51.thd"
if [ ! -s "$thd" ]; then
  ffmpeg -nostdin -loglevel error -y \
    -f lavfi -i "anoisesrc=r=96000:a=0.1:c=pink:d=60" \
    -f lavfi -i "sine=f=440:r=96000:d=60" \
    -filter_complex "[0][1]amix=inputs=2,pan=5.1(side)|FL=c0|FR=0.9*c0|FC=0.5*c0|LFE=0.2*c0|SL=0.7*c0|SR=0.6*c0" \
    -c:a truehd -strict -2 -sample_fmt s32 "$thd"
fi
dts="$work/xll_looped.dts"
if [ ! -s "$dts" ]; then
  : > "$dts"
  i=0
  while [ $i -lt 600 ]; do cat "$corpus/public/dts/xll_51_24_48_768.dts" >> "$dts"; i=$((i + 1)); done
fi

# Runs a command three times; prints the best wall time and the best CPU time (user + system)
# in seconds. On a shared machine the CPU time is the steadier of the two.
measure() {
  best=""
  bestCpu=""
  for run in 1 2 3; do
    /usr/bin/time -f "%e %U %S" -o "$work/time.txt" "$@" >/dev/null 2>&1
    read -r t u s < "$work/time.txt"
    c=$(echo "$u + $s" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
    if [ -z "$bestCpu" ] || [ "$(echo "$c < $bestCpu" | bc)" = 1 ]; then bestCpu=$c; fi
  done
  echo "$best $bestCpu"
}

report() { # label, our "wall cpu", their "wall cpu"
  set -- "$1" $2 $3
  printf "%s: sonvex %ss (cpu %ss), ffmpeg %ss (cpu %ss), ratio wall %.2f, cpu %.2f\n" \
    "$1" "$2" "$3" "$4" "$5" "$(echo "$2 / $4" | bc -l)" "$(echo "$3 / $5" | bc -l)"
}

ours=$(measure "$build/decode_bench" thd "$thd" "$work/ours.flac")
theirs=$(measure ffmpeg -nostdin -loglevel error -y -i "$thd" -c:a flac -compression_level 8 "$work/ffmpeg.flac")
report "TrueHD 96k 5.1 -> FLAC" "$ours" "$theirs"

ours=$(measure "$build/decode_bench" dtsma "$dts" "$work/ours.wav")
theirs=$(measure ffmpeg -nostdin -loglevel error -y -f dts -i "$dts" -c:a pcm_s24le "$work/ffmpeg.wav")
report "DTS-HD MA 5.1 -> WAV" "$ours" "$theirs"
