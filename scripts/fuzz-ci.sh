#!/usr/bin/env bash
# CI's fuzz step: builds every target with clang and runs each for a short fixed time (seconds
# as the first argument, 20 by default) from its seeds, with a fixed seed. A crash, leak or
# timeout fails the step; the input that did it is printed and kept in build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
scripts/fuzz-build.sh
mkdir -p build-fuzz/artifacts
failed=()
for target in $(cd build-fuzz && ls fuzz_* | sort); do
  [ -x "build-fuzz/$target" ] || continue
  work=$(mktemp -d)
  args=(-max_total_time="$seconds" -seed=1 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="build-fuzz/artifacts/$target-")
  [ -f "fuzz/dict/$target.dict" ] && args+=(-dict="fuzz/dict/$target.dict")
  seeds=()
  [ -d "fuzz/corpus/$target" ] && seeds+=("fuzz/corpus/$target")
  [ -d "fuzz/regressions/$target" ] && seeds+=("fuzz/regressions/$target")
  if "build-fuzz/$target" "${args[@]}" "$work" "${seeds[@]}" >"$work.log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work.log" | grep -o '[0-9]*$' || true)
    echo "fuzz $target: ${runs:-?} runs, clean"
  else
    echo "fuzz $target: FAILED"
    grep -E 'ERROR|SUMMARY|Test unit written|==[0-9]+==' "$work.log" | head -20
    failed+=("$target")
  fi
  rm -rf "$work" "$work.log"
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz targets that failed: ${failed[*]}"
  exit 1
fi
