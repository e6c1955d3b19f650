#!/usr/bin/env bash
# The demo: designs a 20-sensor layout for the bundled headset shell, with the
# wearer's head as an obstacle, and writes the model, the OpenSCAD script, the
# coverage table, the design's page (sensorlay-lab view) and (with gnuplot)
# maps of the coverage into demo-output/.
#
#   bash scripts/demo.sh [BUILD_DIR]      (make demo runs it after building)
#
# The settings are the program's defaults: 1250 orientations, 3 iterations,
# cooling rate 0.96 (about 11,700 trials), and the 0.5-degree report grid
# (260,281 rows). On two cores the whole run takes a few seconds.
set -euo pipefail

name=$(basename "$0")
fail() {
  echo "$name: $*" >&2
  exit 1
}

repo=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-build}
case $build_dir in
  /*) ;;
  *) build_dir=$PWD/$build_dir ;;
esac
binary=$build_dir/sensorlay
lab=$build_dir/sensorlay-lab
for program in "$binary" "$lab"; do
  [ -x "$program" ] || fail "no $(basename "$program") binary in $build_dir (build it first: make build)"
done
for sample in headset.stl headset_head.stl; do
  [ -r "$repo/samples/$sample" ] || fail "the sample $repo/samples/$sample is missing"
done

out=$repo/demo-output
mkdir -p "$out" || fail "cannot make the folder $out"
# The run happens inside the output folder, so that the script's imports
# (../samples/...) resolve from where the script lies.
cd "$out"
rm -f headset-design.json headset-design.scad headset-design.html coverage.txt design-progress.txt

echo "Designing 20 sensor positions on samples/headset.stl (head in samples/headset_head.stl as obstacle)."
echo "Progress dots and improved scores follow; lower scores are better."
start=$(date +%s)
set +e
"$binary" /generate /nsensors 20 \
  /sensors ../samples/headset.stl /obstacles ../samples/headset_head.stl \
  /outmodel headset-design.json /outscad headset-design.scad \
  >coverage.txt 2> >(tee design-progress.txt >&2)
status=$?
set -e
# Wait for tee to finish copying the progress.
wait
echo
[ "$status" -eq 0 ] || fail "the design run failed with status $status (see $out/design-progress.txt)"
echo "Finished in $(($(date +%s) - start)) s. $(head -n 1 headset-design.json | sed 's|^// ||')"

# The page scores the model by sensorlay's rule for unseen directions, so that
# it shows the design's own score.
"$lab" view headset-design.json --sensors ../samples/headset.stl --obstacles ../samples/headset_head.stl \
  --unseen-cost flat --out headset-design.html || fail "the design's page could not be written (see above)"

echo
echo "Results in $out:"
echo "  headset-design.json   the sensor model (positions and normals in metres)"
echo "  headset-design.html   the design's page: open it in a browser (chromium $out/headset-design.html)"
echo "  headset-design.scad   OpenSCAD view of the design: openscad $out/headset-design.scad"
echo "  coverage.txt          coverage table, one row per direction ($(wc -l <coverage.txt) rows)"
echo "  design-progress.txt   the search's progress output"

if command -v gnuplot >/dev/null 2>&1; then
  if maps=$(bash "$repo/scripts/plot-coverage.sh" coverage.txt maps 2>&1); then
    echo "  maps/                 coverage maps: $(echo "$maps" | tr ' ' '\n' | xargs -n1 basename | tr '\n' ' ')"
  else
    echo "(no maps drawn: $maps)"
  fi
fi
