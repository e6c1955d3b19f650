#!/usr/bin/env bash
# World maps of a sensitivity table (sensorlay /model m.json
# /basestationsensitivity > table.txt): the position uncertainty along the
# station's x, y and z axes, one PNG each, over longitude and latitude in
# degrees.
#
#   scripts/plot-sensitivity.sh TABLE OUTDIR
#
# Writes OUTDIR/sigma-x.png, sigma-y.png and sigma-z.png. PLOT_WIDTH and
# PLOT_HEIGHT set the size in pixels (default 1200 x 700).
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

# A sensitivity row has exactly 5 numeric columns (a coverage row has 12 or
# more: use plot-coverage.sh).
awk 'NF != 5 || $1 !~ /^-?[0-9]/ { bad = NR; exit } END { if (bad) { print bad; exit 1 } }' "$table" >/dev/null ||
  fail "$table is not a sensitivity table: a row does not have 5 columns (for a coverage table use plot-coverage.sh)"

mkdir -p "$outdir" || fail "cannot make the folder $outdir"

terminal="png"
if gnuplot -e "set terminal" 2>&1 | grep -qw pngcairo; then terminal="pngcairo"; fi

# A grid of one row or column cannot be drawn as an image; it is drawn as dots.
rows=$(wc -l <"$table")
style="with image"
if [ "$rows" -lt 4 ]; then style="with points pointtype 5 pointsize 3 palette"; fi

plot_map() {  # column, file, title, colour-box label, extra settings
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

plot_map 3 sigma-x.png "Position uncertainty along x, device facing the station (1.0: no fix)" "sigma x (metres)" "set logscale cb"
plot_map 4 sigma-y.png "Position uncertainty along y, device facing the station (1.0: no fix)" "sigma y (metres)" "set logscale cb"
plot_map 5 sigma-z.png "Position uncertainty along z, device facing the station (1.0: no fix)" "sigma z (metres)" "set logscale cb"
echo "$outdir/sigma-x.png $outdir/sigma-y.png $outdir/sigma-z.png"
