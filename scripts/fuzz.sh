#!/usr/bin/env bash
# Builds the attribute log's fuzz target with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer) in build-fuzz/ and runs it from the seed corpus tests/fuzz/corpus
# for a fixed number of inputs (CMR_FUZZ_RUNS, about a minute's worth by default) and a fixed
# seed, so that a run repeats. Arguments go to libFuzzer after these, e.g. -seed=0 (a random
# seed) or -runs=-1 -max_total_time=3600 (an hour).
#
# The fuzzer's progress goes to build-fuzz/fuzz.log; the inputs it finds, to build-fuzz/corpus/,
# emptied at every run. A failing input is saved in build-fuzz/findings/; once fixed, it
# belongs in tests/fuzz/corpus as regression-<what>.attrlog, which the tests replay.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh fuzz
dir=build-fuzz
runs=${CMR_FUZZ_RUNS:-80000}

CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMR_BUILD_FUZZ=ON \
  -DCMR_BUILD_TESTS=OFF -DCMR_BUILD_TOOLS=OFF -DCMR_BUILD_BENCH=OFF -DCMR_INSTALL=OFF >/dev/null
if ! grep -q '^CMR_HAVE_LIBFUZZER:INTERNAL=1' "$dir/CMakeCache.txt"; then
  echo "fuzz.sh: $dir is not configured with clang and libFuzzer" >&2
  exit 1
fi
cmake --build "$dir" --target attrlog_in_fuzz

rm -rf "$dir/corpus"
mkdir -p "$dir/corpus" "$dir/findings"
log=$dir/fuzz.log
echo "fuzz.sh: $runs inputs from tests/fuzz/corpus (progress in $log)"
if ! "$dir/tests/fuzz/attrlog_in_fuzz" -runs="$runs" -seed=1 -timeout=10 -print_final_stats=1 \
  -artifact_prefix="$dir/findings/" "$@" "$dir/corpus" tests/fuzz/corpus >"$log" 2>&1; then
  tail -n 200 "$log" >&2
  echo "fuzz.sh: the fuzz target failed; the input is in $dir/findings/, the whole log in $log" >&2
  exit 1
fi
grep -E '^(Done|stat::)' "$log"
