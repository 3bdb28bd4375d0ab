# Completion of fatmount for bash.

_fatmount() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} before=''
  if [ "$previous" = -o ]; then
    # Several are joined by commas; the last one is completed.
    [[ $current != *,* ]] || before=${current%,*},
    mapfile -t COMPREPLY < <(compgen -P "$before" -W 'ro sync uid= gid= umask= offset= allow_other' -- "${current##*,}")
    [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *= ]] || compopt -o nospace 2>/dev/null # the value follows
    return
  fi
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '-h --help -V --version -f -d --json-stats -o' -- "$current") ;;
    *) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}
complete -o filenames -F _fatmount fatmount
