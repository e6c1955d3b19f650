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
source "$(dirname "$0")/plot-common.sh"

# A coverage row has at least 12 numeric columns (the sensitivity table has 5).
plot_init 'NF < 12' \
  "is not a coverage table: a row has fewer than 12 columns (for a sensitivity table use plot-sensitivity.sh)" "$@"

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
