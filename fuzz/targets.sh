# SPDX-License-Identifier: Apache-2.0
# The fuzz targets and their dictionaries from fuzz/targets.txt; sourced by the fuzz scripts
# from the top of the tree.
FUZZ_TARGETS=()
declare -A FUZZ_DICTS=()
while read -r target dict; do
  case "$target" in '' | '#'*) continue ;; esac
  FUZZ_TARGETS+=("$target")
  FUZZ_DICTS[$target]="fuzz/$dict"
done <fuzz/targets.txt
fuzz_dict() { echo "${FUZZ_DICTS[$1]}"; }
