# SPDX-License-Identifier: Apache-2.0
# How the boundary of a shared library is read, shared by the check and by
# scripts/update-abi.sh so that both see it the same way.

# The exported symbols, demangled, with their kind and version node, one a line, sorted.
exported_symbols() {
  nm --dynamic --defined-only --demangle "$1" | sed -E 's/^[0-9a-f]+ //' | LC_ALL=C sort
}

# The ABI of the library's public types: those declared in the installed headers.
abi_dump() {
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --drop-private-types \
    --headers-dir "$2/providers/device/scsitool/include" --headers-dir "$2/framework/include" "$1"
}
