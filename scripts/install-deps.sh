#!/usr/bin/env bash
# Installs every build, test and benchmark dependency from Debian packages.
# Idempotent: packages already present are left alone, so a second run is quick.
set -euo pipefail

packages=(
  build-essential g++ cmake ninja-build pkg-config gettext
  libboost-dev libboost-locale-dev libboost-math-dev
  libeigen3-dev libomp-dev libkissfft-dev libhwy-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libcsv-dev nlohmann-json3-dev
  clang libclang-rt-dev
  python3-dev pybind11-dev python3-numpy python3-pytest python3-scipy python3-sklearn
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
