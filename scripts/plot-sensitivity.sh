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
source "$(dirname "$0")/plot-common.sh"

# A sensitivity row has exactly 5 numeric columns (a coverage row has 12 or more).
plot_init 'NF != 5' \
  "is not a sensitivity table: a row does not have 5 columns (for a coverage table use plot-coverage.sh)" "$@"

column=3
for axis in x y z; do
  plot_map $column sigma-$axis.png "Position uncertainty along $axis, device facing the station (1.0: no fix)" \
    "sigma $axis (metres)" "set logscale cb"
  column=$((column + 1))
done
echo "$outdir/sigma-x.png $outdir/sigma-y.png $outdir/sigma-z.png"
