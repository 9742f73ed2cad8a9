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

seconds() { # runs a command three times, prints the best wall time in seconds
  best=""
  for run in 1 2 3; do
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s.%N)
    t=$(echo "$end - $start" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
  done
  echo "$best"
}

ours=$(seconds "$build/decode_bench" thd "$thd" "$work/ours.flac")
theirs=$(seconds ffmpeg -nostdin -loglevel error -y -i "$thd" -c:a flac -compression_level 8 "$work/ffmpeg.flac")
printf "TrueHD 96k 5.1 -> FLAC: sonvex %ss, ffmpeg %ss, ratio %.2f\n" "$ours" "$theirs" "$(echo "$ours / $theirs" | bc -l)"

ours=$(seconds "$build/decode_bench" dtsma "$dts" "$work/ours.wav")
theirs=$(seconds ffmpeg -nostdin -loglevel error -y -f dts -i "$dts" -c:a pcm_s24le "$work/ffmpeg.wav")
printf "DTS-HD MA 5.1 -> WAV:   sonvex %ss, ffmpeg %ss, ratio %.2f\n" "$ours" "$theirs" "$(echo "$ours / $theirs" | bc -l)"
