# Shared by plot-coverage.sh and plot-sensitivity.sh (sourced, not run):
# the argument checks, and plot_map, which draws one column of a table as a
# world map over longitude and latitude in degrees.
#
#   plot_init ROWCHECK MESSAGE "$@"
# checks TABLE and OUTDIR; ROWCHECK is an awk condition that is true for a row
# that doesn't belong in this kind of table, MESSAGE the complaint for it.

name=$(basename "$0")
fail() {
  echo "$name: $*" >&2
  exit 1
}

plot_init() {
  local rowcheck=$1 message=$2
  shift 2
  [ $# -eq 2 ] || fail "usage: $name TABLE OUTDIR"
  table=$1
  outdir=$2
  width=${PLOT_WIDTH:-1200}
  height=${PLOT_HEIGHT:-700}

  command -v gnuplot >/dev/null 2>&1 || fail "gnuplot is not installed"
  [ -f "$table" ] && [ -r "$table" ] || fail "cannot read the table $table"
  [ -s "$table" ] || fail "the table $table is empty"
  [[ $width =~ ^[0-9]+$ && $height =~ ^[0-9]+$ ]] || fail "PLOT_WIDTH and PLOT_HEIGHT must be whole numbers of pixels"
  awk "$rowcheck || \$1 !~ /^-?[0-9]/ { bad = NR; exit } END { if (bad) { print bad; exit 1 } }" "$table" >/dev/null ||
    fail "$table $message"

  mkdir -p "$outdir" || fail "cannot make the folder $outdir"

  terminal="png"
  if gnuplot -e "set terminal" 2>&1 | grep -qw pngcairo; then terminal="pngcairo"; fi

  # A grid of one row or column cannot be drawn as an image; it is drawn as dots.
  style="with image"
  if [ "$(wc -l <"$table")" -lt 4 ]; then style="with points pointtype 5 pointsize 3 palette"; fi
}

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
