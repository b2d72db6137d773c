#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# /init of the figure guest: loads the SCSI stack, adds one scsi_debug host with 16 targets of
# 32 LUNs (512 disks that answer at once: delay=0, one shared 1 MB store), then times, in
# alternating rounds, the bare ioctl loop and `scsitool map`, as whole processes and inside
# them. Every figure goes to the second serial port as a "@@FIGURE" line; then the machine
# powers off.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin LD_LIBRARY_PATH=/lib
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /tmp /run
hostname vmguest

data=/dev/ttyS1
stty -F $data raw -echo 2>/dev/null
exec 3>$data
say() { echo "vm-figure: $*" >/dev/console; }
figure() { echo "@@FIGURE $*" >&3; say "$*"; }
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
rounds=$(arg bench.rounds)
luns=$(arg bench.luns)
targets=$(arg bench.targets)

for m in $(cat /modules/load.list); do
  insmod /modules/$m 2>/dev/null || say "insmod $m failed"
done
insmod /modules/scsi_debug.ko add_host=1 num_tgts="$targets" max_luns=$((luns / targets)) \
  dev_size_mb=1 virtual_gb=0 delay=0 inq_vendor=BENCH inq_product=FLOOR ||
  { figure "error scsi_debug"; finish; }
count_disks() { ls -d /sys/block/sd* 2>/dev/null | wc -l; }
i=0
while [ "$(count_disks)" -lt "$luns" ] && [ $i -lt 6000 ]; do usleep 100000; i=$((i + 1)); done
usleep 1000000
figure "disks $(count_disks) after $((i / 10)) s"

# What each side does, once, untimed.
figure "once $(ioctl_floor)"
scsitool map >/tmp/map.txt 2>/tmp/map.err
figure "map exit $? lines $(wc -l </tmp/map.txt)"
figure "map head $(head -n 3 /tmp/map.txt | tr '\n' '|')"
[ -s /tmp/map.err ] && figure "map stderr $(head -c 300 /tmp/map.err | tr '\n' '|')"

# Alternating rounds. As whole processes: the floor and the map. In-process: the floor's loop
# (plain, with the configuration probe before each open, without the first open) and the map's
# enumeration from its own trace (first rescan line to "Printing m_deviceMap", level 3).
timed() { # label command...
  label=$1
  shift
  ioctl_floor --time 1 /dev/null -- "$@" | while read -r l; do figure "$label $l"; done
}
n=0
while [ $n -lt "$rounds" ]; do
  timed floor /bin/ioctl_floor
  timed map /bin/scsitool map
  figure "loop $(ioctl_floor)"
  figure "configloop $(ioctl_floor --config-probe)"
  figure "singleloop $(ioctl_floor --single-open)"
  rm -f /tmp/trace.log
  scsitool --trace /tmp/trace.log --trace-level 3 map >/dev/null 2>&1
  # The phases, by the first trace line of each: the multipath scan and its opens, the first
  # look at every disk, the queries (starting with /dev/mapper/control, which fails), the
  # multipathd check, and the UDIDs and the map.
  stamps=""
  for marker in 'CDeviceDiscoveryBase::rescan()' 'INFO: reading /proc/partitions' \
    'Remove disk /dev/mapper/control' 'FlushMultipathStaleDevices - calling command' \
    'Releasing the lock' 'Printing m_deviceMap'; do
    stamps="$stamps $(grep -m1 "$marker" /tmp/trace.log | cut -d' ' -f2)"
  done
  figure "phases$stamps"
  n=$((n + 1))
done
# The pieces of the map that are not ioctls: the multipathd check it runs through the shell,
# and starting the command (the dynamic loader, the libraries, parsing the command line).
timed_many() { # count label command...
  count=$1
  label=$2
  shift 2
  ioctl_floor --time "$count" /dev/null -- "$@" | while read -r l; do figure "$label $l"; done
}
timed_many "$rounds" pidof /bin/sh -c "/sbin/pidof -x multipathd"
timed_many "$rounds" startup /bin/scsitool --help
timed_many "$rounds" floorstart /bin/ioctl_floor --usage
finish
