# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# corvane-cs.bash: bash completes the options of corvane-cs. No word follows an option that ends the program.

_corvane_cs() {
  local word
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      --pid | --stop) return ;;
    esac
  done
  mapfile -t COMPREPLY < <(
    compgen -W '--start --stop --pid --enable --disable --purge --verbose' -- "${COMP_WORDS[COMP_CWORD]}"
  )
}

complete -F _corvane_cs corvane-cs
