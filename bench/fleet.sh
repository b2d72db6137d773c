#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The fleet benchmark: `scsitool fleet` over HOSTS generated captures of LUNS disks each (clusters
# of 8 hosts sharing their LUNs), written as capture writes them. In the same run: the elapsed
# time, CPU time and peak resident size of `fleet --json` (reading the recorded maps) and of
# `fleet --replay --json`, and the floors a script would set: `cat` of every capture to /dev/null
# and a Python `json.load` of every capture.
# Usage: bench/fleet.sh [BUILD_DIR [HOSTS [LUNS [REPLAY]]]]   (defaults: build/default 10000 64 1;
# REPLAY 0 leaves the replaying run out)
set -eu
build=${1:-build/default}
hosts=${2:-10000}
luns=${3:-64}
replay=${4:-1}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir "$dir/captures"
"$build/bench/make_fleet" "$dir/captures" "$hosts" "$luns"
echo "captures: $hosts of $luns disks, $(du -sh "$dir/captures" | cut -f1)"
measure() {
    what=$1
    shift
    /usr/bin/time -f "$what: elapsed %e s, user %U s, system %S s, peak RSS %M KiB" "$@"
}
# The floors first, so that every run reads the captures from the page cache alike.
measure "cat floor" sh -c 'find "$1" -name "*.json" -print0 | xargs -0 cat > /dev/null' sh \
    "$dir/captures"
measure "python json.load floor" python3 -c '
import json, os, sys
d = sys.argv[1]
for name in os.listdir(d):
    with open(os.path.join(d, name)) as f:
        json.load(f)
' "$dir/captures"
# One command run over every capture (10,000 paths stay far below the argument limit).
measure "fleet --json" "$build/tools/scsitool/scsitool" fleet --json "$dir"/captures/*.json \
    > "$dir/out" || [ $? -eq 5 ]
echo "shared volumes: $(grep -c '^      "udid"' "$dir/out" || true), output $(du -h "$dir/out" | cut -f1)"
if [ "$replay" = 1 ]; then
    measure "fleet --replay --json" "$build/tools/scsitool/scsitool" fleet --replay --json \
        "$dir"/captures/*.json > "$dir/replayed" || [ $? -eq 5 ]
    cmp -s "$dir/out" "$dir/replayed" && echo "the replay gives the recorded fleet" ||
        echo "the replay differs from the recorded fleet"
fi
