#!/usr/bin/env bash
# Makes the seed corpora again (fuzz/corpus/<target>/) with the seed writer of
# the fuzz tree, which the main build configures and builds.
#   bash fuzz/make-seeds.sh [BUILD_DIR]     (default: build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
cmake --build "$build" --target fuzz_tree >/dev/null
rm -rf "$here/corpus"
ASAN_OPTIONS=detect_leaks=0 "$build/fuzz-tree/fuzz/seed_writer" "$here/corpus"
find "$here/corpus" -type f | sort | sed "s|^$here/||"
