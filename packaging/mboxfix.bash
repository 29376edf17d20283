# bash completion for mboxfix and mboxfixctl

_mboxfix() {
  local words=''
  case $COMP_CWORD in
    1) words='--with-spam --without-spam --spam-only -v' ;;
    2) words='--daemon-mode' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _mboxfix mboxfix

_mboxfixctl() {
  local words='' modes='--with-spam --without-spam --spam-only --quiet'
  if ((COMP_CWORD == 1)); then
    words='check preview apply restore --help --version'
  else
    case ${COMP_WORDS[1]} in
      check) words=$modes ;;
      preview) words="$modes --summary" ;;
      apply) words="$modes --yes" ;;
      restore) words="--list --quiet $("$1" restore --list 2>/dev/null)" ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _mboxfixctl mboxfixctl
