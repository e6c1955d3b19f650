#!/usr/bin/env bash
# One task of a sweep-like job list, as an engine starts it:
#   run_plan_line.sh PLAN RESULTS INDEX
# runs line INDEX+1 of PLAN (INDEX counts from 0, as Slurm array task ids do)
# with bash, writes what it prints to RESULTS/INDEX.txt and exits with its status.
set -uo pipefail
plan=$1
results=$2
index=$3
line=$(sed -n "$((index + 1))p" "$plan")
if [ -z "$line" ]; then
  echo "run_plan_line: $plan has no line $((index + 1))" >&2
  exit 2
fi
bash -c "$line" >"$results/$index.txt"
