#!/usr/bin/env bash
# World maps of a coverage table (sensorlay /model m.json > table.txt): one PNG
# per quantity over longitude and latitude in degrees, for the directions from
# which the base station looks at the device.
#
#   scripts/plot-coverage.sh TABLE OUTDIR
#
# Writes OUTDIR/visible-sensors.png, grade.png, rotation-sigma.png and
# position-sigma.png. PLOT_WIDTH and PLOT_HEIGHT set the size in pixels
# (default 1200 x 700).
set -euo pipefail

name=$(basename "$0")
fail() {
  echo "$name: $*" >&2
  exit 1
}

[ $# -eq 2 ] || fail "usage: $name TABLE OUTDIR"
table=$1
outdir=$2
width=${PLOT_WIDTH:-1200}
height=${PLOT_HEIGHT:-700}

command -v gnuplot >/dev/null 2>&1 || fail "gnuplot is not installed"
[ -f "$table" ] && [ -r "$table" ] || fail "cannot read the table $table"
[ -s "$table" ] || fail "the table $table is empty"
[[ $width =~ ^[0-9]+$ && $height =~ ^[0-9]+$ ]] || fail "PLOT_WIDTH and PLOT_HEIGHT must be whole numbers of pixels"

# A coverage row has at least 12 numeric columns; anything else is not a
# coverage table (the sensitivity table has 5: use plot-sensitivity.sh).
awk 'NF < 12 || $1 !~ /^-?[0-9]/ { bad = NR; exit } END { if (bad) { print bad; exit 1 } }' "$table" >/dev/null ||
  fail "$table is not a coverage table: a row has fewer than 12 columns (for a sensitivity table use plot-sensitivity.sh)"

mkdir -p "$outdir" || fail "cannot make the folder $outdir"

terminal="png"
if gnuplot -e "set terminal" 2>&1 | grep -qw pngcairo; then terminal="pngcairo"; fi

# A grid of one row or column cannot be drawn as an image; it is drawn as dots.
rows=$(wc -l <"$table")
style="with image"
if [ "$rows" -lt 4 ]; then style="with points pointtype 5 pointsize 3 palette"; fi

plot_map() {  # value (column or expression), file, title, colour-box label, extra settings
  local column=$1 file=$2 title=$3 label=$4 settings=$5
  gnuplot <<EOF || fail "gnuplot could not draw $outdir/$file"
set terminal $terminal size $width,$height
set output "$outdir/$file"
set title "$title"
set xlabel "longitude (degrees)"
set ylabel "latitude (degrees)"
set cblabel "$label"
set xrange [-180:180]
set yrange [-90:90]
set xtics 30
set ytics 30
set grid front
set palette rgbformulae 33,13,10
$settings
plot "$table" using (\$1*180/pi):(\$2*180/pi):$column $style notitle
EOF
}

# The grade takes four values only; each gets its own colour and label.
grade_classes='set cbrange [-0.5:3.5]
set cbtics ("0" 0, "96" 1, "99" 2, "100" 3)
set palette maxcolors 4
set palette defined (0 "#b2182b", 1 "#f4a582", 2 "#92c5de", 3 "#1a9850")'

plot_map 5 visible-sensors.png "Sensors visible from each direction" "visible sensors" ""
plot_map '($9 == 100 ? 3 : $9 == 99 ? 2 : $9 == 96 ? 1 : 0)' grade.png \
  "Grade: 100 five or more sensors in 3-D, 99 four, 96 flat or narrow, 0 too few or no fix" \
  "grade" "$grade_classes"
plot_map 11 rotation-sigma.png "Rotation uncertainty (1.0: no fix)" "rotation sigma (radians)" "set logscale cb"
plot_map 12 position-sigma.png "Position uncertainty (1.0: no fix)" "position sigma (metres)" "set logscale cb"
echo "$outdir/visible-sensors.png $outdir/grade.png $outdir/rotation-sigma.png $outdir/position-sigma.png"
