# bash completion for mboxfix and mboxfix-preview

_mboxfix() {
  local words=''
  case $COMP_CWORD in
    1) words='--with-spam --without-spam --spam-only -v' ;;
    2) [[ $1 == *-preview ]] || words='--daemon-mode' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _mboxfix mboxfix mboxfix-preview
