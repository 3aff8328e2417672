# SPDX-License-Identifier: Apache-2.0

# shellcheck shell=bash
# What the scripts of this folder share. Source it; it changes no directory.
#
#   root            the top folder of the repository
#   build_packages  the Debian packages that building the library and the programs takes
#   plugin_packages those that the plug-ins take besides; without them they are left out
#   say TEXT        tells the user what happens now
#   die TEXT        one sentence on standard error, and the end
#   usage           prints the comment at the head of the script
#   need_packages   installs the Debian packages among its arguments that are missing
#   hand_over PATH  gives files to the user who called the script through sudo

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export root

# shellcheck disable=SC2034
build_packages=(
  build-essential cmake ninja-build pkg-config
  ocl-icd-opencl-dev opencl-headers
  libavcodec-dev libavdevice-dev libavfilter-dev libavformat-dev libavutil-dev libswscale-dev
  libcli11-dev libplplot-dev nlohmann-json3-dev
)
# shellcheck disable=SC2034
plugin_packages=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libobs-dev)

say() {
  printf '== %s\n' "$*"
}

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

usage() {
  awk 'NR == 1 || /^# SPDX-/ { next }
    !begun && /^#?$/ { next }
    !/^#/ { exit }
    { begun = 1; sub(/^# ?/, ""); print }' "$0"
}

is_installed() {
  [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

need_packages() {
  local missing=() package
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    die "this is no Debian system; please install the equivalents of: $*"
  fi
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null ||
      die "these packages are missing, and installing them needs root or sudo: ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing ${missing[*]}"
  "${as_root[@]}" apt-get -qq update ||
    die "the package lists cannot be fetched (is there a network?); missing: ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null ||
    die "apt-get cannot install (is there a network?): ${missing[*]}"
}

hand_over() {
  if [ "$(id -u)" -eq 0 ] && [ -n "${SUDO_UID-}" ]; then
    chown -R "$SUDO_UID:${SUDO_GID:-$SUDO_UID}" "$@"
  fi
}
