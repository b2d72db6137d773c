#!/usr/bin/env bash
# Runs test programs of the default build under valgrind memcheck: any invalid access, use of an
# uninitialised value, or definite or indirect leak fails the run. Objects kept for the process
# (generators, multipath modules, singletons) are still reachable at exit and are not errors.
#   scripts/memcheck.sh [TEST_PROGRAM_NAME...]   (default: every tests/test_* program)
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
exit $status
