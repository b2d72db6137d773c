#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the test guest from Debian packages: Debian's kernel (downloaded and unpacked, never
# installed), the SCSI, virtio, scsi_debug and device-mapper modules it needs in load order,
# busybox as the whole userland, sg3-utils and dmsetup, and the scsitool command with every
# shared library it loads. The result is WORK/guest/vmlinuz and WORK/guest/initrd.gz.
#
# Usage: build-guest.sh WORK [SCSITOOL]
#   WORK      build directory; the kernel download is cached under WORK/cache
#   SCSITOOL  the scsitool binary to put in the guest (optional)
# Exit 77 (or 1 under CI) when the kernel or the tools cannot be had.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/lib.sh"

work="${1:?usage: build-guest.sh WORK [SCSITOOL]}"
scsitool="${2:-}"
mkdir -p "$work/cache" "$work/guest"
work="$(cd "$work" && pwd)"

vm_need_packages qemu-system-x86 busybox-static sg3-utils dmsetup cpio kmod ||
  vm_skip "cannot install qemu-system-x86 busybox-static sg3-utils dmsetup cpio kmod"
for tool in qemu-system-x86_64 depmod cpio sg_inq sg_vpd dmsetup; do
  command -v "$tool" >/dev/null || vm_skip "$tool is missing after installation"
done
[ -x /bin/busybox ] || vm_skip "/bin/busybox is missing after installing busybox-static"
! ldd /bin/busybox >/dev/null 2>&1 ||
  vm_skip "/bin/busybox is not the static build"

# The kernel: the package that linux-image-amd64 depends on, fetched once and kept unpacked.
kpkg="$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}')"
if [ -z "$kpkg" ]; then
  vm_sudo apt-get update -qq >/dev/null 2>&1 || true
  kpkg="$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}')"
fi
[ -n "$kpkg" ] || vm_skip "apt knows no linux-image-amd64"
kroot="$work/cache/$kpkg"
if [ ! -f "$kroot/.unpacked" ]; then
  vm_log "fetching $kpkg"
  rm -rf "$kroot" "$work/cache/dl"
  mkdir -p "$work/cache/dl"
  (cd "$work/cache/dl" && apt-get download "$kpkg" >/dev/null 2>&1) ||
    vm_skip "apt-get download $kpkg failed"
  mkdir -p "$kroot"
  dpkg -x "$work/cache/dl/"*.deb "$kroot" || vm_skip "dpkg -x of $kpkg failed"
  rm -rf "$work/cache/dl"
  touch "$kroot/.unpacked"
fi
kver="$(ls "$kroot/lib/modules" | head -n1)"
[ -n "$kver" ] && [ -f "$kroot/boot/vmlinuz-$kver" ] || vm_skip "$kpkg holds no kernel image"
mdir="$kroot/lib/modules/$kver"
[ -f "$mdir/modules.dep" ] || depmod -b "$kroot" "$kver"

# Module load order: each module after everything it depends on, as modprobe would load them.
declare -A seen=()
order=()
module_path() { # module name (dashes or underscores) -> path relative to the modules dir
  local pattern="${1//[-_]/[-_]}"
  grep -E "^(kernel/)?([^:]*/)?${pattern}\.ko(\.[a-z]+)?:" "$mdir/modules.dep" | head -n1 | cut -d: -f1
}
add_module() { # relative path
  local rel="$1" deps i
  [ -n "${seen[$rel]:-}" ] && return 0
  seen[$rel]=1
  read -r -a deps <<<"$(grep -E "^${rel//./\\.}:" "$mdir/modules.dep" | cut -d: -f2)"
  for ((i = ${#deps[@]} - 1; i >= 0; i--)); do add_module "${deps[i]}"; done
  order+=("$rel")
}
for m in virtio_pci virtio_scsi sd_mod sg dm-mod dm-multipath dm-round-robin scsi_debug; do
  rel="$(module_path "$m")"
  if [ -z "$rel" ]; then
    grep -qE "/${m//[-_]/[-_]}\.ko" "$mdir/modules.builtin" && continue
    vm_skip "module $m is neither built into $kver nor shipped with it"
  fi
  add_module "$rel"
done

# The initramfs tree.
root="$work/guest/root"
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,lib,lib64,etc,proc,sys,dev,tmp,run,modules,usr/bin,usr/sbin}
cp /bin/busybox "$root/bin/busybox"
for applet in $(/bin/busybox --list); do
  [ "$applet" = busybox ] && continue
  ln -sf busybox "$root/bin/$applet"
  ln -sf ../bin/busybox "$root/sbin/$applet"
done
: >"$root/modules/load.list"
for rel in "${order[@]}"; do
  base="$(basename "$rel")"
  case "$rel" in
  *.ko) cp "$mdir/$rel" "$root/modules/$base" ;;
  *.ko.xz) xz -dc "$mdir/$rel" >"$root/modules/${base%.xz}"; base="${base%.xz}" ;;
  *.ko.zst) zstd -qdc "$mdir/$rel" >"$root/modules/${base%.zst}"; base="${base%.zst}" ;;
  *) vm_skip "unknown module format $rel" ;;
  esac
  # scsi_debug is loaded by the guest once the virtio disks are in, with its own parameters.
  [ "$base" = scsi_debug.ko ] || echo "$base" >>"$root/modules/load.list"
done

# A dynamically linked program and the libraries it loads, all under /lib of the guest.
add_program() { # source path, guest path
  local src="$1" dst="$2" line name path
  cp -L "$src" "$root$dst"
  chmod 755 "$root$dst"
  while read -r line; do
    case "$line" in
    *"=> not found"*) vm_skip "$src needs a library that is not found: $line" ;;
    *"=> /"*) name="${line%% =>*}"; path="${line#*=> }"; path="${path%% (*}" ;;
    /*) path="${line%% (*}"; name="$(basename "$path")"
        mkdir -p "$root$(dirname "$path")"; cp -L "$path" "$root$path" ;;
    *) continue ;;
    esac
    [ -e "$root/lib/$name" ] || cp -L "$path" "$root/lib/$name"
  done < <(ldd "$src" 2>/dev/null)
}
add_program "$(command -v sg_inq)" /bin/sg_inq
add_program "$(command -v sg_vpd)" /bin/sg_vpd
add_program "$(command -v dmsetup)" /sbin/dmsetup
if [ -n "$scsitool" ]; then
  [ -x "$scsitool" ] || vm_skip "no scsitool binary at $scsitool"
  add_program "$scsitool" /bin/scsitool
fi
cp "$here/guest-init.sh" "$root/init"
chmod 755 "$root/init"
echo "vmguest" >"$root/etc/hostname"
echo "root:x:0:0:root:/:/bin/sh" >"$root/etc/passwd"

cp "$kroot/boot/vmlinuz-$kver" "$work/guest/vmlinuz"
(cd "$root" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet) |
  gzip -1 >"$work/guest/initrd.gz"
echo "$kver" >"$work/guest/kernel-version"
vm_log "guest built: kernel $kver, modules ${order[*]##*/}, initrd $(du -h "$work/guest/initrd.gz" | cut -f1)"
