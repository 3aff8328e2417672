#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# Checks that the completion for bash offers what the program knows, and that the manual page tells
# of it.
#   shell_test.sh PROGRAM COMPLETION MANUAL
set -eu
program=$1 completion=$2 manual=$3

# shellcheck disable=SC1091
set +eu && . /usr/share/bash-completion/bash_completion && set -eu
# shellcheck source=/dev/null
. "$completion"

complete_line() {  # WORD...: what is offered for the last one
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMP_LINE="$*"
  COMP_POINT=${#COMP_LINE}
  COMPREPLY=()
  set +eu
  _stabilize_video "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  set -eu
  printf '%s\n' "${COMPREPLY[@]}"
}

options=$("$program" --help | grep -oE '^ +(-., )?--[a-z-]+' | grep -oE -- '--[a-z-]+')
[ "$(wc -l <<<"$options")" -ge 15 ]
for option in $options; do
  complete_line "$program" "$option" | grep -qxF -- "$option" || {
    echo "$option is not completed"
    exit 1
  }
  grep -qF -- "${option//-/\\-}" "$manual" || {
    echo "$option is not in the manual"
    exit 1
  }
done
complete_line "$program" --strength g | grep -qx gentle
