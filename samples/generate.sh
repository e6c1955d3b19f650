#!/usr/bin/env bash
# Renders the sample devices from their OpenSCAD sources into binary STL files
# in millimetres, checking on the way that each mesh is closed and outward.
# Needs openscad and python3. Run from anywhere: bash samples/generate.sh
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

render() {
  local name=$1 description=$2
  openscad -o "$work/$name.stl" "$here/$name.scad" 2> "$work/$name.log" || {
    cat "$work/$name.log" >&2
    exit 1
  }
  python3 "$here/stl_to_binary.py" "$work/$name.stl" "$here/$name.stl" "sensorlay sample: $description (mm)"
}

render headset "headset shell"
render headset_head "head behind the headset"
render controller "hand controller with ring"
