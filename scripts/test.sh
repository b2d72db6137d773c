#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up, checks the C++ files' format, builds and runs every test: the default build (with the
# boundary, ABI and package checks), then the sanitizer build, then the thread-sanitizer test of
# two factories at once.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
echo "== format: every C++ file as clang-format writes it"
bash scripts/check-format.sh
for preset in default asan; do
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== $preset: tests"
  ctest --preset "$preset" --no-tests=error
  if [ "$preset" = default ]; then
    echo "== default: real-kernel tests in a virtual machine"
    # The presets leave the vm label out; these run from the build directory itself.
    ctest --test-dir build/default -L vm --output-on-failure
  fi
done
echo "== tsan: two factories enumerating and rescanning on two threads"
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan --no-tests=error
echo "== fuzz: every target briefly over its seeds (clang, sanitizers)"
bash fuzz/smoke.sh
echo "== memcheck: the tests under valgrind"
bash scripts/memcheck.sh
