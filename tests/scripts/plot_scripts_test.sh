#!/usr/bin/env bash
# The gnuplot maps of real tables: the scripts make PNG files of the size
# asked, and refuse a table of the other kind or an empty one.
#   plot_scripts_test.sh <sensorlay binary> <source dir>
set -euo pipefail
bin=$1; source=$2
command -v gnuplot >/dev/null 2>&1 || { echo "gnuplot is not installed: skipped"; exit 0; }
dir=$(mktemp -d); trap 'rm -rf "$dir"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

# Five sensors facing different ways, as a model file.
cat >"$dir/m.json" <<'JSON'
{ "channelMap": [0, 1, 2, 3, 4],
  "modelPoints": [[0, 0, 0], [0.05, 0, 0], [0, 0.05, 0], [0, 0, 0.03], [0.05, 0.05, 0.01]],
  "modelNormals": [[0, 0, 1], [1, 0, 0], [0, 1, 0], [0, 0, 1], [-1, 0, 0]] }
JSON
"$bin" /model "$dir/m.json" /angleresolutiondegrees 10 >"$dir/coverage.txt" 2>/dev/null
"$bin" /model "$dir/m.json" /angleresolutiondegrees 10 /basestationsensitivity >"$dir/sensitivity.txt" 2>/dev/null

# Width and height from the PNG's header.
size() { od -An -tu1 -j16 -N8 "$1" | awk '{ print $1*16777216 + $2*65536 + $3*256 + $4 "x" $5*16777216 + $6*65536 + $7*256 + $8 }'; }

PLOT_WIDTH=640 PLOT_HEIGHT=400 "$source/scripts/plot-coverage.sh" "$dir/coverage.txt" "$dir/maps" >/dev/null
for name in visible-sensors grade rotation-sigma position-sigma; do
  [ "$(size "$dir/maps/$name.png")" = 640x400 ] || fail "$name.png is $(size "$dir/maps/$name.png")"
done
"$source/scripts/plot-sensitivity.sh" "$dir/sensitivity.txt" "$dir/s" >/dev/null
for name in sigma-x sigma-y sigma-z; do
  [ "$(size "$dir/s/$name.png")" = 1200x700 ] || fail "$name.png is $(size "$dir/s/$name.png")"
done

: >"$dir/empty.txt"
for pair in "coverage sensitivity" "sensitivity coverage" "coverage empty"; do
  set -- $pair
  status=0
  "$source/scripts/plot-$1.sh" "$dir/$2.txt" "$dir/x" 2>/dev/null || status=$?
  [ "$status" = 1 ] || fail "plot-$1.sh on the $2 table ended with $status"
done
[ ! -e "$dir/x" ] || fail "a refused table left $dir/x"
echo "plot scripts: maps of the asked size, other tables refused"
