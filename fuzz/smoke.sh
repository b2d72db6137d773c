#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the fuzz targets and runs each one briefly over its seeds and what it finds in that
# time (FUZZ_SECONDS, default 20). Fails on the first crash, leak or sanitizer report and shows
# the input that caused it.
set -euo pipefail
cd "$(dirname "$0")/.."
source fuzz/targets.sh
seconds="${FUZZ_SECONDS:-20}"
bash fuzz/build.sh >/dev/null
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
status=0
for target in "${FUZZ_TARGETS[@]}"; do
  mkdir -p "$work/$target"
  log="$work/$target.log"
  if build/fuzz/fuzz/"$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -dict="$(fuzz_dict "$target")" -artifact_prefix="$work/$target-" \
      "$work/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
    echo "fuzz: $target: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1)"
  else
    echo "fuzz: $target FAILED"
    grep -v -E '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse)' "$log" | tail -60
    for artifact in "$work/$target"-*; do
      [ -e "$artifact" ] || continue
      echo "fuzz: input $artifact ($(stat -c %s "$artifact") bytes):"
      head -c 2048 "$artifact" | base64 -w0; echo
    done
    status=1
  fi
done
exit $status
