#!/usr/bin/env bash
# Builds everything (library, tools, tests, benchmarks) and runs every test through CTest.
#   scripts/test.sh              release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer and UndefinedBehaviorSanitizer build in
#                                build-sanitize/, tests only
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
dir=build
flags=(-DCMAKE_BUILD_TYPE=Release -DCMR_BUILD_BENCH=ON)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-sanitize
  flags=(-DCMAKE_BUILD_TYPE=Debug -DCMR_SANITIZE=ON -DCMR_BUILD_BENCH=OFF)
fi
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir"
ctest --test-dir "$dir" --output-on-failure -j2
