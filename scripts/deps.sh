#!/usr/bin/env bash
# Makes sure the packages the build needs are installed; installs them with apt-get when
# running as root, otherwise prints the exact install line and fails.
#   scripts/deps.sh        the build, the tests and the benchmarks
#   scripts/deps.sh fuzz   the same, and clang with its libFuzzer runtime (scripts/fuzz.sh)
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev)
if [ "${1:-}" = "fuzz" ]; then
  packages+=(clang)
  # Where the fuzzer's runtime is a package of its own (Debian 12 on), clang only recommends it.
  if apt-cache show libclang-rt-dev >/dev/null 2>&1; then packages+=(libclang-rt-dev); fi
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -eq 0 ]; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
else
  echo "missing packages; install them with:" >&2
  echo "  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
