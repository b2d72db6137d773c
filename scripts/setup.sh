#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the build needs, when any is missing.
set -euo pipefail
packages=(cmake g++ make pkg-config libace-dev googletest libgtest-dev libgmock-dev
          libbenchmark-dev nlohmann-json3-dev libcli11-dev libsmartcols-dev libsimdjson-dev clang
          clang-format libclang-rt-14-dev valgrind python3 python3-jsonschema lintian abigail-tools
          binutils dpkg-dev xz-utils sg3-utils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
