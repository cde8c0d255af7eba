# shellcheck shell=bash
# Sourced by the scripts that debootstrap a Debian root.

# The release of the build machine, e.g. bookworm.
debian_release() {
  # shellcheck source=/dev/null
  (. /etc/os-release && echo "${VERSION_CODENAME:?/etc/os-release names no release}")
}

# Prints the mirror to fetch SUITE from: QUARVEL_DEBIAN_MIRROR when set, else the one apt
# already uses for SUITE, else the one it uses for the build machine's own release (one
# archive serves every release), so that no host is written down here.
#   debian_mirror SUITE
debian_mirror() {
  local suite="$1" mirror="${QUARVEL_DEBIAN_MIRROR:-}"
  if [[ -z "$mirror" ]]; then
    # shellcheck disable=SC2016 # apt expands $(REPO_URI), not the shell
    mirror="$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Identifier: Packages' 2>/dev/null |
      awk -v s="$suite" -v o="$(debian_release)" '$2 == s { print $1; found = 1; exit }
        $2 == o && !fallback { fallback = $1 }
        END { if (!found && fallback) print fallback }')"
  fi
  if [[ -z "$mirror" ]]; then
    echo "no apt source for Debian found; set QUARVEL_DEBIAN_MIRROR to a Debian mirror URL" >&2
    return 1
  fi
  echo "$mirror"
}
