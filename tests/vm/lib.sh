# SPDX-License-Identifier: Apache-2.0
# Shared helpers of the virtual-machine test scripts (sourced, not run).

# An environment that cannot run the guest is a skip on a developer's machine (exit 77, which
# ctest reports as skipped) and a failure under CI, where the guest must run.
vm_skip() {
  echo "vm: SKIP: $*" >&2
  if [ -n "${CI:-}" ]; then
    echo "vm: CI is set, so a guest that cannot run is a failure" >&2
    exit 1
  fi
  exit 77
}

vm_log() { echo "vm: $*" >&2; }

vm_sudo() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the Debian packages the guest is made of, when any is missing.
vm_need_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  vm_log "installing ${missing[*]}"
  vm_sudo apt-get update -qq >/dev/null 2>&1 || true
  DEBIAN_FRONTEND=noninteractive vm_sudo apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null 2>&1 || return 1
}
