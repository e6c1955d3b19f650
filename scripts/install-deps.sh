#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, then
# the npm packages of the design page (scripts/install-node-modules.sh).
# Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libeigen3-dev libembree-dev libceres-dev libjsoncpp-dev libgoogle-glog-dev libpng-dev libstb-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  openscad gnuplot-nox
  clang-format
  clang libclang-rt-dev
  parallel slurm-wlm munge
  chromium
)
# Node.js and npm build the design page and drive its browser test. A machine
# that already has node (from Debian or elsewhere) keeps it.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive

  # munge and Slurm ask to start their system daemons when installed; the tests
  # start private ones of their own and need none. Debian's policy-rc.d hook
  # refuses those starts for the duration of this install (a container's own
  # hook, when it has one, is left as it is).
  policy=/usr/sbin/policy-rc.d
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\n# Refuses service starts while scripts/install-deps.sh installs packages.\nexit 101\n' |
      $SUDO tee "$policy" >/dev/null
    $SUDO chmod 755 "$policy"
    trap '$SUDO rm -f "$policy"' EXIT
  fi

  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

bash "$(dirname "$0")/install-node-modules.sh"
