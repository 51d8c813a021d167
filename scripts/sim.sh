#!/usr/bin/env bash
# Builds the simulator (Release, in build/) and runs it; arguments go to the simulator,
# e.g. scripts/sim.sh --switches 64 --seed 7. Without arguments: the built-in scenario.
# Everything the build says goes to stderr, so the simulator's stdout can be piped; when the
# simulator is already up to date the build says nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

say() { echo "sim.sh: $*" >&2; }
announced=false
if [ ! -f build/build.ninja ]; then
  say "building the simulator in build/ (the first build takes a minute or two)"
  announced=true
fi

# Configuring an existing tree takes a second and prints the same few lines every time:
# kept out of sight unless it fails.
log=$(mktemp)
if ! cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  say "configuring the build failed"
  exit 1
fi
rm -f "$log"

if $announced || ! ninja -C build -n mountsim 2>/dev/null | grep -q '^ninja: no work to do'; then
  $announced || say "rebuilding the simulator"
  # Ninja's progress and the compiler's messages go to stderr.
  if ! cmake --build build --target mountsim >&2; then
    say "the build failed"
    exit 1
  fi
fi
exec build/tools/mountsim "$@"
