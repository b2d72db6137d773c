#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# /init of the test guest. Loads the SCSI stack, waits for the virtio disks, adds two scsi_debug
# hosts that show one LUN over two paths, joins those paths into the multipath map mpatha, and
# dumps what sg3-utils and scsitool read from every disk to the second serial port (ttyS1)
# between @@BEGIN/@@END markers (base64), with @@CHECK lines for what the guest can judge alone.
# Then it powers the machine off.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin LD_LIBRARY_PATH=/lib
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /tmp /run
hostname vmguest

data=/dev/ttyS1
stty -F $data raw -echo 2>/dev/null
exec 3>$data
say() { echo "vm-guest: $*" >/dev/console; }
check() { echo "@@CHECK $1 $2 $3" >&3; say "$1 $2 $3"; }
emit() { # name file
  echo "@@BEGIN $1" >&3
  base64 "$2" >&3
  echo "@@END $1" >&3
}
emit_text() { # name text
  printf '%s' "$2" >/tmp/emit.txt
  emit "$1" /tmp/emit.txt
}
finish() {
  echo "@@DONE" >&3
  sync
  poweroff -f
}

arg() { # value of key=value on the kernel command line
  for word in $(cat /proc/cmdline); do
    case "$word" in "$1"=*) echo "${word#*=}" ;; esac
  done
}
qdisks=$(arg vm.qdisks)

failed=""
for m in $(cat /modules/load.list); do
  insmod /modules/$m 2>/tmp/insmod.err || failed="$failed $m($(cat /tmp/insmod.err))"
done
if [ -z "$failed" ]; then check modules PASS "$(wc -l </modules/load.list) loaded"; else check modules FAIL "$failed"; fi

count_disks() { ls -d /sys/block/sd* 2>/dev/null | wc -l; }
wait_disks() { # count seconds
  i=0
  while [ "$(count_disks)" -lt "$1" ] && [ $i -lt $(($2 * 10)) ]; do usleep 100000; i=$((i + 1)); done
  [ "$(count_disks)" -ge "$1" ]
}
if wait_disks "$qdisks" 60; then check virtio_disks PASS "$qdisks disks"; else check virtio_disks FAIL "$(count_disks) of $qdisks disks"; fi

# Two scsi_debug hosts with one target and one LUN each. With vpd_use_hostno=0 both LUNs report
# the same identity (and share one store): two paths to one logical unit.
insmod /modules/scsi_debug.ko add_host=2 num_tgts=1 max_luns=1 dev_size_mb=4 vpd_use_hostno=0 \
  inq_vendor=VMTEST inq_product=SHAREDLUN 2>/tmp/insmod.err ||
  check scsi_debug FAIL "$(cat /tmp/insmod.err)"
if wait_disks $((qdisks + 2)) 60; then check scsi_debug PASS "2 paths"; else check scsi_debug FAIL "$(count_disks) disks"; fi
# let the block layer settle before the nodes are used
usleep 500000

paths=""
for d in /sys/block/sd*; do
  [ "$(cat $d/device/vendor 2>/dev/null | tr -d ' ')" = VMTEST ] && paths="$paths ${d##*/}"
done
set -- $paths
map=""
if [ $# -eq 2 ]; then
  sectors=$(cat /sys/block/$1/size)
  table="0 $sectors multipath 0 0 1 1 round-robin 0 2 1 $(cat /sys/block/$1/dev) 1000 $(cat /sys/block/$2/dev) 1000"
  if dmsetup create mpatha --table "$table" >/tmp/dm.out 2>&1; then
    map=multipath
  else
    say "multipath table refused: $(cat /tmp/dm.out)"
  fi
  dmsetup mknodes >/dev/null 2>&1
  if [ -b /dev/mapper/mpatha ] && [ "$map" = multipath ]; then
    check dm_map PASS "multipath over $1 $2: $(dmsetup table mpatha)"
  else
    check dm_map FAIL "no multipath map over $1 $2: $(cat /tmp/dm.out)"
  fi
else
  check dm_map FAIL "expected two scsi_debug paths, found:$paths"
fi
emit_text dm_paths "$paths"

# Every whole disk and the map, with what sg3-utils reads from each.
devices=""
for d in /sys/block/sd*; do devices="$devices /dev/${d##*/}"; done
[ -b /dev/mapper/mpatha ] && devices="$devices /dev/mapper/mpatha"
emit_text devices "$devices"
for dev in $devices; do
  name=${dev##*/}
  if [ -e /sys/block/$name/device ]; then
    emit_text "$name.hctl" "$(basename "$(readlink /sys/block/$name/device)")"
  fi
  sg_inq --raw --len=252 $dev >/tmp/inq.bin 2>/tmp/sg.err || say "sg_inq $dev: $(cat /tmp/sg.err)"
  emit "$name.inquiry" /tmp/inq.bin
  sg_vpd --raw -p 0x00 $dev >/tmp/vpd00.bin 2>/tmp/sg.err || say "sg_vpd $dev: $(cat /tmp/sg.err)"
  emit "$name.vpd.00" /tmp/vpd00.bin
  for code in $(od -An -v -tx1 -j4 /tmp/vpd00.bin); do
    [ "$code" = 00 ] && continue
    sg_vpd --raw -p 0x$code $dev >/tmp/vpd.bin 2>/dev/null && emit "$name.vpd.$code" /tmp/vpd.bin
  done
done
cat /proc/partitions >/tmp/partitions; emit proc_partitions /tmp/partitions
cat /proc/scsi/scsi >/tmp/scsi; emit proc_scsi /tmp/scsi
ls -la /dev/mapper >/tmp/mapper; emit dev_mapper /tmp/mapper

if [ -x /bin/scsitool ]; then
  scsitool --trace /tmp/map.trace --trace-level 5 map --json >/tmp/map.json 2>/tmp/map.err
  emit_text map.rc "$?"
  emit map.json /tmp/map.json
  emit map.err /tmp/map.err
  emit map.trace /tmp/map.trace
  for dev in $devices; do
    scsitool show $dev --json >/tmp/show.json 2>/tmp/show.err
    emit_text "${dev##*/}.show.rc" "$?"
    emit "${dev##*/}.show.json" /tmp/show.json
    emit "${dev##*/}.show.err" /tmp/show.err
  done
  scsitool capture /tmp/capture.json >/tmp/capture.out 2>&1
  emit_text capture.rc "$?"
  emit capture.json /tmp/capture.json
  emit capture.out /tmp/capture.out
  # Two enumerations at once: the host-wide rescan lock must let both through.
  for n in 1 2; do
    (scsitool --trace /tmp/lock$n.trace --trace-level 3 map --json >/tmp/lock$n.json 2>/tmp/lock$n.err
      echo $? >/tmp/lock$n.rc) &
  done
  wait
  for n in 1 2; do
    emit lock$n.trace /tmp/lock$n.trace
    emit lock$n.rc /tmp/lock$n.rc
    emit lock$n.json /tmp/lock$n.json
    emit lock$n.err /tmp/lock$n.err
  done
  # A rescan with bus rescanning: on this kernel it matches every disk of /proc/scsi/scsi with a
  # queried record and must remove none.
  scsitool --trace /tmp/rescan.trace --trace-level 3 map --rescan-buses --json >/tmp/rescan.json 2>/tmp/rescan.err
  emit_text rescan.rc "$?"
  emit rescan.json /tmp/rescan.json
  emit rescan.err /tmp/rescan.err
  emit rescan.trace /tmp/rescan.trace
  after=""
  for d in /sys/block/sd*; do after="$after /dev/${d##*/}"; done
  emit_text rescan.devices "$after"
  check scsitool PASS "present"
else
  check scsitool SKIP "no scsitool in this guest"
fi
finish
