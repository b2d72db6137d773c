#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every installed header, as a consumer includes it: each alone, with the strict warnings, and
# all of them after the consumer's own names that the kernel's SCSI headers would have taken
# (GOOD, BUSY, ABORT, COPY, VERIFY are macros there).
# Usage: check.sh CXX SOURCE_DIR [EXTRA_FLAGS...]
set -euo pipefail
cxx=$1
source=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
headers=("$source"/providers/device/scsitool/include/*.h "$source"/framework/include/*.h
         "$source"/simhost/simhost.h)
flags=(-std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Werror
       -I"$source/providers/device/scsitool/include" -I"$source/framework/include"
       -I"$source/simhost" "$@")
status=0
for header in "${headers[@]}"; do
  name=$(basename "$header")
  printf '#include "%s"\n' "$name" >"$work/$name.cpp"
  if ! output=$("$cxx" "${flags[@]}" "$work/$name.cpp" 2>&1); then
    echo "$name does not compile alone:"
    echo "$output"
    status=1
  fi
done
{
  echo 'enum class JobState { GOOD, BUSY, ABORT, COPY, VERIFY };'
  for header in "${headers[@]}"; do printf '#include "%s"\n' "$(basename "$header")"; done
  echo 'int consumer(JobState state)'
  echo '{'
  echo '    switch (state) {'
  echo '    case JobState::GOOD: return 0;'
  echo '    case JobState::BUSY: return 1;'
  echo '    case JobState::ABORT: return 2;'
  echo '    case JobState::COPY: return 3;'
  echo '    case JobState::VERIFY: return 4;'
  echo '    }'
  echo '    return -1;'
  echo '}'
} >"$work/all.cpp"
if ! output=$("$cxx" "${flags[@]}" "$work/all.cpp" 2>&1); then
  echo "a consumer's JobState { GOOD, BUSY, ABORT, COPY, VERIFY } does not survive the headers:"
  echo "$output"
  status=1
fi
[ $status -eq 0 ] && echo "${#headers[@]} installed headers: each compiles alone, none defines a short macro"
exit $status
