#!/bin/sh
# EVO demux benchmark: every track of an EVO of more than 1 GB (MPEG-2 video, AC3 5.1, EVO LPCM
# 2.0), by the sonvex program ("-demux": analysis, demuxers, readers, files, the frame counting
# side branch) and by "ffmpeg -map ... -c copy" of the same tracks, both writing into the same
# folder. The big file is made by sonvex's own joined-file action from copies of a corpus EVO, so
# its time stamps run on. Prints times, ratios, peak memory and context switches.
# Usage: bench/evo.sh [build dir]   (a Release build: cmake -DCMAKE_BUILD_TYPE=Release)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build-release}
corpus=$here/../shared/corpus/gen/evo
work=${TMPDIR:-/tmp}/sonvex_evo_bench
big=$work/big.evo
mkdir -p "$work"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target sonvex >/dev/null

# 3,229,696 bytes per copy: 333 copies pass 1 GiB.
if [ ! -s "$big" ] || [ "$(stat -c %s "$big")" -lt 1073741824 ]; then
  ln -sf "$corpus/evo_dev_mpeg2_ac3_lpcm.evo" "$work/part.evo"
  sources=part.evo
  i=1
  while [ $i -lt 333 ]; do sources="$sources+part.evo"; i=$((i + 1)); done
  (cd "$work" && XDG_STATE_HOME="$work/.state" "$build/sonvex" "$sources" 1: big.evo >/dev/null)
fi
size=$(stat -c %s "$big")
echo "source: $big ($size bytes)"
ffprobe -v error -show_entries stream=id,codec_name -of csv=p=0 "$big" | tr '\n' ' '; echo

now() { date +%s.%N; }
clean() { rm -rf "$work"/out_*; sync; }
cat "$big" > /dev/null

# ffmpeg can't read the HD DVD PCM header; its cheapest way out for that stream is the DVD LPCM
# "decoder" into s16le, a byte swap like sonvex's.
clean; t0=$(now)
/usr/bin/time -f "%M %c %w %U %S" -o "$work/ff.time" ffmpeg -nostdin -v error -y -i "$big" \
  -map 0:i:0x1e0 -c copy -f mpeg2video "$work/out_ff_video.m2v" \
  -map 0:i:0x80 -c copy -f ac3 "$work/out_ff_ac3.ac3" \
  -map 0:i:0xa1 -c:a pcm_s16le -f s16le "$work/out_ff_pcm.raw" 2>/dev/null
sync
t1=$(now); ff_time=$(echo "$t1 - $t0" | bc)

clean; mkdir -p "$work/out_sv"; t0=$(now)
(cd "$work/out_sv" && XDG_STATE_HOME="$work/.state" /usr/bin/time -f "%M %c %w %U %S" -o "$work/sv.time" \
  "$build/sonvex" "$big" -demux >/dev/null)
sync
t1=$(now); sv_time=$(echo "$t1 - $t0" | bc)
ls -l "$work"/out_sv/*.m2v "$work"/out_sv/*.ac3 "$work"/out_sv/*.pcm | awk '{print "  " $5 " " $NF}'

read ff_mem ff_inv ff_vol ff_user ff_sys < "$work/ff.time"
read sv_mem sv_inv sv_vol sv_user sv_sys < "$work/sv.time"
printf 'ffmpeg -c copy:  %6.2f s (cpu %5.2f user %5.2f sys)  peak %6d KiB  context switches %d involuntary, %d voluntary\n' \
  "$ff_time" "$ff_user" "$ff_sys" "$ff_mem" "$ff_inv" "$ff_vol"
printf 'sonvex -demux:   %6.2f s (cpu %5.2f user %5.2f sys)  peak %6d KiB  context switches %d involuntary, %d voluntary\n' \
  "$sv_time" "$sv_user" "$sv_sys" "$sv_mem" "$sv_inv" "$sv_vol"
printf 'sonvex / ffmpeg: %6.2f\n' "$(echo "$sv_time / $ff_time" | bc -l)"
clean
