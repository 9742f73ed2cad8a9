#!/bin/sh
# End to end: the built sonvex binary, as a user runs it (analysis pass included), against ffmpeg
# doing the same job, in the same run, on the same files in the page cache. Best of 3 for each.
#  1. demux every track of an M2TS of more than 1 GB (H.264, AC3, DTS, TrueHD, LPCM) to files,
#     against "ffmpeg -map ... -c copy" of the same tracks (LPCM to WAV on both sides)
#  2. TrueHD 96 kHz 2.0 and 48 kHz 5.1 (180 s each) to FLAC, against "ffmpeg -c:a flac"
#  3. DTS-HD Master Audio 5.1 to FLAC, against "ffmpeg -c:a flac"
#  4. -check of the M2TS, against "ffmpeg -map 0 -c copy -f null -", and as a share of cat
#  5. peak memory of the demux on a 100 MB and on the 1 GB source
# Prints for each job the wall and CPU (user + system) times and their ratios (sonvex / ffmpeg),
# the peak memory of both, and sonvex's voluntary context switches per GB of source.
# Usage: bench/e2e.sh [build dir [job...]]   (a Release build; default build-release, made if
# absent; jobs: demux thd dts check, default all of them)
# On a shared machine the CPU ratio is the steadier figure; the wall ratio wants a quiet moment.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build-release}" 2>/dev/null && pwd || echo "${1:-$here/build-release}")
gen=${SONVEX_CORPUS:-$here/../shared/corpus}/gen
public=${SONVEX_CORPUS:-$here/../shared/corpus}/public
work=${TMPDIR:-/tmp}/sonvex_bench_e2e
mkdir -p "$work"
if [ ! -x "$build/sonvex" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
  cmake --build "$build" -j2 --target sonvex >/dev/null
fi
sonvex=$build/sonvex
ff="ffmpeg -nostdin -v error -y"
[ $# -gt 0 ] && shift
jobs=${*:-demux thd dts check}
want() { case " $jobs " in *" $1 "*) return 0 ;; esac; return 1; }

# --- sources, made once and kept in $work ------------------------------------------------------
# About 14 MB per loop of bd_h264_multi.m2ts: 76 loops pass 1 GiB, 7 loops make the 100 MB file.
# The remux keeps H.264 (0x1011), AC3 (0x1100), DTS (0x1101), TrueHD (0x1102), LPCM 5.1/24
# (0x1103).
make_m2ts() { # loops, file
  if [ ! -s "$2" ]; then
    $ff -stream_loop "$1" -i "$gen/bd_h264_multi.m2ts" -map 0:0 -map 0:1 -map 0:3 -map 0:4 \
      -map 0:6 -c copy -f mpegts -mpegts_m2ts_mode 1 "$2.part"
    mv "$2.part" "$2"
  fi
}
big=$work/big.m2ts
small=$work/small.m2ts
make_m2ts 75 "$big"
make_m2ts 6 "$small"
thd96=$work/thd_96k_20.thd
if [ ! -s "$thd96" ]; then
  $ff -f lavfi -i "anoisesrc=r=96000:a=0.1:c=pink:d=180" -f lavfi -i "sine=f=440:r=96000:d=180" \
    -filter_complex "[0][1]amix=inputs=2,pan=stereo|FL=c0|FR=0.8*c0" \
    -c:a truehd -strict -2 -sample_fmt s32 "$thd96.part.thd"
  mv "$thd96.part.thd" "$thd96"
fi
thd48=$work/thd_48k_51.thd
if [ ! -s "$thd48" ]; then
  $ff -f lavfi -i "anoisesrc=r=48000:a=0.1:c=pink:d=180" -f lavfi -i "sine=f=440:r=48000:d=180" \
    -filter_complex "[0][1]amix=inputs=2,pan=5.1(side)|FL=c0|FR=0.9*c0|FC=0.5*c0|LFE=0.2*c0|SL=0.7*c0|SR=0.6*c0" \
    -c:a truehd -strict -2 -sample_fmt s32 "$thd48.part.thd"
  mv "$thd48.part.thd" "$thd48"
fi
dtsma=$work/xll_looped.dts
if [ ! -s "$dtsma" ]; then
  # 4096 copies of the corpus stream (about 100 MB), by doubling.
  cp "$public/dts/xll_51_24_48_768.dts" "$dtsma.part"
  i=0
  while [ $i -lt 12 ]; do
    cat "$dtsma.part" "$dtsma.part" > "$dtsma.double"
    mv "$dtsma.double" "$dtsma.part"
    i=$((i + 1))
  done
  mv "$dtsma.part" "$dtsma"
fi

# --- measuring ---------------------------------------------------------------------------------
# Runs a command three times in $work/out (emptied before each run); sets best_wall, best_cpu,
# peak (KiB, the highest of the three runs) and ctx (voluntary switches of the fastest run).
measure() {
  best_wall=""
  best_cpu=""
  peak=0
  ctx=0
  for run in 1 2 3; do
    rm -rf "$work/out"
    mkdir -p "$work/out"
    (cd "$work/out" && /usr/bin/time -f '%e %M %c %w %U %S' -o "$work/time.txt" "$@" \
      >/dev/null 2>"$work/stderr.txt") || { echo "failed: $*"; cat "$work/stderr.txt"; exit 1; }
    read -r wall mem invol vol user sys < "$work/time.txt"
    cpu=$(echo "$user + $sys" | bc)
    if [ -z "$best_wall" ] || [ "$(echo "$wall < $best_wall" | bc)" = 1 ]; then
      best_wall=$wall
      ctx=$vol
    fi
    if [ -z "$best_cpu" ] || [ "$(echo "$cpu < $best_cpu" | bc)" = 1 ]; then best_cpu=$cpu; fi
    if [ "$mem" -gt "$peak" ]; then peak=$mem; fi
  done
}

gb() { echo "scale=3; $(stat -c %s "$1") / 1000000000" | bc; }

# Job label, source file, limit, then the sonvex command and the ffmpeg command separated by "--".
compare() {
  label=$1 src=$2 limit=$3
  shift 3
  sv=""
  while [ "$1" != "--" ]; do sv="$sv $1"; shift; done
  shift
  # shellcheck disable=SC2086
  measure $sv
  s_wall=$best_wall s_cpu=$best_cpu s_peak=$peak s_ctx=$ctx
  measure "$@"
  printf '%s\n' "$label"
  printf '  sonvex %6.2f s wall, %6.2f s cpu, %7d KiB peak, %8.0f voluntary switches/GB\n' \
    "$s_wall" "$s_cpu" "$s_peak" "$(echo "$s_ctx / $(gb "$src")" | bc -l)"
  printf '  ffmpeg %6.2f s wall, %6.2f s cpu, %7d KiB peak\n' "$best_wall" "$best_cpu" "$peak"
  printf '  ratio  %6.2f wall, %6.2f cpu (at most %s)\n' "$(echo "$s_wall / $best_wall" | bc -l)" \
    "$(echo "$s_cpu / $best_cpu" | bc -l)" "$limit"
}

cat "$big" "$small" "$thd96" "$thd48" "$dtsma" > /dev/null
echo "sources: $(gb "$big") GB M2TS, $(gb "$small") GB M2TS, TrueHD $(gb "$thd96") and $(gb "$thd48") GB, DTS-HD MA $(gb "$dtsma") GB"

demux_ff() { # source
  echo $ff -i "$1" -map 0:0 -c copy -f h264 v.h264 -map 0:1 -c copy -f ac3 a.ac3 \
    -map 0:2 -c copy -f dts d.dts -map 0:3 -c copy -f truehd t.thd -map 0:5 -c:a pcm_s24le l.wav
}
if want demux; then
  # shellcheck disable=SC2046
  compare "demux all tracks of the 1 GB M2TS" "$big" 0.6 \
    "$sonvex" "$big" 1: v.h264 2: a.ac3 3: d.dts 4: t.thd 5: l.wav -- $(demux_ff "$big")
  demux_peak_big=$s_peak
  # shellcheck disable=SC2046
  compare "demux all tracks of the 100 MB M2TS" "$small" 0.6 \
    "$sonvex" "$small" 1: v.h264 2: a.ac3 3: d.dts 4: t.thd 5: l.wav -- $(demux_ff "$small")
  demux_peak_small=$s_peak
  printf 'peak memory of the demux, 1 GB against 100 MB source: %+.1f%% (at most 10%%)\n' \
    "$(echo "($demux_peak_big - $demux_peak_small) * 100 / $demux_peak_small" | bc -l)"
fi

if want thd; then
  compare "TrueHD 96 kHz 2.0 to FLAC" "$thd96" 0.8 "$sonvex" "$thd96" out.flac -- \
    $ff -i "$thd96" -c:a flac out.flac
  compare "TrueHD 48 kHz 5.1 to FLAC" "$thd48" 0.8 "$sonvex" "$thd48" out.flac -- \
    $ff -i "$thd48" -c:a flac out.flac
fi
if want dts; then
  compare "DTS-HD MA 5.1 to FLAC" "$dtsma" "(reported)" "$sonvex" "$dtsma" out.flac -- \
    $ff -i "$dtsma" -c:a flac out.flac
fi

if want check; then
  # Stream 4 is the AC3 that travels inside the TrueHD PID: ffmpeg finds no parameters for it and
  # its null muxer refuses the copy, so ffmpeg checks every stream but that one.
  compare "-check of the 1 GB M2TS" "$big" 0.6 "$sonvex" "$big" -check -- \
    $ff -i "$big" -map 0 -map -0:4 -c copy -f null -
  check_wall=$s_wall
  check_cpu=$s_cpu
  measure cat "$big"
  printf '  cat    %6.2f s wall, %6.2f s cpu: sonvex -check runs at %.0f%% of the throughput of cat (cpu %.0f%%)\n' \
    "$best_wall" "$best_cpu" "$(echo "$best_wall * 100 / $check_wall" | bc -l)" \
    "$(echo "$best_cpu * 100 / $check_cpu" | bc -l)"
fi
rm -rf "$work/out"
