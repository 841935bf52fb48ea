#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing,
# and any further packages named as arguments (the benchmarks' peers).
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config libgdal-dev gdal-bin libcgal-dev
          nlohmann-json3-dev libgtest-dev qt6-base-dev clang libclang-rt-14-dev
          qt6-qpa-plugins fonts-dejavu-core xvfb xauth xdotool
          python3-distributed slurm-wlm munge "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
