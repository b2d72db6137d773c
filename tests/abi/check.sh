#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The boundary of both shared libraries against the committed one: the exported symbols must be
# exactly those of abi/lib*.symbols, and abidiff against abi/lib*.abi.xz must find no change
# beyond added symbols (a data member added to an exported class is one) unless the SONAME
# changed with it. Added symbols are compatible; the symbol list shows them for review.
# Usage: check.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=$1
source=$2
. "$source/tests/abi/boundary.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
how="if the change is intended, run scripts/update-abi.sh $build and commit abi/ (see abi/README.md)"
for lib in libscsitool libfikit; do
  so=$build/$lib.so
  if ! difference=$(diff -u "$source/abi/$lib.symbols" <(exported_symbols "$so")); then
    echo "$lib: the exported symbols differ from abi/$lib.symbols:"
    echo "$difference"
    echo "$lib: $how"
    status=1
  fi
  xz -dc "$source/abi/$lib.abi.xz" >"$work/$lib.baseline.abi"
  abi_dump "$so" "$source" >"$work/$lib.abi"
  report=$(abidiff --no-added-syms "$work/$lib.baseline.abi" "$work/$lib.abi" 2>&1)
  code=$?
  if (( code & 3 )); then
    echo "$lib: abidiff failed ($code): $report"
    status=1
  elif (( code & 12 )); then
    old=$(sed -nE 's/.*soname=.([^"'\'']*).*/\1/p' "$work/$lib.baseline.abi" | head -1)
    new=$(readelf -d "$so" | sed -nE 's/.*Library soname: \[(.*)\]/\1/p')
    if [ "$old" = "$new" ]; then
      echo "$lib: an incompatible change of the ABI under the same SONAME $new:"
      echo "$report"
      echo "$lib: raise the SOVERSION with it, or undo it; $how"
      status=1
    fi
  fi
done
[ $status -eq 0 ] && echo "libscsitool, libfikit: the boundary is the committed one"
exit $status
