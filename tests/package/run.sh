#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the installed layout, builds a consumer
# against it through the CMake package and through pkg-config, and builds the Debian package.
# Usage: run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "package: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(cd "$prefix" && dirname "$(find . -name libscsitool.so -print -quit)")
[ "$libdir" != "." ] || fail "libscsitool.so is not installed"
for file in bin/scsitool include/scsitool/device_udid_factory.h include/scsitool/fi_trace.h \
            "$libdir/libfikit.so" "$libdir/pkgconfig/scsitool.pc" \
            "$libdir/cmake/scsitool/scsitoolConfig.cmake" share/man/man1/scsitool.1 \
            share/bash-completion/completions/scsitool; do
  [ -e "$prefix/$file" ] || fail "$file is not installed"
done
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
CMAKE
cmake -S "$work/cmake-consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
got=$("$work/cmake-build/consumer")
[ "$got" = "$expected" ] || fail "CMake consumer printed '$got', expected '$expected'"

export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
[ "$(pkg-config --modversion scsitool)" = "1.0.0" ] || fail "pkg-config version"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/pc-consumer" "$source/tests/package/consumer.cpp" \
    $(pkg-config --cflags --libs scsitool)
got=$(LD_LIBRARY_PATH="$prefix/$libdir" "$work/pc-consumer")
[ "$got" = "$expected" ] || fail "pkg-config consumer printed '$got', expected '$expected'"

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >/dev/null)
deb=$(find "$work/deb" -maxdepth 1 -name 'scsitool_*.deb' -print -quit)
[ -n "$deb" ] || fail "cpack made no Debian package"
contents=$(dpkg-deb -c "$deb")
for file in ./usr/bin/scsitool ./usr/include/scsitool/device_udid_factory.h libscsitool.so.1 \
            scsitool.pc; do
  grep -q -- "$file" <<<"$contents" || fail "the Debian package lacks $file"
done
dpkg-deb -f "$deb" Depends | grep -q libace || fail "the Debian package does not depend on ACE"
echo "1 passed, 0 failed"
