#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A long fuzzing campaign: each target in turn for SECONDS seconds (or RUNS executions), with
# JOBS worker processes, growing a corpus under build/fuzz/campaign/<target>. Prints the
# executions and the coverage (cov: edges, ft: features) each target reached.
#   fuzz/campaign.sh [-t SECONDS] [-r RUNS] [-j JOBS] [--merge] [TARGET...]
# --merge adds the inputs that bring new coverage to the seed corpus in fuzz/corpus/.
set -euo pipefail
cd "$(dirname "$0")/.."
source fuzz/targets.sh
seconds=600
runs=-1
jobs=1
merge=0
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    -t) seconds="$2"; shift 2 ;;
    -r) runs="$2"; seconds=0; shift 2 ;;
    -j) jobs="$2"; shift 2 ;;
    --merge) merge=1; shift ;;
    -h | --help) sed -n '2,6p' "$0"; exit 0 ;;
    *) targets+=("$1"); shift ;;
  esac
done
[ ${#targets[@]} -gt 0 ] || targets=("${FUZZ_TARGETS[@]}")
bash fuzz/build.sh >/dev/null
# Allocation stacks cost a tenth of every execution of the allocation-heavy targets; a crash found
# here is replayed with the full report from its artifact.
export ASAN_OPTIONS="${ASAN_OPTIONS:-malloc_context_size=0}"
root=build/fuzz/campaign
mkdir -p "$root"
status=0
for target in "${targets[@]}"; do
  corpus="$root/$target"
  mkdir -p "$corpus" "$root/artifacts"
  log="$root/$target.log"
  options=(-timeout=10 -rss_limit_mb=2048 -dict="$(fuzz_dict "$target")"
           -artifact_prefix="$root/artifacts/$target-" -print_final_stats=1)
  [ "$seconds" -gt 0 ] && options+=(-max_total_time="$seconds")
  [ "$runs" -ge 0 ] && options+=(-runs="$runs")
  # Several workers share one corpus through fork mode, which also keeps going after a crash.
  [ "$jobs" -gt 1 ] && options+=(-fork="$jobs" -ignore_crashes=1)
  start=$(date +%s)
  if ! build/fuzz/fuzz/"$target" "${options[@]}" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1; then
    status=1
  fi
  elapsed=$(( $(date +%s) - start ))
  last="$(grep -E '^#[0-9]+:?[[:space:]]+.*cov: ' "$log" | tail -1)"
  execs="$(grep -E '^stat::number_of_executed_units:' "$log" | awk '{s += $2} END {print s + 0}')"
  [ "$execs" -gt 0 ] || execs="$(echo "$last" | sed -E 's/^#([0-9]+).*/\1/')"
  cov="$(echo "$last" | grep -oE 'cov: [0-9]+' | head -1)"
  ft="$(echo "$last" | grep -oE 'ft: [0-9]+' | head -1)"
  crashes="$(ls "$root/artifacts" 2>/dev/null | grep -c "^$target-" || true)"
  printf '%-20s executions: %-10s %-10s %-10s time: %ss artifacts: %s corpus: %s\n' \
    "$target" "$execs" "$cov" "$ft" "$elapsed" "$crashes" "$(ls "$corpus" | wc -l)"
  if [ "$merge" = 1 ]; then
    build/fuzz/fuzz/"$target" -merge=1 "fuzz/corpus/$target" "$corpus" >/dev/null 2>&1
  fi
done
exit $status
