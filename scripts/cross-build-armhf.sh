#!/usr/bin/env bash
# Builds quarvel for the board (32-bit ARM, arm-linux-gnueabihf) and runs the test suite
# under qemu-arm, in one go:
#   scripts/cross-build-armhf.sh [extra ctest arguments, e.g. -R Decoder]
#
# Installs the host packages it needs, makes the armhf sysroot, configures build-armhf
# with cmake/toolchain-armhf.cmake, builds, checks the binary is 32-bit ARM and runs ctest.
# Environment: QUARVEL_ARMHF_SYSROOT (default <repo>/sysroot-armhf; point it outside the
# work tree to keep it between fresh clones), QUARVEL_ARMHF_BUILD (default
# <repo>/build-armhf), QUARVEL_JOBS (default: number of cores).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)"
sysroot="${QUARVEL_ARMHF_SYSROOT:-$repo/sysroot-armhf}"
build="${QUARVEL_ARMHF_BUILD:-$repo/build-armhf}"
jobs="${QUARVEL_JOBS:-$(nproc)}"

as_root() {
  if [[ $(id -u) -eq 0 ]]; then
    "$@"
  else
    sudo "$@"
  fi
}

now() { date +%s; }
step() { echo "==== $*"; }

host_packages=(
  crossbuild-essential-armhf
  binutils-arm-linux-gnueabihf
  debootstrap
  debian-archive-keyring
  gpgv
  file
  cmake
  make
  pkgconf
)
missing=()
for package in "${host_packages[@]}"; do
  if ! dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$package")
  fi
done
# Either flavour of the user-mode emulator will do.
if ! command -v qemu-arm >/dev/null && ! command -v qemu-arm-static >/dev/null; then
  missing+=(qemu-user)
fi
if [[ ${#missing[@]} -gt 0 ]]; then
  step "installing host packages: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}" </dev/null
fi

step "armhf sysroot: $sysroot"
t0=$(now)
as_root env ${QUARVEL_DEBIAN_MIRROR:+QUARVEL_DEBIAN_MIRROR="$QUARVEL_DEBIAN_MIRROR"} \
  "$repo/scripts/make-armhf-sysroot.sh" "$sysroot" </dev/null
t_sysroot=$(($(now) - t0))

step "configure and build: $build"
t0=$(now)
cmake -S "$repo" -B "$build" \
  -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchain-armhf.cmake" \
  -DQUARVEL_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=Release \
  -DQUARVEL_WERROR=ON
cmake --build "$build" -j "$jobs"
t_build=$(($(now) - t0))

kind="$(file -b "$build/quarvel")"
echo "quarvel: $kind"
if [[ "$kind" != "ELF 32-bit LSB "*"executable, ARM, EABI5"* ]]; then
  echo "$0: $build/quarvel is not a 32-bit ARM executable" >&2
  exit 1
fi

step "tests under qemu-arm"
t0=$(now)
status=0
ctest --test-dir "$build" --output-on-failure -j "$jobs" "$@" </dev/null || status=$?
t_test=$(($(now) - t0))

# The board's build must write the same file as the development machine's.
if [[ -x "$repo/build/quarvel" ]] && command -v h5diff >/dev/null; then
  step "mock recording: emulated ARM binary against the native one"
  compare="$(mktemp -d)"
  qemu="$(command -v qemu-arm || command -v qemu-arm-static)"
  "$qemu" -L "$sysroot" "$build/quarvel" --conf=mock --rec-dev=/dev/null \
    --data-bytes=4194304 --file="$compare/arm.h5" </dev/null >/dev/null
  "$repo/build/quarvel" --conf=mock --rec-dev=/dev/null --data-bytes=4194304 \
    --file="$compare/native.h5" </dev/null >/dev/null
  if h5diff "$compare/arm.h5" "$compare/native.h5"; then
    echo "mock recordings of the ARM and the native binary are identical"
  else
    echo "$0: the ARM and the native mock recordings differ" >&2
    status=1
  fi
  rm -rf "$compare"
fi

echo "armhf timings: sysroot ${t_sysroot}s, configure+build ${t_build}s, emulated tests ${t_test}s"
exit "$status"
