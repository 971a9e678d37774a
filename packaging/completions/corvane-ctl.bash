# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# corvane-ctl.bash: bash completes the words of corvane-ctl. It takes the actors from corvane-ctl, and offers
# the displays that have an X server or a station.

_corvane_ctl() {
  # shellcheck disable=SC2034  # _init_completion sets prev
  local cur prev words cword word offers="" after="" given=()
  _init_completion -n : || return
  for word in "${words[@]:1:cword-1}"; do
    if [[ $after ]]; then
      after=""
    elif [[ $word == --bus ]]; then
      after=bus
    elif [[ $word != -* ]]; then
      given+=("$word")
    fi
  done
  if [[ $after ]]; then
    return
  elif [[ $cur == -* ]]; then
    offers="--bus --help --json --no-wait --session --verbose --version"
  else
    case ${#given[@]}-${given[0]-} in
      0-) offers="actors start status stop watch" ;;
      1-start | 1-stop | 1-status | 1-watch)
        for word in /tmp/.X11-unix/X*; do
          # Every user can make files here, and compgen runs commands that are in its words.
          [[ ! -S $word || ${word##*/X} == *[!0-9]* ]] || offers+=" :${word##*/X}"
        done
        offers+=" $(corvane-ctl status 2>/dev/null | sed -n 's/^\(:[0-9]*\) .*/\1/p')"
        ;;
      2-start | 2-stop) offers=$(corvane-ctl actors | sed -n 's/^\([a-z][a-z-]*\) .*/\1/p') ;;
      3-start) offers="PCI USB COMMON" ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$offers" -- "$cur" | sort -u)
  __ltrim_colon_completions "$cur"
}

complete -F _corvane_ctl corvane-ctl
