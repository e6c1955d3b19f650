#!/usr/bin/env bash
# The demo: runs the program on the bundled sample data.
set -euo pipefail
build_dir=${1:-build}
"$build_dir/sensorlay" /version
