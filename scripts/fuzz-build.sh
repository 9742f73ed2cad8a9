#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UBSan on) in build-fuzz/.
set -euo pipefail
cd "$(dirname "$0")/.."
CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSONVEX_FUZZ=ON \
  -DSONVEX_TESTS=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc)"
