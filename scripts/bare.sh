# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# A bare Debian 12 in a folder, for scripts that run as root. Source it after lib.sh.
#
#   make_bare FOLDER LOG      fetches one from the mirror that this machine uses
#   in_bare FOLDER COMMAND    runs a command in it, in /root

make_bare() {
  local mirror
  # shellcheck disable=SC2016
  mirror=$(apt-get indextargets --format '$(SITE)' | head -n 1)
  say "Making a bare Debian 12"
  chmod 755 "$1"  # apt-get leaves its rights behind to fetch
  debootstrap --variant=minbase bookworm "$1" ${mirror:+"$mirror"} >"$2" 2>&1 || {
    tail "$2" >&2
    die "a bare Debian 12 cannot be made"
  }
  cp -r /etc/apt/apt.conf.d "$1/etc/apt/" 2>/dev/null || true
}

in_bare() {
  chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive sh -ec "cd /root; $2" || die "the bare system fails"
}
