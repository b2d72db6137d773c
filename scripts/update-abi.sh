#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Rewrites the committed boundary of both shared libraries from a build: the exported symbols
# (abi/lib*.symbols) and the ABI baselines (abi/lib*.abi.xz). Run it after a reviewed change of the
# boundary and commit what it prints as changed; abi/README.md says what a change requires.
# Usage: scripts/update-abi.sh [BUILD_DIR]   (default: build/default)
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$source/build/default}
# shellcheck source=tests/abi/boundary.sh
. "$source/tests/abi/boundary.sh"
for lib in libscsitool libfikit; do
  so=$build/$lib.so
  [ -e "$so" ] || { echo "update-abi: $so is not built" >&2; exit 1; }
  exported_symbols "$so" >"$source/abi/$lib.symbols"
  abi_dump "$so" "$source" | xz -9 >"$source/abi/$lib.abi.xz"
  echo "abi/$lib.symbols: $(wc -l <"$source/abi/$lib.symbols") symbols"
done
git -C "$source" status --short -- abi/
