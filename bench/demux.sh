#!/bin/sh
# Demux benchmark: every track of an M2TS of more than 1 GB (video, AC3, DTS, TrueHD, LPCM), by
# sonvex's demux chains, by "ffmpeg -map ... -c copy" of the same tracks, and by cat (a plain copy
# of the file), all writing into the same folder. Prints times and ratios.
# Usage: bench/demux.sh [build dir]   (a Release build is best: cmake -DCMAKE_BUILD_TYPE=Release)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build-release}
corpus=$here/../shared/corpus/gen
work=${TMPDIR:-/tmp}/sonvex_demux_bench
big=$work/big.m2ts
mkdir -p "$work"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target tsdemux sonvex >/dev/null

# About 14 MB per loop of bd_h264_multi.m2ts: 76 loops pass 1 GiB. The remux gives the tracks
# the PIDs 0x1011 (H.264), 0x1100 (AC3), 0x1101 (DTS), 0x1102 (TrueHD), 0x1103 (LPCM 5.1/24).
if [ ! -s "$big" ] || [ "$(stat -c %s "$big")" -lt 1073741824 ]; then
  ffmpeg -nostdin -v error -y -stream_loop 75 -i "$corpus/bd_h264_multi.m2ts" \
    -map 0:0 -map 0:1 -map 0:3 -map 0:4 -map 0:6 -c copy \
    -f mpegts -mpegts_m2ts_mode 1 "$big"
fi
size=$(stat -c %s "$big")
echo "source: $big ($size bytes)"
ffprobe -v error -show_entries stream=id,codec_name -of csv=p=0 "$big" | sort -u | tr '\n' ' '; echo

now() { date +%s.%N; }
clean() { rm -f "$work"/out_*; sync; }
# Warm the page cache the same way for everybody.
cat "$big" > /dev/null

clean; t0=$(now)
cat "$big" > "$work/out_copy.m2ts"; sync
t1=$(now); cat_time=$(echo "$t1 - $t0" | bc)

clean; t0=$(now)
# LPCM can't be copied into a raw file by ffmpeg: its cheapest way out is the byte shuffle of
# the pcm_bluray "decoder" into s24le.
ffmpeg -nostdin -v error -y -i "$big" \
  -map 0:0 -c copy -f h264 "$work/out_ff_video.h264" \
  -map 0:1 -c copy -f ac3 "$work/out_ff_ac3.ac3" \
  -map 0:2 -c copy -f dts "$work/out_ff_dts.dts" \
  -map 0:3 -c copy -f truehd "$work/out_ff_thd.thd" \
  -map 0:5 -c:a pcm_s24le -f s24le "$work/out_ff_pcm.raw" 2>/dev/null
sync
t1=$(now); ff_time=$(echo "$t1 - $t0" | bc)

clean; t0=$(now)
"$build/tsdemux" "$big" "$work/out_sv_" 0x1011:h264 0x1100:ac3 0x1101:dts 0x1102:thd 0x1103:pcm
sync
t1=$(now); sv_time=$(echo "$t1 - $t0" | bc)
ls -l "$work"/out_sv_* | awk '{print "  " $5 " " $9}'

# The sonvex program itself, on the tracks whose readers this build has (video and AC3), against
# ffmpeg on the same two tracks.
clean; t0=$(now)
(cd "$work" && "$build/sonvex" "$big" 1: out_sv_video.h264 2: out_sv_ac3.ac3 >/dev/null)
sync
t1=$(now); svbin_time=$(echo "$t1 - $t0" | bc)
clean; t0=$(now)
ffmpeg -nostdin -v error -y -i "$big" \
  -map 0:0 -c copy -f h264 "$work/out_ff_video.h264" \
  -map 0:1 -c copy -f ac3 "$work/out_ff_ac3.ac3" 2>/dev/null
sync
t1=$(now); ff2_time=$(echo "$t1 - $t0" | bc)

echo "all five tracks:"
printf 'cat copy:        %6.2f s\n' "$cat_time"
printf 'ffmpeg -c copy:  %6.2f s\n' "$ff_time"
printf 'sonvex demux:    %6.2f s\n' "$sv_time"
printf 'sonvex / ffmpeg: %6.2f\n' "$(echo "$sv_time / $ff_time" | bc -l)"
printf 'sonvex / cat:    %6.2f\n' "$(echo "$sv_time / $cat_time" | bc -l)"
echo "video and AC3 through the sonvex program (analysis, readers, files):"
printf 'ffmpeg -c copy:  %6.2f s\n' "$ff2_time"
printf 'sonvex:          %6.2f s\n' "$svbin_time"
printf 'sonvex / ffmpeg: %6.2f\n' "$(echo "$svbin_time / $ff2_time" | bc -l)"
clean
