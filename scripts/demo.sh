#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up, builds, and shows the device map of the bundled example datacenter host.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default >/dev/null
exec build/default/tools/scsitool/scsitool --host examples/hosts/datacenter.json map "$@"
