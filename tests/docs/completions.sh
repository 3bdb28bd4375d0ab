# The completions of the programs do their work in a bash, in a fish and in a zsh; what fatimg offers in a bash its own
# tests compare with its verbs and options.
#   completions.sh DIRECTORY_OF_THE_PROGRAMS
set -euo pipefail
tools=$1
export LC_ALL=C.UTF-8 TERM=dumb

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"
HOME=$PWD
export HOME

# expect SHELL TYPED WANTED GIVEN
expect() {
  [ "$3" = "$4" ] && return
  echo "FAILED: $1 makes of «$2»: $4"
  exit 1
}

# What bash offers for the last of the words.
reply() { # PROGRAM WORD...
  bash -c 'source "$1/$2/completions/$2.bash"; COMP_WORDS=("${@:2}") COMP_CWORD=$(($# - 2)); "_$2"; echo "${COMPREPLY[*]}"' \
    - "$tools" "$@"
}
expect bash 'fatmount --' '--help --version --json-stats' "$(reply fatmount --)"
expect bash 'fatmount -o s' 'sync' "$(reply fatmount -o s)"
expect bash 'fatmount -o ro,u' 'ro,uid= ro,umask=' "$(reply fatmount -o ro,u)"

# What fish offers, without the descriptions.
offer() { fish -c "source '$tools/${1%% *}/completions/${1%% *}.fish'; complete -C '$1'" | cut -f1 | sort | tr '\n' ' '; }
expect fish 'fatimg ch' 'check ' "$(offer 'fatimg ch')"
expect fish 'fatimg ls --re' '--recursive --reproducible ' "$(offer 'fatimg ls --re')"
expect fish 'fatimg --progress ' 'auto bar json none plain ' "$(offer 'fatimg --progress ')"
expect fish 'fatmount --js' '--json-stats ' "$(offer 'fatmount --js')"
expect fish 'fatmount -o ro,u' 'ro,uid= ro,umask= ' "$(offer 'fatmount -o ro,u')"

# The line that zsh makes of what was typed and a tab. It works only on a terminal; zpty is one.
cat >line.zsh <<'END'
zmodload zsh/zpty
zpty shell zsh -f -i
say() { zpty -w shell "$1"; }
await() {
  local text=''
  while zpty -r shell piece; do
    text+=$piece
    [[ $text == *"$1"* ]] && break
  done
  REPLY=$text
}
say "PS1= PROMPT_EOL_MARK= fpath=($1/fatimg/completions $1/fatmount/completions \$fpath); autoload -U compinit; compinit -u -D; setopt no_list_beep no_beep; print ready''now"
await readynow
# A tab, then the line is shown instead of run.
zpty -w -n shell "$2"$'\t\C-aprint -r -- MADE:"\C-e:DONE"\n'
await :DONE$'\r'
print -r -- "${${REPLY##*$'\n'MADE:}%%:DONE*}"
END
complete() { timeout 60 zsh -f line.zsh "$tools" "$1" | tail -n1; }
expect zsh 'fatimg che' 'fatimg check' "$(complete 'fatimg che')"
expect zsh 'fatimg put --no-c' 'fatimg put --no-clobber' "$(complete 'fatimg put --no-c')"
expect zsh 'fatimg format --vol' 'fatimg format --volume-id' "$(complete 'fatimg format --vol')"
expect zsh 'fatmount --json' 'fatmount --json-stats' "$(complete 'fatmount --json')"
expect zsh 'fatmount -o off' 'fatmount -o offset=' "$(complete 'fatmount -o off')"
