#!/usr/bin/env bash
# A sweep on a private one-node Slurm cluster started in a temporary folder:
#   sweep_slurm_test.sh SENSORLAY_LAB
# The same sweep (two counts, two seeds, a good and a broken variant) on the
# local pool and as a Slurm job array gives the same summary but for the wall
# times; a sweep handed to Slurm without --wait prints its job id and is
# resumed with nothing left to do once the job has ended; a job that Slurm
# refuses is told with sbatch's own message, and one that it would keep
# pending for ever is cancelled. The cluster is stopped whatever happens.
set -euo pipefail
# Settings of an outer Slurm job (a test run inside salloc) must not reach this cluster's clients.
for variable in "${!SLURM_@}"; do unset "$variable"; done

lab=$1
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
cluster_script=$repo/scripts/slurm-local-cluster.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/sweep-slurm.XXXXXX")
cluster=$work/cluster
# munged wants every folder above its socket searchable by all.
chmod 0711 "$work"

command -v sbatch >/dev/null || { echo "FAIL: sbatch not found: run scripts/install-deps.sh (slurm-wlm, munge)"; exit 1; }

show_logs() {
  local f
  for f in "$work"/*.err "$work"/slurm/logs/* "$cluster"/log/*.log "$cluster"/munge/munged.log; do
    [ -s "$f" ] || continue
    echo "---- $f"
    tail -n 40 "$f"
  done
}
cleanup() {
  local status=$?
  bash "$cluster_script" stop "$cluster" || status=1
  [ $status -eq 0 ] || show_logs
  rm -rf "$work"
  exit $status
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  exit 1
}

bash "$cluster_script" start "$cluster"
eval "$(bash "$cluster_script" env "$cluster")"

mesh=$repo/samples/controller.stl
printf 'not a mesh' >"$work/bad.stl"
quick=(--orientations 200 --cooling-rate 0.7 --iterations 2 --coverage-step 6)
# Runs a sweep into $work/$1 with the engine options that follow; its status
# in $status. Every wait is bounded, so that the trap can still stop the cluster.
sweep() {
  local out=$1
  shift
  set +e
  timeout 120 "$lab" sweep --out "$work/$out" --counts 3,4 --seeds 2 --variant "ctl=$mesh" \
    --variant "bad=$work/bad.stl" "$@" -- "${quick[@]}" >"$work/$out.out" 2>"$work/$out.err"
  status=$?
  set -e
  [ $status -ne 124 ] || fail "the sweep into $out did not end within 120 s"
}

# The broken variant fails its runs on either engine, and nothing else.
sweep local
[ $status -eq 1 ] || fail "the local sweep exited with $status, expected 1"
sweep slurm --engine slurm --wait --array-limit 2
[ $status -eq 1 ] || fail "the Slurm sweep exited with $status, expected 1"
grep -q "8 runs: 4 failed, 4 finished" "$work/slurm.err" || fail "the Slurm sweep did not tell its runs' ends"
for out in local slurm; do
  "$lab" summarize "$work/$out" >/dev/null 2>"$work/$out-summary.err" || fail "summarize $out failed"
done
without_wall_times() { cut -d, -f1-7,9 "$1"; }
[ "$(without_wall_times "$work/local/summary.csv")" = "$(without_wall_times "$work/slurm/summary.csv")" ] ||
  fail "the summaries differ: $(diff <(without_wall_times "$work/local/summary.csv") <(without_wall_times "$work/slurm/summary.csv"))"
[ "$(grep -c ',finished$' "$work/slurm/summary.csv")" = 4 ] || fail "not 4 finished runs in the Slurm summary"
cmp -s "$work/local/best/ctl-n4.json" "$work/slurm/best/ctl-n4.json" || fail "the best designs differ"
# Each task's log holds its run's line.
grep -q '^ctl-n3-s1: finished, score ' "$work"/slurm/logs/slurm-*_0.out || fail "task 0 did not log its run"

# Without --wait: the job id alone on the standard output stream; once the job
# has ended the same sweep has nothing left to run.
later=(--counts 3 --seeds 1 --engine slurm -- --sensors "$mesh" "${quick[@]}")
job=$(timeout 60 "$lab" sweep --out "$work/later" "${later[@]}" 2>"$work/later.err") || fail "the sweep without --wait failed"
[[ $job =~ ^[0-9]+$ ]] || fail "the sweep without --wait printed '$job', not a job id"
for ((i = 0; i < 300; i++)); do
  [ -z "$(squeue --noheader --jobs="$job" 2>/dev/null)" ] && break
  sleep 0.2
done
set +e
resumed=$(timeout 60 "$lab" sweep --out "$work/later" "${later[@]}" 2>&1)
status=$?
set -e
[ $status -eq 0 ] || fail "the resumed sweep exited with $status: $resumed"
grep -q "1 run, 1 finished before" <<<"$resumed" || fail "the resumed sweep did not find its run finished: $resumed"

# A job Slurm refuses: status 1 and sbatch's reason.
sweep refused --engine slurm --partition nosuch
[ $status -eq 1 ] || fail "a sweep on a partition that does not exist exited with $status"
grep -q "Slurm refused the job array" "$work/refused.err" && grep -q "Invalid partition name specified" "$work/refused.err" ||
  fail "the refusal did not show sbatch's message: $(cat "$work/refused.err")"
# A job that Slurm would keep pending for ever, as a cluster that does not
# refuse impossible requests at submission does: a stand-in squeue gives the
# reason, and the sweep cancels the real job instead of leaving it.
mkdir "$work/never-bin"
printf '#!/bin/sh\necho "PENDING|PartitionNodeLimit"\n' >"$work/never-bin/squeue"
chmod +x "$work/never-bin/squeue"
set +e
never=$(PATH="$work/never-bin:$PATH" timeout 60 "$lab" sweep --out "$work/never" "${later[@]}" 2>&1)
status=$?
set -e
[ $status -eq 1 ] || fail "a sweep whose job would never start exited with $status: $never"
job=$(sed -n 's/.*Slurm would never start job \([0-9]*\): it is pending with the reason PartitionNodeLimit.*cancelled$/\1/p' <<<"$never")
[ -n "$job" ] || fail "the sweep did not say that it cancelled the job: $never"
scontrol --oneliner show job "$job" | grep -q "JobState=CANCELLED" || fail "job $job was not cancelled"
echo "PASS"
