#!/usr/bin/env bash
# Builds quarvel for the board (32-bit ARM, arm-linux-gnueabihf), runs the test suite
# under qemu-arm and builds the board's Debian package, in one go:
#   scripts/cross-build-armhf.sh [extra ctest arguments, e.g. -R Decoder]
#
# Installs the host packages it needs, makes the armhf sysroot of the build machine's Debian
# release (the one its cross compiler belongs to), configures build-armhf
# with cmake/toolchain-armhf.cmake, builds, checks the binary is 32-bit ARM, runs ctest and
# makes build-armhf/quarvel_<version>_armhf.deb (checked with lintian when it is installed).
# Environment: QUARVEL_SYSROOT (default <repo>/sysroot-armhf; point it outside the
# work tree to keep it between fresh clones), QUARVEL_ARMHF_BUILD (default
# <repo>/build-armhf), QUARVEL_JOBS (default: number of cores).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)"
sysroot="${QUARVEL_SYSROOT:-$repo/sysroot-armhf}"
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
  dpkg-dev
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

# The board's build must record the same data as the development machine's. The data are
# compared, not the whole files: attributes such as the start and end time differ per run.
if [[ ! -x "$repo/build/quarvel" ]]; then
  echo "no native build/quarvel: the ARM mock recording is not compared with a native one" >&2
elif ! command -v h5dump >/dev/null; then
  echo "no h5dump (hdf5-tools): the ARM mock recording is not compared with a native one" >&2
else
  step "mock recording: emulated ARM binary against the native one"
  compare="$(mktemp -d)"
  qemu="$(command -v qemu-arm || command -v qemu-arm-static)"
  "$qemu" -L "$sysroot" "$build/quarvel" --conf=mock --rec-dev=/dev/null \
    --data-bytes=4194304 --file="$compare/arm.h5" </dev/null >/dev/null
  "$repo/build/quarvel" --conf=mock --rec-dev=/dev/null --data-bytes=4194304 \
    --file="$compare/native.h5" </dev/null >/dev/null
  if h5dump -d /quarvel -b LE -o "$compare/arm.bin" "$compare/arm.h5" >/dev/null &&
    h5dump -d /quarvel -b LE -o "$compare/native.bin" "$compare/native.h5" >/dev/null &&
    cmp "$compare/arm.bin" "$compare/native.bin"; then
    echo "mock recordings of the ARM and the native binary hold the same data"
  else
    echo "$0: the ARM and the native mock recordings differ" >&2
    status=1
  fi
  rm -rf "$compare"
fi

step "Debian package"
t0=$(now)
# Only this run's package is left, whatever version earlier runs built.
rm -f "$build"/quarvel_*_armhf.deb
cmake --build "$build" --target package -j "$jobs"
debs=("$build"/quarvel_*_armhf.deb)
deb="${debs[0]}"
echo "$deb"
dpkg-deb --field "$deb" Package Version Architecture Depends
# An empty or partial Depends would install a program that cannot start on the board.
for needed in libc6 libstdc++6 libboost-program-options libglibmm-2.4 libdeflate0 libsz2 zlib1g; do
  if ! dpkg-deb --field "$deb" Depends | grep -q "\b$needed"; then
    echo "$0: $deb does not depend on $needed" >&2
    status=1
  fi
done
# HDF5 is linked in, so that the board does not load libcurl and its chain at every start.
if dpkg-deb --field "$deb" Depends | grep -q "\blibhdf5\|\blibcurl"; then
  echo "$0: $deb depends on a shared HDF5" >&2
  status=1
fi
if command -v lintian >/dev/null; then
  lintian "$deb" || status=1
fi
t_package=$(($(now) - t0))

echo "armhf timings: sysroot ${t_sysroot}s, configure+build ${t_build}s, emulated tests ${t_test}s, package ${t_package}s"
exit "$status"
