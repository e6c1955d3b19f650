#!/usr/bin/env bash
# Fuzzes each target in turn for a while, at the lowest priority, one at a
# time on one core. Each starts from the seeds and from what earlier runs
# kept (BUILD_DIR/fuzz-runs/<target>/corpus); findings land in
# BUILD_DIR/fuzz-runs/<target>/ as crash-*, leak-*, timeout-* or oom-* files.
# Keep each one under fuzz/crashes/<target>/ once it is fixed, so that the
# tests replay it. With FUZZ_RUNS set, a target also stops after that many
# executions. Dictionaries (fuzz/<target>.dict) steer the mutations.
# One allocation above 512 MB is a finding (oom-*): no input of a few
# kilobytes needs one, and it is how a declared size trusted before the
# data is there shows.
#   bash fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1
seconds=$2
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  read -r -a targets < <(sed -n 's/^set(SENSORLAY_FUZZ_TARGETS \(.*\))$/\1/p' "$here/targets.cmake")
fi

failed=()
printf '%-14s %12s %8s %8s %8s  %s\n' target executions seconds cov ft result
for target in "${targets[@]}"; do
  binary=$build/fuzz-tree/fuzz/${target}_fuzz
  runs=$build/fuzz-runs/$target
  mkdir -p "$runs/corpus"
  extra=()
  [ -f "$here/$target.dict" ] && extra+=(-dict="$here/$target.dict")
  [ -n "${FUZZ_RUNS:-}" ] && extra+=(-runs="$FUZZ_RUNS")
  log=$runs/last.log
  nice -n 19 "$binary" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=3 -timeout=30 \
    -rss_limit_mb=2048 -malloc_limit_mb=512 -artifact_prefix="$runs/" "${extra[@]}" "$runs/corpus" "$here/corpus/$target" >"$log" 2>&1
  status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  took=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  coverage=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1)
  result=clean
  if [ $status -ne 0 ]; then
    result="FINDING (see $log)"
    failed+=("$target")
  fi
  printf '%-14s %12s %8s %8s %8s  %s\n' "$target" "${executions:-?}" "${took:-?}" \
    "$(echo "$coverage" | awk '{print $2}')" "$(echo "$coverage" | awk '{print $4}')" "$result"
done
[ ${#failed[@]} -eq 0 ] || { echo "findings in: ${failed[*]}" >&2; exit 1; }
