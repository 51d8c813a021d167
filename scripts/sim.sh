#!/usr/bin/env bash
# Builds the simulator (Release, in build/) and runs it; arguments go to the simulator,
# e.g. scripts/sim.sh --switches 64 --seed 7. Without arguments: the built-in scenario.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build --target mountsim >/dev/null
exec build/tools/mountsim "$@"
