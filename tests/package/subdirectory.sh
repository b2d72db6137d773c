#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# This tree added to another project with add_subdirectory: the libraries and the command build
# under the outer project's own compiler flags, a program of the outer project links the library
# by the name the installed package gives it, and none of the tests, benchmarks or install rules
# that only make sense here come along.
# Usage: subdirectory.sh SOURCE_DIR WORK_DIR CXX_COMPILER
set -euo pipefail
source=$(cd "$1" && pwd)
work=$2
compiler=$3

fail() { echo "subdirectory: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work/outer"
cp "$source/tests/package/consumer.cpp" "$work/outer/"
cat >"$work/outer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.22)
project(outer CXX)
add_subdirectory("$source" scsitool)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE scsitool::scsitool)
foreach(target testsupport test_generators bench_hosts fuzzcore)
  if(TARGET \${target})
    message(FATAL_ERROR "\${target} is defined in an embedded build")
  endif()
endforeach()
CMAKE

launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S "$work/outer" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$compiler" "${launcher[@]}" >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log"; fail "the outer project does not configure"; }
cmake --build "$work/build" -j2 --target scsitool_cli consumer >"$work/build.log" 2>&1 ||
  { tail -40 "$work/build.log"; fail "the command or the consumer does not build"; }

"$work/build/scsitool/tools/scsitool/scsitool" --version >/dev/null ||
  fail "the embedded command does not run"
"$work/build/consumer" >/dev/null || fail "the consumer does not run"

# Nothing to test and nothing to install from here: those are the outer project's to decide.
if [ -f "$work/build/scsitool/CTestTestfile.cmake" ] &&
   grep -q add_test "$work/build/scsitool/CTestTestfile.cmake"; then
  fail "the embedded tree adds tests"
fi
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null
if [ -d "$work/prefix" ] && [ -n "$(find "$work/prefix" -type f)" ]; then
  fail "the embedded tree installs $(find "$work/prefix" -type f | head -3 | tr '\n' ' ')"
fi
echo "subdirectory: the command and a consumer built inside an outer project"
