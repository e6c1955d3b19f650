#!/usr/bin/env bash
# A job array on a private one-node Slurm cluster started in a temporary
# folder: four plan lines, at most two at once, one of which fails; then two
# submissions the controller refuses. The cluster is stopped whatever happens.
set -euo pipefail
# Settings of an outer Slurm job (a test run inside salloc) must not reach this cluster's clients.
for variable in "${!SLURM_@}"; do unset "$variable"; done

here=$(cd "$(dirname "$0")" && pwd)
. "$here/engine_plan.sh"
repo=$(cd "$here/../.." && pwd)
cluster_script=$repo/scripts/slurm-local-cluster.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/slurm-test.XXXXXX")
cluster=$work/cluster
# munged wants every folder above its socket searchable by all.
chmod 0711 "$work"

command -v sbatch >/dev/null || { echo "FAIL: sbatch not found: run scripts/install-deps.sh (slurm-wlm, munge)"; exit 1; }

show_logs() {
  local f
  for f in "$work"/logs/* "$cluster"/log/*.log "$cluster"/munge/munged.log; do
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

mkdir -p "$work/results" "$work/logs"
write_plan "$work/plan"

# The task id picks the plan line; it is expanded in the job, not here.
# The wait is bounded so that a stuck job fails the test while the trap can still stop the cluster.
set +e
submitted=$(timeout 120 sbatch --wait --array=0-3%2 --cpus-per-task=1 --job-name=plan \
  --chdir="$work" --output="$work/logs/%A_%a.out" \
  --wrap="bash '$here/run_plan_line.sh' '$work/plan' '$work/results' \"\$SLURM_ARRAY_TASK_ID\"" 2>&1)
status=$?
set -e
echo "$submitted"
job=$(sed -n 's/^Submitted batch job \([0-9]*\)$/\1/p' <<<"$submitted")
[ $status -ne 124 ] || fail "the job array did not end within 120 s"
[ -n "$job" ] || fail "sbatch printed no job id"
# --wait exits with the highest exit code of the array's tasks.
[ $status -eq 3 ] || fail "sbatch --wait exited with $status, expected 3 from the failing task"

check_results "$work/results"

# Each task's end as the controller recorded it: task id, state, exit code.
states=$(scontrol --oneliner show job "$job" |
  sed -n 's/.*ArrayTaskId=\([0-9]*\) .*JobState=\([A-Z]*\) .*ExitCode=\([0-9:]*\).*/\1 \2 \3/p' | sort)
echo "$states"
[ "$states" = "$(printf '0 COMPLETED 0:0\n1 COMPLETED 0:0\n2 FAILED 3:0\n3 COMPLETED 0:0')" ] ||
  fail "unexpected task states"

# Refused submissions: status 1 and the controller's reason on stderr.
refused() {
  local expected_message=$1 out status
  shift
  set +e
  out=$(timeout 30 sbatch "$@" --wrap=true 2>&1)
  status=$?
  set -e
  echo "sbatch $*: status $status: $out"
  [ $status -eq 1 ] || fail "sbatch $* exited with $status, expected 1"
  grep -q "$expected_message" <<<"$out" || fail "sbatch $* did not say '$expected_message'"
}
refused "Invalid partition name specified" --partition=nosuch
refused "More processors requested than permitted" --cpus-per-task=4096
echo "PASS"
