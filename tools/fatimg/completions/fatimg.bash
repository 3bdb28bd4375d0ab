# Completion of fatimg for bash.

_fatimg() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' options='' word
  local verbs='info ls tree stat find du df cat map check verify format put get cp mv mkdir rm touch truncate attr label run'
  local common='--json --force --no-glob --dry-run --reproducible --progress -v --verbose -q --quiet --help'
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case " $verbs " in *" $word "*) verb=$word && break ;; esac
  done
  case $previous in
    --progress) options='auto bar plain json none' ;;
  esac
  if [ -n "$options" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  case $verb in
    info) options='--partitions' ;;
    ls) options='-l -R --recursive -1 -a --all -d --directory --raw-order --short-names' ;;
    tree) options='-a --all -d --directories -L --level --raw-order' ;;
    find) options='--name --type --size --newer --older -0 --print0 --raw-order' ;;
    du) options='-a --all -b --apparent-size -h --human -s --summary' ;;
    df) options='-h --human' ;;
    verify) options='--exclude --times' ;;
    format) options='-F --fat --size --cluster --sector --align --label --volume-id' ;;
    put) options='-r --recursive -t --times -n --no-clobber --exclude --no-follow' ;;
    get) options='-r --recursive -t --times -n --no-clobber --exclude' ;;
    cp) options='-r --recursive -t --times -n --no-clobber --exclude' ;;
    mv) options='-n --no-clobber' ;;
    mkdir) options='-p --parents' ;;
    rm) options='-r --recursive' ;;
    touch) options='-d --date -r --reference -c --no-create' ;;
    truncate) options='-s --size -c --no-create' ;;
    attr) options='-r -h -s -a' ;;
    label) options='--remove' ;;
  esac
  if [ -z "$verb" ]; then
    case $current in
      -*) options="$common --version" ;;
      *) options=$verbs ;;
    esac
  else
    case $current in
      -*) options="$options $common" ;;
      *)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}
complete -o filenames -F _fatimg fatimg
