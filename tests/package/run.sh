#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build tree into a temporary prefix and moves it elsewhere, checks the installed
# layout, builds a consumer against the moved tree through the CMake package and through
# pkg-config and a test program against the simulated host, builds the three Debian packages
# and checks them, with lintian when it is installed (any error fails).
# Usage: run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "package: $*" >&2; exit 1; }

# The tree is used where it was moved to, not where it was installed: nothing may name that place.
cmake --install "$build" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$prefix"
libdir=$(cd "$prefix" && dirname "$(find . -name libscsitool.so -print -quit)")
[ "$libdir" != "." ] || fail "libscsitool.so is not installed"
for file in bin/scsitool include/scsitool/device_udid_factory.h include/scsitool/fi_trace.h \
            include/scsitool/simhost.h "$libdir/libfikit.so" "$libdir/libsimhost.a" \
            "$libdir/pkgconfig/scsitool.pc" "$libdir/cmake/scsitool/scsitoolConfig.cmake" \
            "$libdir/cmake/scsitool/FindACE.cmake" share/man/man1/scsitool.1 \
            share/bash-completion/completions/scsitool; do
  [ -e "$prefix/$file" ] || fail "$file is not installed"
done
for file in include/scsitool/simhost_state.h share/doc; do
  [ ! -e "$prefix/$file" ] || fail "$file is installed"
done
grep -rlF -e "$work/installed" -e "$build" -e "$source" -e /libACE "$prefix/$libdir/cmake" \
  "$prefix/$libdir/pkgconfig" && fail "the CMake or pkg-config files name a path of this machine"
"$prefix/bin/scsitool" --help >/dev/null || fail "the installed command does not run"
[ "$("$prefix/bin/scsitool" --version)" = "scsitool 1.0.0" ] || fail "the installed command's version"
grep -q '^\.TH SCSITOOL 1 .*"scsitool 1\.0\.0"' "$prefix/share/man/man1/scsitool.1" ||
  fail "the manual page does not name the version"
if command -v man >/dev/null; then
  man -l "$prefix/share/man/man1/scsitool.1" 2>&1 >/dev/null | grep . && fail "the manual page has errors"
fi
# The completion offers the subcommands, and a subcommand's options after it.
completions=$(bash -c '_init_completion() { cur=${COMP_WORDS[COMP_CWORD]}; prev=${COMP_WORDS[COMP_CWORD-1]}; words=("${COMP_WORDS[@]}"); cword=$COMP_CWORD; }
  source "$1"; COMP_WORDS=(scsitool --host x.json map --v); COMP_CWORD=4; _scsitool; echo "${COMPREPLY[*]}"
  COMP_WORDS=(scsitool ve); COMP_CWORD=1; _scsitool; echo "${COMPREPLY[*]}"' _ \
  "$prefix/share/bash-completion/completions/scsitool")
[ "$completions" = $'--volumes --version\nverify' ] ||
  fail "the completion offered '$completions'"

expected="generators 13, last :"

mkdir "$work/cmake-consumer"
cp "$source/tests/package/consumer.cpp" "$work/cmake-consumer/"
cat >"$work/cmake-consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(scsitool 1 REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE scsitool::scsitool scsitool::fikit)
add_executable(sim_consumer sim_consumer.cpp)
target_link_libraries(sim_consumer PRIVATE scsitool::simhost)
CMAKE
cp "$source/tests/package/sim_consumer.cpp" "$work/cmake-consumer/"
cmake -S "$work/cmake-consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
got=$("$work/cmake-build/consumer")
[ "$got" = "$expected" ] || fail "CMake consumer printed '$got', expected '$expected'"

# A program tested against a snapshot sees the map the installed command shows of it (the rows
# the command adds of its own, the disks the library's map does not hold, left out).
host=$source/examples/hosts/datacenter.json
got=$("$work/cmake-build/sim_consumer" "$host" 2>/dev/null) || fail "the simulated host's test program failed"
want=$("$prefix/bin/scsitool" --host "$host" map --json 2>/dev/null | python3 -c '
import json, sys
for entry in json.load(sys.stdin):
    if "listed_by" not in entry:
        print(entry["DeviceName"], entry["Uid"])')
[ -n "$got" ] || fail "the simulated host's test program printed no map"
[ "$got" = "$want" ] ||
  fail "the simulated host's test program printed '$got', the command '$want'"

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
[ "$(pkg-config --modversion scsitool)" = "1.0.0" ] || fail "pkg-config version"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc-consumer" "$source/tests/package/consumer.cpp" \
    $(pkg-config --cflags --libs scsitool)
got=$(LD_LIBRARY_PATH="$prefix/$libdir" "$work/pc-consumer")
[ "$got" = "$expected" ] || fail "pkg-config consumer printed '$got', expected '$expected'"

# Debian's hardening: a read-only relocation table, bound at start-up, in every binary.
for binary in "$prefix/$libdir/libscsitool.so.1" "$prefix/$libdir/libfikit.so.1" "$prefix/bin/scsitool"; do
  readelf -d "$binary" | grep -q 'BIND_NOW' || fail "$binary is not linked with -z now"
  readelf -lW "$binary" | grep -q 'GNU_RELRO' || fail "$binary is not linked with -z relro"
done
readelf -d "$prefix/$libdir/libscsitool.so.1" | grep -q 'Flags:.*NODELETE' ||
  fail "libscsitool is not linked with -z nodelete"
if command -v dpkg-architecture >/dev/null; then
  [ "$libdir" = "./lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" ] ||
    fail "the libraries went to $libdir, not the multiarch directory"
fi

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >/dev/null)
debs=()
for name in libscsitool-fikit1 libscsitool1 libscsitool-dev scsitool; do
  deb=$(find "$work/deb" -maxdepth 1 -name "${name}_1.0.0_*.deb" -print -quit)
  [ -n "$deb" ] || fail "cpack made no package $name"
  debs+=("$deb")
done
# Each package holds its own files and no other's, its copyright and changelog.
declare -A holds=(
  [libscsitool-fikit1]="/libfikit.so.1 /libfikit.so.1.0.0
    ./usr/share/lintian/overrides/libscsitool-fikit1"
  [libscsitool1]="/libscsitool.so.1 /libscsitool.so.1.0.0
    ./usr/share/lintian/overrides/libscsitool1"
  [libscsitool-dev]="/include/scsitool/device_udid_factory.h /include/scsitool/simhost.h
    /libscsitool.so /libfikit.so /libsimhost.a /scsitool.pc /cmake/scsitool/scsitoolConfig.cmake
    /cmake/scsitool/scsitoolTargets.cmake /cmake/scsitool/FindACE.cmake"
  [scsitool]="./usr/bin/scsitool ./usr/share/man/man1/scsitool.1.gz
    ./usr/share/bash-completion/completions/scsitool
    ./usr/lib/systemd/system/scsitool-check.service ./usr/lib/systemd/system/scsitool-check.timer")
for deb in "${debs[@]}"; do
  name=$(dpkg-deb -f "$deb" Package)
  files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }')
  own=$(for file in ${holds[$name]} "./usr/share/doc/$name/copyright" \
                    "./usr/share/doc/$name/changelog.gz"; do
          grep -E -- "${file//./\\.}\$" <<<"$files" || fail "$name lacks $file"
        done | sort)
  extra=$(comm -23 <(sort <<<"$files") <(echo "$own"))
  [ -z "$extra" ] || [ "$name" = libscsitool-dev ] || fail "$name also holds $extra"
  if [ "$name" = libscsitool-dev ]; then
    grep -v '^\./usr/include/scsitool/[A-Za-z_]*\.h$' <<<"$extra" |
      grep -v 'scsitoolTargets-[a-z]*\.cmake$\|scsitoolConfigVersion\.cmake$' | grep . &&
      fail "$name also holds the files above"
  fi
done
depends() { dpkg-deb -f "$1" Depends; }
# Versioned dependencies from dpkg-shlibdeps; the kit is ours or the framework's.
depends "${debs[0]}" | grep -q 'libc6 (>= [0-9.]*)' ||
  fail "libscsitool-fikit1 depends on '$(depends "${debs[0]}")'"
[ "$(dpkg-deb -f "${debs[0]}" Provides)" = kzfi-pdk-4-4 ] || fail "libscsitool-fikit1 provides no kit"
depends "${debs[1]}" | grep -q 'libscsitool-fikit1 (= 1\.0\.0) | kzfi-pdk-4-4' ||
  fail "libscsitool1 depends on '$(depends "${debs[1]}")'"
depends "${debs[1]}" | grep -q 'libace-[0-9.]* (>= [^)]*)' ||
  fail "libscsitool1 has no versioned dependency on ACE: '$(depends "${debs[1]}")'"
depends "${debs[2]}" | grep -q 'libscsitool1 (= 1\.0\.0).*libace-dev' ||
  fail "libscsitool-dev depends on '$(depends "${debs[2]}")'"
depends "${debs[3]}" | grep -q 'libscsitool1 (= 1\.0\.0)' ||
  fail "scsitool depends on '$(depends "${debs[3]}")'"
for pair in "0 libfikit 1 libscsitool-fikit1 (>= 1.0.0)" "1 libscsitool 1 libscsitool1 (>= 1.0.0)"; do
  control=$work/control${pair%% *}
  dpkg-deb -e "${debs[${pair%% *}]}" "$control"
  [ "$(cat "$control/shlibs")" = "${pair#* }" ] || fail "shlibs file: $(cat "$control/shlibs")"
  [ "$(cat "$control/triggers")" = "activate-noawait ldconfig" ] || fail "no ldconfig trigger: $pair"
done
for name in libscsitool-fikit1 libscsitool1 scsitool; do
  [ -n "$(find "$work/deb" -maxdepth 1 -name "${name}-dbgsym_1.0.0_*.ddeb" -print -quit)" ] ||
    fail "cpack made no debug-symbol package for $name"
done
dpkg-deb -x "${debs[3]}" "$work/command"
file "$work/command/usr/bin/scsitool" | grep -q ', stripped' || fail "the command is not stripped"

if command -v lintian >/dev/null; then
  # Errors and warnings fail the test; the notice about running as root is shown only.
  report=$(lintian --fail-on error,warning "${debs[@]}" 2>&1) || fail "lintian: $report"
  [ -z "$report" ] || echo "$report"
else
  echo "package: lintian is not installed, the Debian packages are not checked by it"
fi
echo "1 passed, 0 failed"
