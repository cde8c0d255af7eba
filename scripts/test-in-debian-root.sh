#!/usr/bin/env bash
# Builds quarvel and runs the whole test suite in a fresh, minimal root of another Debian
# release, the way the README's test command runs on a new machine of that release:
#   scripts/test-in-debian-root.sh RELEASE        (e.g. trixie)
#
# debootstrap makes the root (variant minbase) in QUARVEL_DEBIAN_ROOT, default
# <repo>/build-RELEASE-root, anew at each run; the work tree is copied into it, and chroot runs
# scripts/install-deps.sh, the build with warnings as errors and ctest. The cases that need a
# private mount namespace skip themselves there, as a chroot's / is no mount point. When the
# native build/quarvel exists, a mock recording of each release is then read with the h5dump
# of both, which must show the same header and values. Runs as root; /proc, /dev and
# /dev/shm are mounted into the root for the run and unmounted however it ends.
set -euo pipefail

if [[ $# -ne 1 || -z "$1" ]]; then
  echo "usage: $0 RELEASE" >&2
  exit 2
fi
release="$1"
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)"
root="$(realpath -m "${QUARVEL_DEBIAN_ROOT:-$repo/build-$release-root}")"
if [[ "$root" == / ]]; then
  echo "$0: refusing to use / as the root" >&2
  exit 1
fi
# shellcheck source=scripts/debian-mirror.sh
. "$repo/scripts/debian-mirror.sh"

if [[ $(id -u) -ne 0 ]]; then
  echo "$0: must run as root (debootstrap and chroot need it)" >&2
  exit 1
fi
now() { date +%s; }
step() { echo "==== $*"; }

mounts_below() {
  findmnt -rn -o TARGET | awk -v r="$root/" 'index($0, r) == 1' | sort -r
}
unmount_all() {
  local target
  for target in $(mounts_below); do
    umount -R "$target" 2>/dev/null || umount -R -l "$target"
  done
}
trap unmount_all EXIT
trap 'exit 130' INT TERM

if ! command -v debootstrap >/dev/null; then
  step "installing debootstrap"
  DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    debootstrap debian-archive-keyring </dev/null
fi

t0=$(now)
# Only ever wipe a root this script made, and never while anything is mounted in it.
if [[ -e "$root" ]]; then
  if [[ ! -f "$root/.quarvel-debian-root" ]]; then
    echo "$0: $root exists and was not made by this script" >&2
    exit 1
  fi
  unmount_all
  if [[ -n "$(mounts_below)" ]]; then
    echo "$0: cannot unmount everything below $root" >&2
    exit 1
  fi
  rm -rf --one-file-system "$root"
fi
mkdir -p "$root"
touch "$root/.quarvel-debian-root"
mirror="$(debian_mirror "$release")"
step "debootstrap $release from $mirror into $root"
log="$root/.quarvel-debootstrap.log"
if ! debootstrap --variant=minbase "$release" "$root" "$mirror" </dev/null >"$log" 2>&1; then
  tail -20 "$log" >&2
  exit 1
fi
cp -L /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
tar -C "$repo" --exclude='./.git' --exclude='./build*' --exclude='./sysroot*' -cf - . |
  (mkdir -p "$root/src" && tar -C "$root/src" -xf -)
t_root=$(($(now) - t0))

in_root() {
  chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    bash -c "cd /src && $1" </dev/null
}

step "$release: install, build and test"
t0=$(now)
in_root 'bash scripts/install-deps.sh && cmake -S . -B build -DQUARVEL_WERROR=ON &&
  cmake --build build -j2 && ctest --test-dir build -j2 --output-on-failure'
t_test=$(($(now) - t0))

status=0
if [[ -x "$repo/build/quarvel" ]] && command -v h5dump >/dev/null; then
  step "mock recordings of both releases, read by the h5dump of both"
  host="$(debian_release)"
  dir="$root/tmp/compare"
  mkdir -p "$dir"
  "$repo/build/quarvel" --conf=mock --rec-dev=/dev/null --data-bytes=4194304 \
    --file="$dir/$host.h5" >/dev/null </dev/null
  in_root "./build/quarvel --conf=mock --rec-dev=/dev/null --data-bytes=4194304 \
    --file=/tmp/compare/$release.h5 >/dev/null"
  for made in "$host" "$release"; do
    # The first line names the file, the rest must match whoever wrote or reads it.
    h5dump -H -p "$dir/$made.h5" | tail -n +2 >"$dir/$made.by-$host.header"
    h5dump -d /quarvel -b LE -o "$dir/$made.by-$host.bin" "$dir/$made.h5" >/dev/null
    in_root "h5dump -H -p /tmp/compare/$made.h5 | tail -n +2 >/tmp/compare/$made.by-$release.header &&
      h5dump -d /quarvel -b LE -o /tmp/compare/$made.by-$release.bin /tmp/compare/$made.h5 >/dev/null"
  done
  for kind in header bin; do
    for other in "$host.by-$release" "$release.by-$host" "$release.by-$release"; do
      if ! cmp "$dir/$host.by-$host.$kind" "$dir/$other.$kind"; then
        diff "$dir/$host.by-$host.$kind" "$dir/$other.$kind" | head -20 >&2 || true
        echo "$0: the $kind of $other differs from the one of $host.by-$host" >&2
        status=1
      fi
    done
  done
  if [[ $status -eq 0 ]]; then
    echo "the files of $host and $release show the same header and values to both h5dumps"
  fi
else
  echo "no native build/quarvel or no h5dump: the releases' recordings are not compared" >&2
fi

echo "$release timings: root ${t_root}s, install+build+tests $((t_test))s"
exit "$status"
