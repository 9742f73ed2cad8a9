#!/bin/sh
# Disc folder listing against libbluray's bd_list_titles, timed in the same script on the same
# folders: the built sonvex binary lists the titles of each disc of the corpus (playlists, clip
# info, filters, order) as a user types it; bd_list_titles reads the same playlists and clip
# info. Prints best wall and CPU times of three runs, the ratio ours / theirs, peak memory and
# context switches of one run of ours.
set -e
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$here/build}
corpus=${SONVEX_CORPUS:-$here/../shared/corpus}
work=${TMPDIR:-/tmp}/sonvex_bench_disc
mkdir -p "$work"
export XDG_STATE_HOME="$work/state"
if [ ! -x "$build/sonvex" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
  cmake --build "$build" -j2 --target sonvex >/dev/null
fi
command -v bd_list_titles >/dev/null || { echo "bd_list_titles (libbluray-bin) is missing"; exit 1; }

measure() {
  best=""
  bestCpu=""
  for run in 1 2 3; do
    /usr/bin/time -f "%e %U %S" -o "$work/time.txt" "$@" >/dev/null 2>&1 || true
    read -r t u s <<EOT
$(tail -1 "$work/time.txt")
EOT
    c=$(echo "$u + $s" | bc)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
    if [ -z "$bestCpu" ] || [ "$(echo "$c < $bestCpu" | bc)" = 1 ]; then bestCpu=$c; fi
  done
  echo "$best $bestCpu"
}

report() { # label, our "wall cpu", their "wall cpu"
  set -- "$1" $2 $3
  printf "%s: sonvex %ss (cpu %ss), bd_list_titles %ss (cpu %ss), ratio wall %.2f, cpu %.2f\n" \
    "$1" "$2" "$3" "$4" "$5" "$(echo "$2 / ($4 + 0.001)" | bc -l)" "$(echo "($3 + 0.001) / ($5 + 0.001)" | bc -l)"
}

for disc in bd-angles bd-d7-missing bd-d1-fourclips; do
  folder="$corpus/gen/disc/$disc"
  ours=$(measure "$build/sonvex" "$folder")
  theirs=$(measure bd_list_titles -s 900 "$folder")
  report "$disc listing" "$ours" "$theirs"
  /usr/bin/time -f "  sonvex peak memory %M KiB, context switches %c involuntary / %w voluntary" \
    "$build/sonvex" "$folder" 2>&1 >/dev/null | tail -1
done

# The program's start alone (the help text): what a listing costs beyond it is the disc work.
ours=$(measure "$build/sonvex")
set -- $ours
echo "sonvex start alone (help text): ${1}s (cpu ${2}s)"
