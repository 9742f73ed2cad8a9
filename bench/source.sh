#!/bin/sh
# Source stage throughput against cat on the same file of at least 1 GB, warm cache for all:
# one branch, and three branches fanned out from the source.
# Usage: bench/source.sh [build-dir]   (default: build-bench, configured as Release if absent)
set -e
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSONVEX_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j2 --target bench_source >/dev/null

file=${SONVEX_BENCH_FILE:-/tmp/sonvex_bench_source.m2ts}
if [ ! -f "$file" ] || [ "$(stat -c %s "$file")" -lt 1000000000 ]; then
  seed="$root/../shared/corpus/gen/bd_gap_long_200ms.m2ts"
  rm -f "$file"
  if [ -f "$seed" ]; then
    while [ ! -f "$file" ] || [ "$(stat -c %s "$file")" -lt 1000000000 ]; do cat "$seed" >>"$file"; done
  else
    head -c 1100000000 /dev/urandom >"$file"
  fi
fi
size=$(stat -c %s "$file")

now() { date +%s.%N; }
# Best of three runs of a command, in seconds.
best() {
  b=""
  for i in 1 2 3; do
    t0=$(now); "$@" >/dev/null; t1=$(now)
    t=$(echo "$t1 - $t0" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
cat "$file" >/dev/null  # warm the cache
tcat=$(best cat "$file")
t1=$(best "$build/bench_source" 1 "$file")
t3=$(best "$build/bench_source" 3 "$file")
rate() { echo "scale=0; $size / $1 / 1000000" | bc -l; }
echo "file: $file ($size bytes)"
echo "cat:                 $(printf '%.3f' "$tcat") s  $(rate "$tcat") MB/s"
echo "source, 1 branch:    $(printf '%.3f' "$t1") s  $(rate "$t1") MB/s  ratio to cat $(printf '%.2f' "$(echo "$tcat / $t1" | bc -l)")"
echo "source, 3 branches:  $(printf '%.3f' "$t3") s  $(rate "$t3") MB/s  ratio to cat $(printf '%.2f' "$(echo "$tcat / $t3" | bc -l)")"
