# SPDX-License-Identifier: Apache-2.0

# Completion of stabilize-video for bash. The options come from the program's own help.

_stabilize_video() {
  # shellcheck disable=SC2034
  local cur prev words cword split
  _init_completion -s || return

  case $prev in
    --strength)
      mapfile -t COMPREPLY < <(compgen -W 'gentle standard strong maximum' -- "$cur")
      return
      ;;
    --sampling)
      mapfile -t COMPREPLY < <(compgen -W 'stated bilinear sharp' -- "$cur")
      return
      ;;
    --engine)
      mapfile -t COMPREPLY < <(compgen -W 'native auto opencl' -- "$cur")
      return
      ;;
    --preset)
      mapfile -t COMPREPLY < <(compgen -W 'ultrafast superfast veryfast faster fast medium slow
        slower veryslow' -- "$cur")
      return
      ;;
    --codec)
      mapfile -t COMPREPLY < <(compgen -W 'h264 hevc vp9 av1 prores ffv1 mpeg4' -- "$cur")
      return
      ;;
    --interlaced)
      mapfile -t COMPREPLY < <(compgen -W 'full-rate keep-rate ignore' -- "$cur")
      return
      ;;
    --output-dir)
      _filedir -d
      return
      ;;
    --plot)
      _filedir '@(png|svg)'
      return
      ;;
    --crop)
      mapfile -t COMPREPLY < <(compgen -W 'auto' -- "$cur")
      return
      ;;
    --look-ahead | --crop-least | --crop-most | --threads | --crf | --jobs | --input-format | \
      --input-option | --output-format | --bitrate | --encoder-option | --stream | --start | \
      --duration)
      return
      ;;
  esac
  $split && return

  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_parse_help "$1")" -- "$cur")
  else
    _filedir
  fi
} &&
  complete -F _stabilize_video stabilize-video
