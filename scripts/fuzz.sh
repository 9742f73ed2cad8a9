#!/usr/bin/env bash
# Runs one fuzz target for a while by hand: scripts/fuzz.sh fuzz_ac3reader 600
# The growing corpus stays in build-fuzz/corpus/<target>/ between runs; crashes land in
# build-fuzz/artifacts/. Keep every crash input under fuzz/regressions/<target>/ once it is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:?usage: scripts/fuzz.sh TARGET SECONDS}
seconds=${2:-600}
[ -x "build-fuzz/$target" ] || scripts/fuzz-build.sh
mkdir -p "build-fuzz/corpus/$target" build-fuzz/artifacts
args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
      -artifact_prefix="build-fuzz/artifacts/$target-")
[ -f "fuzz/dict/$target.dict" ] && args+=(-dict="fuzz/dict/$target.dict")
exec "build-fuzz/$target" "${args[@]}" "build-fuzz/corpus/$target" "fuzz/corpus/$target"
