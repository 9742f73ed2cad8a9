#!/bin/sh
# PCM processing speed of the built sonvex binary against ffmpeg, same files, same script:
#  1. TrueHD 96 kHz 5.1 (60 s, made here with ffmpeg's encoder) resampled to 48 kHz FLAC, against
#     ffmpeg's soxr resampler at the same precision (28 bits: very high quality)
#  2. -down2 of LPCM 7.1 (60 s, a WAV made here) against "ffmpeg -ac 2"
#  3. the raw analysis of a 300 MB headerless file (stereo 16-bit), alone, with its verdict
# Prints best wall and CPU time of three runs, the ratio ours / ffmpeg (below 1: faster), peak
# memory (KiB) and context switches of the last run.
set -e
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build}
sonvex="$build/sonvex"
work=${TMPDIR:-/tmp}/sonvex_bench_pcm
mkdir -p "$work"
[ -x "$sonvex" ] || { echo "build sonvex first ($sonvex)"; exit 1; }

thd="$work/noise_96k_51.thd"
if [ ! -s "$thd" ]; then
  ffmpeg -nostdin -loglevel error -y \
    -f lavfi -i "anoisesrc=r=96000:a=0.1:c=pink:d=60" \
    -f lavfi -i "sine=f=440:r=96000:d=60" \
    -filter_complex "[0][1]amix=inputs=2,pan=5.1(side)|FL=c0|FR=0.9*c0|FC=0.5*c0|LFE=0.2*c0|SL=0.7*c0|SR=0.6*c0" \
    -c:a truehd -strict -2 -sample_fmt s32 "$thd"
fi
wav71="$work/pink_71.wav"
if [ ! -s "$wav71" ]; then
  ffmpeg -nostdin -loglevel error -y -f lavfi -i "anoisesrc=r=48000:a=0.1:c=pink:d=60" \
    -filter_complex "pan=7.1|FL=c0|FR=0.9*c0|FC=0.5*c0|LFE=0.2*c0|BL=0.7*c0|BR=0.6*c0|SL=0.4*c0|SR=0.3*c0" \
    -c:a pcm_s24le "$wav71"
fi
# The raw file is program material: the decode of a film's 7.1 E-AC3 track from the corpus,
# mixed to stereo and looped to 300 MB (the encoders of the analysis can't see the repeats; noise
# is no test for it, since every reading of noise compresses alike).
raw="$work/film.raw"
if [ ! -s "$raw" ]; then
  ffmpeg -nostdin -loglevel error -y -stream_loop 330 \
    -i "$here/../shared/corpus/public/eac3/the_great_wall_7.1.eac3" -ac 2 -t 1640 -f s16le "$raw"
fi

measure() { # runs "$@" $RUNS times (3): best wall and CPU seconds, then peak KiB and switches
  best=""; bestCpu=""
  for run in $(seq "${RUNS:-3}"); do
    rm -f "$work"/out.*
    /usr/bin/time -f "%e %U %S %M %c %w" -o "$work/time.txt" "$@" >/dev/null 2>&1
    read -r t u s m ci cv < "$work/time.txt"
    c=$(echo "$u + $s" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
    if [ -z "$bestCpu" ] || [ "$(echo "$c < $bestCpu" | bc)" = 1 ]; then bestCpu=$c; fi
  done
  echo "$best $bestCpu $m $((ci + cv))"
}

report() { # label, ours "wall cpu mem switches", theirs the same
  set -- "$1" $2 $3
  printf "%s:\n  sonvex %ss (cpu %ss, %s KiB, %s switches)\n  ffmpeg %ss (cpu %ss, %s KiB, %s switches)\n  ratio wall %.2f, cpu %.2f\n" \
    "$1" "$2" "$3" "$4" "$5" "$6" "$7" "$8" "$9" "$(echo "$2 / $6" | bc -l)" "$(echo "$3 / $7" | bc -l)"
}

cd "$work"
ours=$(measure "$sonvex" "$thd" out.flac -resampleTo48000)
theirs=$(measure ffmpeg -nostdin -loglevel error -y -i "$thd" \
  -af aresample=resampler=soxr:precision=28 -ar 48000 -c:a flac -compression_level 8 out.ff.flac)
report "TrueHD 96k 5.1 -> 48k FLAC" "$ours" "$theirs"

ours=$(measure "$sonvex" "$wav71" out.wav -down2)
theirs=$(measure ffmpeg -nostdin -loglevel error -y -i "$wav71" -ac 2 -c:a pcm_s24le out.ff.wav)
report "WAV 7.1 -down2 -> stereo WAV" "$ours" "$theirs"

"$sonvex" "$raw" 2>&1 | grep -E "seems|probabl|RAW/PCM,|Was not" | sed 's/^/  /'
set -- $(RUNS=1 measure "$sonvex" "$raw")
printf "Raw analysis of %s MB: %ss (cpu %ss, %s KiB, %s switches)\n" \
  "$(($(stat -c %s "$raw") / 1000000))" "$1" "$2" "$3" "$4"
