#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets with clang into build/fuzz (the `fuzz` preset, separate from the
# g++ presets).
set -euo pipefail
cd "$(dirname "$0")/.."
source fuzz/targets.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${FUZZ_TARGETS[@]}"
