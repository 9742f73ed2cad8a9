#!/bin/sh
# Encoding speed of the built sonvex binary against ffmpeg, timed in the same script on the same
# file: a 60 s WAV of 5.1 at 48 kHz, 24 bits (made here with ffmpeg), to AC3 at 640 kbit/s and to
# DTS at 1536 kbit/s, each the command line a user types. Prints the best of three runs (wall and
# CPU time), the ratio ours / ffmpeg (below 1: faster), peak memory and context switches.
set -e
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build}
work=${TMPDIR:-/tmp}/sonvex_bench_encode
mkdir -p "$work"
if [ ! -x "$build/sonvex" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" -j2 --target sonvex >/dev/null
fi

wav="$work/music_51_48k.wav"
if [ ! -s "$wav" ]; then
  ffmpeg -nostdin -loglevel error -y \
    -f lavfi -i "anoisesrc=r=48000:a=0.1:c=pink:d=60" \
    -f lavfi -i "sine=f=440:r=48000:d=60" \
    -filter_complex "[0][1]amix=inputs=2,pan=5.1(side)|FL=c0|FR=0.9*c0|FC=0.5*c0|LFE=0.2*c0|SL=0.7*c0|SR=0.6*c0" \
    -c:a pcm_s24le "$wav"
fi

# Runs a command three times; prints the best wall time, the best CPU time (user + system), the
# peak memory in KiB and the context switches (voluntary + involuntary) of the best run.
measure() {
  best=""
  bestCpu=""
  for run in 1 2 3; do
    /usr/bin/time -f "%e %U %S %M %w %c" -o "$work/time.txt" "$@" >/dev/null 2>&1
    read -r t u s m w c < "$work/time.txt"
    cpu=$(echo "$u + $s" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then
      best=$t
      memory=$m
      switches=$((w + c))
    fi
    if [ -z "$bestCpu" ] || [ "$(echo "$cpu < $bestCpu" | bc)" = 1 ]; then bestCpu=$cpu; fi
  done
  echo "$best $bestCpu $memory $switches"
}

report() { # label, our "wall cpu memory switches", theirs
  set -- "$1" $2 $3
  printf "%s: sonvex %ss (cpu %ss, %s KiB, %s switches), ffmpeg %ss (cpu %ss, %s KiB, %s switches), ratio wall %.2f, cpu %.2f\n" \
    "$1" "$2" "$3" "$4" "$5" "$6" "$7" "$8" "$9" \
    "$(echo "$2 / $6" | bc -l)" "$(echo "$3 / $7" | bc -l)"
}

cd "$work"
ours=$(measure "$build/sonvex" "$wav" "$work/ours.ac3" -640)
theirs=$(measure ffmpeg -nostdin -loglevel error -y -i "$wav" -c:a ac3 -b:a 640k "$work/ffmpeg.ac3")
report "WAV 5.1 48k -> AC3 640k" "$ours" "$theirs"

ours=$(measure "$build/sonvex" "$wav" "$work/ours.dts" -1536)
theirs=$(measure ffmpeg -nostdin -loglevel error -y -i "$wav" -c:a dca -strict -2 -b:a 1536k "$work/ffmpeg.dts")
report "WAV 5.1 48k -> DTS 1536k" "$ours" "$theirs"
cmp -s "$work/ours.ac3" "$work/ffmpeg.ac3" && echo "AC3: the same bytes as ffmpeg's encode"
cmp -s "$work/ours.dts" "$work/ffmpeg.dts" && echo "DTS: the same bytes as ffmpeg's encode"
rm -f "$work/ours.ac3" "$work/ffmpeg.ac3" "$work/ours.dts" "$work/ffmpeg.dts" "$work"/*" - Log.txt"
