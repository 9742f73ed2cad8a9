#!/usr/bin/env bash
# Builds sonvex and runs every test: a release build, then the same tests under AddressSanitizer
# with UBSan, then the threaded fan-out tests under ThreadSanitizer, then every fuzz target for a
# short fixed time (FUZZ_SECONDS each, 20 by default; 0 skips it). Kept fuzz inputs are replayed
# by the first two builds as tests of their own.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)
# ccache, where present, shares compiled objects between checkouts that sit side by side.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(cd .. && pwd)}

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs")

# Warnings are errors here: at -O3 GCC 12 reports false array-bounds and restrict warnings.
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSONVEX_SANITIZE=address,undefined \
  -DSONVEX_WERROR=ON >/dev/null
cmake --build build-asan -j "$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j "$jobs")

cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSONVEX_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$jobs" --target sonvex_tests
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -R 'Fanout|Threads')

seconds=${FUZZ_SECONDS:-20}
if [ "$seconds" -gt 0 ]; then
  scripts/fuzz-ci.sh "$seconds"
fi

# Test code (tests/ and fuzz/) against the source it tests, by lines.
count() { git ls-files "$@" | grep -E '\.(c|cc|cpp|h|hpp|sh|py)$' | xargs -r cat | wc -l; }
src=$(count 'src/*')
tst=$(count 'tests/*' 'fuzz/*')
awk -v t="$tst" -v s="$src" 'BEGIN { printf "test-to-code ratio: %.2f (%d test lines, %d source lines)\n", t / s, t, s }'
