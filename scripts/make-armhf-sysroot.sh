#!/usr/bin/env bash
# Makes a Debian armhf sysroot for cross-building quarvel:
#   scripts/make-armhf-sysroot.sh SYSROOT [RELEASE]
#
# The sysroot holds the ARM headers and libraries the build links against and the
# runtime qemu-arm needs to run the tests. RELEASE (bookworm or trixie) is the build
# machine's by default, whose cross compiler must match the sysroot's C++ library.
# Packages come from the Debian mirror the host's apt configuration uses (override with
# QUARVEL_DEBIAN_MIRROR). Runs as root, unattended. A complete sysroot is recognised by
# its stamp file and left alone, so calling it again is cheap.
set -euo pipefail

usage() {
  echo "usage: $0 SYSROOT [RELEASE]" >&2
  exit 2
}

[[ ($# -eq 1 || $# -eq 2) && -n "$1" ]] || usage
# shellcheck source=scripts/debian-mirror.sh
. "$(dirname "${BASH_SOURCE[0]}")/debian-mirror.sh"

if [[ $(id -u) -ne 0 ]]; then
  echo "$0: must run as root (debootstrap needs it)" >&2
  exit 1
fi

suite="${2:-$(debian_release)}"
arch=armhf
triplet=arm-linux-gnueabihf

# The compiler brings its own libstdc++ headers only for the host's default root, so the
# sysroot carries libc6-dev and the libstdc++ of the release's cross gcc.
case "$suite" in
bookworm) gcc_major=12 ;;
trixie) gcc_major=14 ;;
*)
  echo "$0: no known gcc for release '$suite' (bookworm, trixie)" >&2
  exit 2
  ;;
esac
packages=(
  libc6-dev
  "libstdc++-$gcc_major-dev"
  zlib1g-dev
  libaec-dev
  libdeflate-dev
  libhdf5-dev
  libboost-program-options-dev
  libglibmm-2.4-dev
  libgtest-dev
  libgmock-dev
)

mkdir -p "$1"
sysroot="$(cd "$1" && pwd -P)"
if [[ "$sysroot" == / ]]; then
  echo "$0: refusing to use / as the sysroot" >&2
  exit 1
fi

marker="$sysroot/.quarvel-sysroot"
stamp="$sysroot/.quarvel-sysroot-complete"
# Bump the trailing number when the way the sysroot is made changes.
fingerprint="$suite $arch ${packages[*]} 2"

if [[ -f "$stamp" && "$(cat "$stamp")" == "$fingerprint" ]]; then
  echo "armhf sysroot $sysroot is complete, nothing to do"
  exit 0
fi

# Only ever wipe a directory this script made: a mistyped path must not cost anyone data.
if [[ -n "$(ls -A "$sysroot")" ]]; then
  if [[ ! -f "$marker" ]]; then
    echo "$0: $sysroot is not empty and was not made by this script; give an empty or new directory" >&2
    exit 1
  fi
  echo "armhf sysroot $sysroot is incomplete or outdated, making it again"
  find "$sysroot" -mindepth 1 -maxdepth 1 -exec rm -rf {} +
fi
touch "$marker"

for tool in debootstrap dpkg-deb tar realpath; do
  if ! command -v "$tool" >/dev/null; then
    echo "$0: '$tool' is missing (apt-get install debootstrap coreutils tar)" >&2
    exit 1
  fi
done

mirror="$(debian_mirror "$suite")"

include="$(
  IFS=,
  echo "${packages[*]}"
)"
echo "debootstrap ($arch, $suite) into $sysroot"
debootstrap --foreign --arch="$arch" --variant=minbase --components=main \
  --include="$include" "$suite" "$sysroot" "$mirror" </dev/null

# debootstrap --foreign unpacks only the base system; the rest of what it downloaded
# (our -dev packages and their dependencies) is unpacked here without running any
# maintainer script. tar keeps the merged-/usr directory symlinks (/lib -> usr/lib)
# that a plain extraction would replace with directories.
shopt -s nullglob
debs=("$sysroot"/var/cache/apt/archives/*.deb)
if [[ ${#debs[@]} -eq 0 ]]; then
  echo "$0: debootstrap left no packages in $sysroot/var/cache/apt/archives" >&2
  exit 1
fi
echo "unpacking ${#debs[@]} packages"
for deb in "${debs[@]}"; do
  dpkg-deb --fsys-tarfile "$deb" | tar -C "$sysroot" --keep-directory-symlink --no-same-owner -xf -
done

# Absolute links (libfoo.so -> /lib/...) would point into the host; make them relative.
echo "rewriting absolute symlinks"
while IFS= read -r -d '' link; do
  target="$(readlink "$link")"
  dir="$(dirname "$link")"
  # debootstrap links /proc and /dev/fd into the host's /proc. A plain /proc directory,
  # as on a real root, and no /dev/fd link let qemu-arm fall back to the host's.
  case "$target" in
  /proc | /sys | /dev)
    rm -f "$link"
    mkdir -p "$link"
    continue
    ;;
  /proc/* | /sys/* | /dev/*)
    rm -f "$link"
    continue
    ;;
  esac
  ln -sfn "$(realpath -ms --relative-to="$dir" "$sysroot$target")" "$link"
done < <(find "$sysroot" -type l -lname '/*' -print0)

for needed in \
  "lib/ld-linux-armhf.so.3" \
  "usr/include/hdf5/serial/H5Cpp.h" \
  "usr/lib/$triplet/hdf5/serial/libhdf5_cpp.a" \
  "usr/lib/$triplet/libsz.so" \
  "usr/lib/$triplet/libboost_program_options.so" \
  "usr/lib/$triplet/pkgconfig/glibmm-2.4.pc" \
  "usr/lib/$triplet/pkgconfig/libdeflate.pc" \
  "usr/lib/$triplet/cmake/GTest/GTestConfig.cmake" \
  "usr/include/c++/$gcc_major/vector"; do
  if [[ ! -e "$sysroot/$needed" ]]; then
    echo "$0: sysroot is missing $needed" >&2
    exit 1
  fi
done

echo "$fingerprint" >"$stamp"
echo "armhf sysroot $sysroot is complete"
