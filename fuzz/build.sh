#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets with clang into build/fuzz (separate from the g++ presets).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSCSITOOL_FUZZ=ON \
  -DSCSITOOL_BUILD_TESTS=OFF -DSCSITOOL_BUILD_BENCH=OFF >/dev/null
cmake --build build/fuzz -j2 --target fuzz_generators fuzz_update_device fuzz_kernel_files \
  fuzz_snapshot fuzz_page_decode
