#!/usr/bin/env bash
# Installs every Debian package needed to build, test, benchmark and package quarvel.
# Idempotent; runs as root or through sudo.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  dpkg-dev file
  libhdf5-dev libaec-dev hdf5-tools zlib1g-dev libdeflate-dev
  libboost-program-options-dev
  libglibmm-2.4-dev
  libgtest-dev libgmock-dev
  python3 python3-h5py python3-numpy time strace util-linux mount
  groff-base bash-completion
)

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
else
  sudo=(sudo)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
