#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs test programs of the default build under valgrind memcheck: any invalid access, use of an
# uninitialised value, or definite or indirect leak fails the run. Objects kept for the process
# (generators, multipath modules, singletons) are still reachable at exit and are not errors.
#   scripts/memcheck.sh [TEST_PROGRAM_NAME...]   (default: every tests/test_* program, then the
#                                                 scenarios with scsitool under memcheck)
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/default/tests
programs=("$@")
if [ ${#programs[@]} -eq 0 ]; then
  for program in "$build"/test_*; do
    [ -x "$program" ] && programs+=("$(basename "$program")")
  done
fi
logs="$(mktemp -d)"
trap 'rm -rf "$logs"' EXIT
status=0
for name in "${programs[@]}"; do
  start=$(date +%s)
  if valgrind --tool=memcheck --error-exitcode=99 --leak-check=full \
      --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
      --track-origins=yes --num-callers=30 --log-file="$logs/$name.log" \
      "$build/$name" --gtest_brief=1 >"$logs/$name.out" 2>&1; then
    echo "memcheck: $name clean ($(( $(date +%s) - start ))s)"
  else
    echo "memcheck: $name FAILED ($(( $(date +%s) - start ))s)"
    tail -40 "$logs/$name.out"
    grep -v '^==[0-9]*== *$' "$logs/$name.log" | tail -80
    status=1
  fi
done
if [ $# -eq 0 ]; then
  # Every scenario file, at any depth under tests/scenarios/, with the command under memcheck:
  # two runners at a time, twenty files each.
  start=$(date +%s)
  if find tests/scenarios -name '*.scenario' -print0 | sort -z | xargs -0 -P 2 -n 20 sh -c '
      out="$0/run.$$.out"
      python3 tests/scenarios/run.py --binary build/default/tools/scsitool/scsitool --source . \
        --wrapper "valgrind --tool=memcheck --error-exitcode=99 --leak-check=full \
        --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
        --num-callers=30 --log-file=$0/scenario.%p.log" "$@" >"$out" 2>&1 ||
        { cat "$out"; exit 1; }' "$logs"; then
    echo "memcheck: scenarios clean ($(( $(date +%s) - start ))s)"
  else
    echo "memcheck: scenarios FAILED ($(( $(date +%s) - start ))s)"
    grep -l "ERROR SUMMARY: [1-9]\|definitely lost: [1-9]\|indirectly lost: [1-9]" \
      "$logs"/scenario.*.log | head -3 | xargs -r tail -60
    status=1
  fi
fi
exit $status
