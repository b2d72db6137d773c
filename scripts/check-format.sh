#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every tracked C++ file as clang-format (.clang-format at the top) writes it. Lists the files
# that differ and fails; `scripts/check-format.sh --fix` rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
format="${CLANG_FORMAT:-clang-format}"
command -v "$format" >/dev/null || { echo "check-format: $format is not installed" >&2; exit 1; }
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  "$format" -i "${files[@]}"
  exit 0
fi
bad=()
for file in "${files[@]}"; do
  [ -e "$file" ] || continue
  "$format" --dry-run -Werror "$file" >/dev/null 2>&1 || bad+=("$file")
done
if [ ${#bad[@]} -gt 0 ]; then
  printf 'check-format: not formatted: %s\n' "${bad[@]}"
  echo "check-format: scripts/check-format.sh --fix rewrites them"
  exit 1
fi
echo "check-format: ${#files[@]} files formatted"
