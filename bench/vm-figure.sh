#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The real-kernel figure: `scsitool map` on 512 scsi_debug LUNs against the bare ioctl loop
# (ioctl_floor.c) in the same guest, as whole processes, in alternating rounds. The guest is the
# one tests/vm/build-guest.sh makes (Debian's kernel, busybox, scsitool with its libraries), with
# the floor program added and vm-figure-guest.sh as its /init. QEMU runs it under TCG.
#
# Usage: bench/vm-figure.sh WORK SCSITOOL [ROUNDS]
#   WORK      build directory (the kernel download is cached under WORK/cache; VM_CACHE names a
#             cache directory of the vm tests to reuse instead)
#   SCSITOOL  the scsitool binary, e.g. build/default/tools/scsitool/scsitool
#   ROUNDS    timed rounds (5)
# VM_LUNS (512) and VM_TARGETS (16) shape the scsi_debug host; VM_TIMEOUT is the guest's limit in
# seconds (1800). Prints the figures and writes them to WORK/figure.txt. Exit 1 when the whole
# map process takes more than 1.15 times the start-up plus the enumeration; 77 (1 under CI) when
# no guest can run here.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
vmdir="$here/../tests/vm"
. "$vmdir/lib.sh"

work="${1:?usage: vm-figure.sh WORK SCSITOOL [ROUNDS]}"
scsitool="${2:?usage: vm-figure.sh WORK SCSITOOL [ROUNDS]}"
rounds="${3:-5}"
luns="${VM_LUNS:-512}"
targets="${VM_TARGETS:-16}"
mkdir -p "$work"
work="$(cd "$work" && pwd)"
scsitool="$(cd "$(dirname "$scsitool")" && pwd)/$(basename "$scsitool")"
if [ -n "${VM_CACHE:-}" ] && [ ! -e "$work/cache" ]; then
  ln -s "$(cd "$VM_CACHE" && pwd)" "$work/cache"
fi

"$vmdir/build-guest.sh" "$work" "$scsitool" || exit $?
command -v gcc >/dev/null || vm_skip "gcc is missing"
root="$work/guest/root"
gcc -O2 -Wall -Wextra -Werror -static -o "$root/bin/ioctl_floor" "$here/ioctl_floor.c" ||
  vm_skip "cannot build a static ioctl_floor (libc6-dev)"
cp "$here/vm-figure-guest.sh" "$root/init"
chmod 755 "$root/init"
(cd "$root" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet) |
  gzip -1 >"$work/guest/initrd.gz"

console="$work/console.log"
serial="$work/serial.log"
rm -f "$console" "$serial"
vm_log "booting the figure guest (TCG): $luns scsi_debug LUNs, $rounds rounds"
set +e
timeout "${VM_TIMEOUT:-1800}" "${VM_QEMU:-qemu-system-x86_64}" \
  -machine q35,accel=tcg -cpu max -smp 1 -m 1024 -nographic -no-reboot -monitor none \
  -kernel "$work/guest/vmlinuz" -initrd "$work/guest/initrd.gz" \
  -append "console=ttyS0 panic=-1 loglevel=4 bench.rounds=$rounds bench.luns=$luns bench.targets=$targets" \
  -serial "file:$console" -serial "file:$serial" -nic none </dev/null >"$work/qemu.out" 2>&1
rc=$?
set -e
if ! grep -q '@@DONE' "$serial" 2>/dev/null; then
  [ -s "$console" ] || vm_skip "QEMU did not start (exit $rc): $(head -c 2000 "$work/qemu.out")"
  vm_log "the guest did not finish (QEMU exit $rc); last console lines:"
  tail -n 40 "$console" >&2
  exit 1
fi

# Medians of the rounds, and the ratios of the map to the floor.
tr -d '\r' <"$serial" | sed -n 's/^@@FIGURE //p' >"$work/figures.raw"
awk '
  function median(list,   n, i, j, t, a) {
    n = split(list, a, " ")
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] + 0 < a[i] + 0) { t = a[i]; a[i] = a[j]; a[j] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  function ms(clock,   p) { split(clock, p, ":"); return (p[1] * 3600 + p[2] * 60 + p[3]) * 1000 }
  $2 == "run" {
    for (i = 4; i < NF; i += 2) v[$i] = $(i + 1)
    wall[$1] = wall[$1] " " v["wall_us"] / 1000
    cpu[$1] = cpu[$1] " " (v["user_us"] + v["sys_us"]) / 1000
    next
  }
  $(NF - 1) == "loop_us" { loop[$1] = loop[$1] " " $NF / 1000; next }
  $1 == "phases" && NF == 7 {
    for (i = 3; i <= 7; i++) phase[i - 2] = phase[i - 2] " " (ms($i) - ms($(i - 1)))
    enumeration = enumeration " " (ms($7) - ms($2))
    next
  }
  { print }
  END {
    print "whole processes (median wall / cpu, ms):"
    for (k in wall) printf "  %-10s %8.1f / %8.1f\n", k, median(wall[k]), median(cpu[k])
    print "inside the processes (median wall, ms):"
    for (k in loop) printf "  %-10s %8.1f\n", k, median(loop[k])
    e = median(enumeration)
    printf "  %-10s %8.1f (from the map'"'"'s trace, millisecond stamps), of which:\n", "enumeration", e
    split("multipath-scan first-looks queries multipathd-check udids-and-map", names, " ")
    for (i = 1; i <= 5; i++) printf "    %-16s %8.1f\n", names[i], median(phase[i])
    printf "ratio map/floor, whole processes: %.2f\n", median(wall["map"]) / median(wall["floor"])
    printf "ratio enumeration/floor loop: %.2f\n", e / median(loop["loop"])
    printf "ratio enumeration/floor loop with the configuration probe: %.2f\n", e / median(loop["configloop"])
    # The goal: the command adds next to nothing to the enumeration of the library, its columns
    # coming from the records the enumeration read rather than from a second pass.
    budget = 1.15 * (median(wall["startup"]) + e)
    printf "goal: map %.1f ms within 1.15 x (start-up %.1f + enumeration %.1f) = %.1f ms: %s\n", \
      median(wall["map"]), median(wall["startup"]), e, budget, median(wall["map"]) <= budget ? "met" : "missed"
  }' "$work/figures.raw" | tee "$work/figure.txt"
if grep -q '^goal: .*: missed$' "$work/figure.txt"; then
  vm_log "the map process is over its goal"
  exit 1
fi
