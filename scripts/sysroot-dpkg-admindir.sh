#!/usr/bin/env bash
# Makes a dpkg database that names the files of a sysroot's packages where they are, inside
# the sysroot:
#   scripts/sysroot-dpkg-admindir.sh SYSROOT ADMINDIR
#
# dpkg-shlibdeps (run with DPKG_ADMINDIR=ADMINDIR) needs to know which package ships each
# library, and that package's shlibs and symbols files, to compute a package's Depends. The
# database comes from the sysroot's own one when it has one (a root copied from a board),
# else from the packages that make-armhf-sysroot.sh unpacked without dpkg (still in its
# apt cache). An up-to-date ADMINDIR is left alone.
set -euo pipefail

if [[ $# -ne 2 || -z "$1" || -z "$2" ]]; then
  echo "usage: $0 SYSROOT ADMINDIR" >&2
  exit 2
fi
sysroot="$(cd "$1" && pwd -P)"
admindir="$2"
db="$sysroot/var/lib/dpkg"

shopt -s nullglob
lists=("$db"/info/*.list)
debs=("$sysroot"/var/cache/apt/archives/*.deb)
if [[ ${#lists[@]} -gt 0 ]]; then
  source_kind=database
elif [[ ${#debs[@]} -gt 0 ]]; then
  source_kind=archives
else
  echo "$0: $sysroot has neither a dpkg database nor packages in var/cache/apt/archives" >&2
  exit 1
fi
key="$sysroot $source_kind $(cat "$db/status" "$sysroot/.quarvel-sysroot-complete" 2>/dev/null |
  md5sum | cut -d' ' -f1)"
if [[ -f "$admindir/source" && "$(cat "$admindir/source")" == "$key" ]]; then
  exit 0
fi

work="$admindir.new"
rm -rf "$work"
mkdir -p "$work/info" "$work/updates"
echo 1 >"$work/info/format" # info files named pkg:arch for Multi-Arch: same
: >"$work/available"
arches=("$(dpkg --print-architecture)")

# "./usr/lib/x" or "/usr/lib/x" becomes "SYSROOT/usr/lib/x"; the root itself is left out.
in_sysroot() {
  sed -e 's|^\./|/|' -e 's|/$||' -e '/^$/d' -e "s|^/|$sysroot/|"
}

if [[ $source_kind == database ]]; then
  cp "$db/status" "$work/status"
  if [[ -f "$db/arch" ]]; then
    mapfile -t -O ${#arches[@]} arches <"$db/arch"
  fi
  for list in "${lists[@]}"; do
    name="$(basename "$list" .list)"
    in_sysroot <"$list" >"$work/info/$name.list"
    for kind in shlibs symbols; do
      if [[ -f "$db/info/$name.$kind" ]]; then
        cp "$db/info/$name.$kind" "$work/info/"
      fi
    done
  done
else
  : >"$work/status"
  control="$(mktemp -d)"
  trap 'rm -rf "$control"' EXIT
  for deb in "${debs[@]}"; do
    rm -rf "${control:?}"/*
    dpkg-deb --control "$deb" "$control"
    package="$(dpkg-deb --field "$deb" Package)"
    arch="$(dpkg-deb --field "$deb" Architecture)"
    name="$package"
    if [[ "$(dpkg-deb --field "$deb" Multi-Arch)" == same ]]; then
      name="$package:$arch"
    fi
    arches+=("$arch")
    {
      sed '/^$/d' "$control/control"
      echo "Status: install ok installed"
      echo
    } >>"$work/status"
    dpkg-deb --fsys-tarfile "$deb" | tar -t | in_sysroot >"$work/info/$name.list"
    for kind in shlibs symbols; do
      if [[ -f "$control/$kind" ]]; then
        cp "$control/$kind" "$work/info/$name.$kind"
      fi
    done
  done
fi
printf '%s\n' "${arches[@]}" | grep -vx all | sort -u >"$work/arch"
echo "$key" >"$work/source"
rm -rf "$admindir"
mv "$work" "$admindir"
echo "dpkg database of $sysroot ($source_kind): $admindir"
