#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the test guest, boots it under QEMU (TCG, no KVM) with the disks of disks.conf on a
# virtio-scsi controller, and unpacks what the guest sent over its second serial port into
# WORK/out/<name> files. With a scsitool binary, the guest's host capture is then replayed here:
# WORK/out/replay.json is `scsitool --host capture.json map --json` run on this machine.
#
# Usage: run-vm.sh WORK [SCSITOOL]
# VM_QEMU names another QEMU binary, VM_TIMEOUT the seconds the guest may run (420).
# Exit 0 when the guest ran to its end, 77 (or 1 under CI) when no guest can run here, 1 on a
# guest that did not finish. The checks themselves are made by vm_check.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/lib.sh"

work="${1:?usage: run-vm.sh WORK [SCSITOOL]}"
scsitool="${2:-}"
mkdir -p "$work"
work="$(cd "$work" && pwd)"
rm -rf "$work/status" "$work/finished" "$work/out"
trap 'rc=$?; [ -f "$work/finished" ] || echo "$rc" >"$work/status"' EXIT

start=$(date +%s)
"$here/build-guest.sh" "$work" "$scsitool" || exit $?
built=$(date +%s)

# QEMU's disk options, from disks.conf.
qemu_disks=()
n=0
while IFS='|' read -r gen vendor product serial wwn port_wwn device_id; do
  case "$gen" in '' | '#'*) continue ;; esac
  img="$work/guest/disk$n.img"
  truncate -s 8M "$img"
  opts="scsi-hd,drive=d$n,bus=scsi0.0,channel=0,scsi-id=$n,lun=0,vendor=$vendor,product=$product,serial=$serial,wwn=$wwn"
  [ "$port_wwn" = 0 ] || opts="$opts,port_wwn=$port_wwn"
  [ "$device_id" = - ] || opts="$opts,device_id=$device_id"
  qemu_disks+=(-drive "if=none,id=d$n,file=$img,format=raw" -device "$opts")
  n=$((n + 1))
done <"$here/disks.conf"

console="$work/console.log"
serial="$work/serial.log"
rm -f "$console" "$serial"
vm_log "booting the guest (TCG) with $n virtio disks"
set +e
timeout "${VM_TIMEOUT:-420}" "${VM_QEMU:-qemu-system-x86_64}" \
  -machine q35,accel=tcg -cpu max -smp 1 -m 512 -nographic -no-reboot -monitor none \
  -kernel "$work/guest/vmlinuz" -initrd "$work/guest/initrd.gz" \
  -append "console=ttyS0 panic=-1 loglevel=4 vm.qdisks=$n" \
  -serial "file:$console" -serial "file:$serial" \
  -device virtio-scsi-pci,id=scsi0 "${qemu_disks[@]}" \
  -nic none </dev/null >"$work/qemu.out" 2>&1
rc=$?
set -e
booted=$(date +%s)
if ! grep -q '@@DONE' "$serial" 2>/dev/null; then
  if [ ! -s "$console" ]; then
    vm_skip "QEMU did not start (exit $rc): $(head -c 2000 "$work/qemu.out")"
  fi
  vm_log "the guest did not finish (QEMU exit $rc); last console lines:"
  tail -n 40 "$console" >&2
  exit 1
fi

# Unpack the guest's sections.
rm -rf "$work/out"
mkdir -p "$work/out"
tr -d '\r' <"$serial" | awk -v out="$work/out" '
  /^@@BEGIN / { name = $2; file = out "/" name ".b64"; printf "" > file; next }
  /^@@END /   { close(file); name = ""; next }
  /^@@CHECK / { print >> (out "/guest-checks"); next }
  name != ""  { print >> file }'
for f in "$work/out/"*.b64; do
  [ -e "$f" ] || continue
  base64 -d "$f" >"${f%.b64}" && rm -f "$f"
done
touch "$work/out/guest-checks"
cat "$work/out/guest-checks" >&2

if [ -n "$scsitool" ] && [ -s "$work/out/capture.json" ]; then
  set +e
  "$scsitool" --host "$work/out/capture.json" map --json >"$work/out/replay.json" 2>"$work/out/replay.err"
  echo "$?" >"$work/out/replay.rc"
  set -e
fi
end=$(date +%s)
echo "build $((built - start)) s, boot and guest checks $((booted - built)) s, unpack and replay $((end - booted)) s, total $((end - start)) s" |
  tee "$work/out/timing" >&2
touch "$work/finished"
