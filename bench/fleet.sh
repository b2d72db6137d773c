#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The fleet benchmark: `scsitool fleet` over HOSTS generated captures of LUNS disks each (clusters
# of 8 hosts sharing their LUNs), its elapsed and CPU time and its peak resident size.
# Usage: bench/fleet.sh [BUILD_DIR [HOSTS [LUNS]]]   (defaults: build/default 10000 64)
set -eu
build=${1:-build/default}
hosts=${2:-10000}
luns=${3:-64}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$build/bench/make_fleet" "$dir" "$hosts" "$luns"
echo "captures: $hosts of $luns disks, $(du -sh "$dir" | cut -f1)"
# One command run over every capture (10,000 paths stay far below the argument limit).
/usr/bin/time -f "elapsed %e s, user %U s, system %S s, peak RSS %M KiB" \
    "$build/tools/scsitool/scsitool" fleet --json "$dir"/*.json > "$dir/out"
echo "shared volumes: $(grep -c '^      "udid"' "$dir/out" || true)"
