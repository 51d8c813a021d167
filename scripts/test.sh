#!/usr/bin/env bash
# Builds everything (library, tools, tests, benchmarks) and runs every test through CTest.
#   scripts/test.sh              release build in build/; then installs the library into a
#                                temporary prefix and builds and runs examples/embed against it
#   scripts/test.sh --sanitize   AddressSanitizer and UndefinedBehaviorSanitizer build in
#                                build-sanitize/, tests only
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
dir=build
sanitize=false
flags=(-DCMAKE_BUILD_TYPE=Release -DCMR_BUILD_BENCH=ON)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-sanitize
  sanitize=true
  flags=(-DCMAKE_BUILD_TYPE=Debug -DCMR_SANITIZE=ON -DCMR_BUILD_BENCH=OFF)
fi
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir"
ctest --test-dir "$dir" --output-on-failure -j2
$sanitize && exit 0

# The installed package must be usable with nothing but its prefix: the example finds it,
# builds against it and runs.
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "test.sh: installing into a temporary prefix and building examples/embed against it"
cmake --install "$dir" --prefix "$tmp/prefix" >/dev/null
cmake -S examples/embed -B "$tmp/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/build"
"$tmp/build/embed"
