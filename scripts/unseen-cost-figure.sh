#!/usr/bin/env bash
# The picture of the unseen-cost rules in README.md, from two real designs:
# 10 sensors on the bundled headset (the head as obstacle) under a quality map
# that weighs only a spot of 20 degrees around +X (longitude 90, latitude 0),
# once with --unseen-cost flat and once weighted, each mapped by the number of
# sensors seen from every direction.
#
#   bash scripts/unseen-cost-figure.sh [BUILD_DIR] [OUT.png]   (default build, docs/unseen-cost.png)
#
# Needs python3 (for the map) and gnuplot.
set -euo pipefail

name=$(basename "$0")
fail() {
  echo "$name: $*" >&2
  exit 1
}

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$repo/build}" && pwd) || fail "no build folder ${1:-build}"
out=${2:-$repo/docs/unseen-cost.png}
for tool in python3 gnuplot; do command -v "$tool" >/dev/null || fail "$tool is not installed"; done
[ -x "$build/sensorlay-lab" ] && [ -x "$build/sensorlay" ] || fail "build sensorlay and sensorlay-lab first (make build)"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

python3 - <<'EOF'
import math
width, height = 144, 72
pixels = bytearray(b"P5\n%d %d\n255\n" % (width, height))
for row in range(height):
    for column in range(width):
        lon = math.radians((column / (width - 1) - 0.5) * 360)
        lat = math.radians((0.5 - row / (height - 1)) * 180)
        # The angle to +X: longitude 90, latitude 0.
        c = math.cos(lat) * math.sin(lon)
        pixels.append(255 if c >= math.cos(math.radians(20)) else 0)
open("spot.pgm", "wb").write(pixels)
EOF

surface=$repo/samples/headset.stl
head=$repo/samples/headset_head.stl
for rule in flat weighted; do
  "$build/sensorlay-lab" design --sensors "$surface" --obstacles "$head" --count 10 --seed 1 \
    --quality-map spot.pgm --unseen-cost "$rule" --quiet --out "$rule"
  "$build/sensorlay" /model "$rule.json" /sensors "$surface" /obstacles "$head" /angleresolutiondegrees 2 \
    >"$rule.txt" 2>/dev/null
done

# The share of the spot's directions seen by any sensor, for the titles.
seen() {
  awk 'BEGIN { limit = cos(20 * 3.14159265358979 / 180) }
       { if (cos($2) * sin($1) >= limit) { n++; if ($5 > 0) s++ } }
       END { printf "%.0f", 100 * s / n }' "$1"
}
flat_seen=$(seen flat.txt)
weighted_seen=$(seen weighted.txt)

mkdir -p "$(dirname "$out")"
gnuplot <<EOF || fail "gnuplot could not draw $out"
set terminal pngcairo size 1000,330 font ",10"
set output "$out"
set multiplot layout 1,2 title "10 sensors on the headset; the quality map weighs only the circled spot around +X"
set xrange [-180:180]
set yrange [-90:90]
set xtics 60
set ytics 30
set xlabel "longitude (degrees); +Z at the centre"
set ylabel "latitude (degrees)"
set size ratio 0.5
set cbrange [0:10]
set cblabel "sensors seen"
set palette rgbformulae 33,13,10
set parametric
set trange [0:2*pi]
spot_x(t) = 90 + 20 * cos(t)
spot_y(t) = 20 * sin(t)
set title "--unseen-cost flat: the spot is seen from ${flat_seen} % of its directions"
plot "flat.txt" using (\$1*180/pi):(\$2*180/pi):5 with image notitle, spot_x(t), spot_y(t) with lines lw 2 lc "white" notitle
set title "--unseen-cost weighted: the spot is seen from ${weighted_seen} % of its directions"
plot "weighted.txt" using (\$1*180/pi):(\$2*180/pi):5 with image notitle, spot_x(t), spot_y(t) with lines lw 2 lc "white" notitle
unset multiplot
EOF
echo "$out"
