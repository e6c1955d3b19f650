#!/usr/bin/env bash
# Installs the JavaScript packages of the design page (three.js, esbuild) and
# of its browser test (puppeteer-core) into node_modules/, exactly as
# package-lock.json pins them. Does nothing when node_modules is newer than
# the lock; the build runs it at every configuration, scripts/install-deps.sh
# at every set-up.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
installed=$repo/node_modules/.package-lock.json
if [ -f "$installed" ] && [ ! "$repo/package-lock.json" -nt "$installed" ]; then
  exit 0
fi
if ! command -v npm >/dev/null 2>&1; then
  echo "$(basename "$0"): npm is missing (Debian packages nodejs and npm; scripts/install-deps.sh installs them)" >&2
  exit 1
fi
echo "installing the page's npm packages into $repo/node_modules (npm ci)"
cd "$repo"
npm ci --no-audit --no-fund --loglevel=error
