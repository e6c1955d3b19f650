#!/usr/bin/env bash
# A job list through GNU parallel on the local machine given as an ssh login
# file: its job log, its results, a failing job's exit value, no notice on
# stderr and nothing written to the home folder.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
. "$here/engine_plan.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/parallel-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAIL: $*"
  for f in "$work/joblog" "$work/stderr"; do
    [ -f "$f" ] && { echo "---- $f"; cat "$f"; }
  done
  exit 1
}
command -v parallel >/dev/null || fail "parallel not found: run scripts/install-deps.sh (parallel)"

mkdir -p "$work/results" "$work/home"
write_plan "$work/plan"
# ":" is this machine, without ssh.
echo : >"$work/sshlogins"

# parallel keeps a cache under PARALLEL_HOME (by default in the home folder).
set +e
HOME=$work/home PARALLEL_HOME=$work/parallel-home timeout 60 \
  parallel --will-cite --jobs 2 --joblog "$work/joblog" --sshloginfile "$work/sshlogins" \
  bash "$here/run_plan_line.sh" "$work/plan" "$work/results" {} ::: 0 1 2 3 \
  </dev/null 2>"$work/stderr"
status=$?
set -e
# parallel exits with the number of failed jobs.
[ $status -eq 1 ] || fail "parallel exited with $status, expected 1 (one failed job)"
[ ! -s "$work/stderr" ] || fail "parallel wrote to stderr"
[ -z "$(ls -A "$work/home")" ] || fail "parallel wrote into the home folder: $(ls -A "$work/home")"

check_results "$work/results"

# Job log: a header, then a line per job in order of completion with
# Seq Host Starttime JobRuntime Send Receive Exitval Signal Command.
header=$(head -n 1 "$work/joblog")
[ "$header" = "$(printf 'Seq\tHost\tStarttime\tJobRuntime\tSend\tReceive\tExitval\tSignal\tCommand')" ] ||
  fail "unexpected job log header: $header"
ends=$(tail -n +2 "$work/joblog" | awk -F'\t' '{ n = split($9, w, " "); print w[n], $2, $7, $8 }' | sort)
[ "$ends" = "$(printf '0 : 0 0\n1 : 0 0\n2 : 3 0\n3 : 0 0')" ] || fail "unexpected job log: $ends"
echo "PASS"
