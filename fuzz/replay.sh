#!/usr/bin/env bash
# Runs every input file in the given folders once through a fuzz target, as a
# test: the seeds and the saved findings must pass under the sanitizers. The
# inputs are handed over as files, so libFuzzer only runs them and writes
# nothing into the folders.
#   bash fuzz/replay.sh TARGET_BINARY FOLDER...
set -euo pipefail
binary=$1
shift
inputs=()
for folder in "$@"; do
  [ -d "$folder" ] || continue
  while IFS= read -r -d '' file; do inputs+=("$file"); done < <(find "$folder" -type f ! -name '.*' -print0 | sort -z)
done
[ ${#inputs[@]} -gt 0 ] || { echo "replay: no inputs in $*" >&2; exit 1; }
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# The target's standard output is closed; its complaints and the sanitizers'
# reports are shown when an input fails. Leaks count as findings too.
if ! "$binary" -close_fd_mask=1 -timeout=30 -rss_limit_mb=2048 -malloc_limit_mb=512 "${inputs[@]}" >"$log" 2>&1; then
  cat "$log" >&2
  echo "replay: $(basename "$binary") failed on an input (above)" >&2
  exit 1
fi
echo "replay: ${#inputs[@]} inputs passed through $(basename "$binary")"
