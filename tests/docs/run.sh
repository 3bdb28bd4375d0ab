# Runs what the documents show, and follows their links. Of the blocks between ``` lines, by the word after the first ```:
#
#   console   commands after "$ ", continued on lines after "> ", each followed by what it prints; they are run one after the
#             other in an empty directory of the document's own, and must print just that
#   console-fuse   the same, where file systems can be mounted; elsewhere that is said, and they are left out
#   sh        commands of this tree: make with a target that there is, cmake and ctest with a preset, scripts that are there;
#             those that this test cannot run are looked up instead of run
#   cpp       compiled; a program whose first line is a comment with its name is there for the console blocks that follow
#   cmake     part of the project of a host, which is built against an installed fatlib
#   text      drawings: nothing to run
#
# Any other block is refused, so that nothing is shown that no test has seen.
#   run.sh ROOT BUILD_DIRECTORY PROGRAMS INCLUDE_DIRECTORY DOCUMENT...     PROGRAMS: the directories of the programs, with ":"
set -euo pipefail
root=$1 build=$2 programs=$3 include=$4
shift 4
export LC_ALL=C.UTF-8 TZ=UTC MTOOLSRC=/dev/null MTOOLS_SKIP_CHECK=1
PATH=$programs:$PATH

failures=0
report() { # what is wrong; the test goes on
  echo "FAILED: $*"
  failures=$((failures + 1))
}

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"

# ---------------------------------------------------------------------------------------------------------- the blocks

# run_console FILE WHERE: in the current directory
run_console() {
  local line command="" expected="" status
  flush() {
    [ -n "$command" ] || return 0
    status=0
    bash -euo pipefail -c "$command" </dev/null >.printed 2>&1 || status=$?
    if [ $status != 0 ]; then
      report "$2: exit status $status of: $command"
      cat .printed
    elif ! diff -u --label "$2 says" <(printf '%s' "$expected") --label "it prints" .printed; then
      report "$2: other output of: $command"
    fi
    command="" expected=""
  }
  while IFS= read -r line; do
    case $line in
      '$ '*)
        flush "$@"
        command=${line#'$ '}
        ;;
      '> '*) command+=$'\n'${line#'> '} ;;
      *) expected+=$line$'\n' ;;
    esac
  done <"$1"
  flush "$@"
  rm -f .printed
}

# Whatever happens, nothing stays mounted in the directory.
run_mounting() { # FILE WHERE
  if ! command -v fatmount >/dev/null || ! command -v fusermount3 >/dev/null || ! (exec 3<>/dev/fuse) 2>/dev/null; then
    echo "$2: left out: there is no fatmount, or nothing can be mounted here"
    return
  fi
  run_console "$@"
  local folder
  for folder in */; do
    ! mountpoint -q "$folder" || fusermount3 -uz "$folder"
  done
}

look_up_command() { # LINE WHERE
  local words name
  mapfile -t words < <(xargs -n1 printf '%s\n' <<<"${1%% #*}") # quoted words are taken for one, as a shell does
  case ${words[0]} in
    make) make -n -C "$root" "${words[@]:1}" >make.log 2>&1 || report "$2: $1: $(cat make.log)" ;;
    cmake | ctest)
      for name in "${words[@]}"; do
        [[ $name != --* ]] || continue
        [[ $name == "${words[0]}" ]] || grep -q "\"name\": \"$name\"" "$root/CMakePresets.json" ||
          report "$2: $1: there is no preset $name"
      done
      ;;
    git) [[ ${words[1]} == clone ]] || report "$2: $1: not looked at by any test" ;;
    scripts/* | .ci/*) bash -n "$root/${words[0]}" || report "$2: $1" ;;
    build/*/tests/fatlib_tests) ;; # made by `make test`
    build/*/fuzz/fuzz_*)           # made by `make fuzz`
      [ -e "$root/fuzz/${words[0]##*/}.cpp" ] || report "$2: $1: there is no such target"
      ;;
    g++) compile_host "$@" ;;
    *) report "$2: $1: not looked at by any test" ;;
  esac
}

compile() { # FILE WHERE
  # shellcheck disable=SC2086  # a list of options
  "$CXX" -std=c++17 -Wall -Wextra -Werror $HOST_FLAGS -I "$include" -c "$1" -o block.o || report "$2 does not compile"
  local name
  name=$(sed -nE '1s|^// ([a-z]+) .*|\1|p' "$1")
  [ -n "$name" ] || return 0
  # shellcheck disable=SC2086
  "$CXX" $HOST_FLAGS block.o -o "$name" -L "$build/host" -L "$build" -Wl,-rpath,"$build" -lfatlib-host -lfatlib ||
    report "$2 does not link"
}

install_fatlib() { # once, in installed
  [ -d "$CTEST_WORK/installed" ] || env -u DESTDIR "$CMAKE" --install "$build" --prefix "$CTEST_WORK/installed" >/dev/null
}

# The command line that compiles the first program of the document.
compile_host() { # LINE WHERE
  install_fatlib
  mkdir -p host
  cp "$(find "$folder/blocks" -name '*.cpp' | sort | head -n1)" host/list.cpp
  (
    cd host
    line=${1/g++/$CXX}
    PKG_CONFIG_PATH=$CTEST_WORK/installed/lib/pkgconfig bash -euo pipefail -c "${line/-m32/$HOST_FLAGS}"
  ) || report "$2: $1"
  rm -rf host
}

configure_host() { # FILE WHERE
  install_fatlib
  mkdir -p project
  echo 'int main() { return 0; }' >project/host.cpp
  {
    printf 'cmake_minimum_required(VERSION 3.21)\nproject(host LANGUAGES CXX)\nadd_executable(host host.cpp)\n'
    cat "$1"
  } >project/CMakeLists.txt
  {
    "$CMAKE" -G Ninja -S project -B project/build -DCMAKE_PREFIX_PATH="$CTEST_WORK/installed" \
      -DCMAKE_CXX_FLAGS="$HOST_FLAGS" && "$CMAKE" --build project/build
  } >cmake.log 2>&1 || report "$2: $(cat cmake.log)"
  rm -rf project
}

run_block() { # KIND FILE WHERE
  local line
  case $1 in
    console) run_console "$2" "$3" ;;
    console-fuse) run_mounting "$2" "$3" ;;
    sh)
      while IFS= read -r line; do
        case $line in '' | '#'* | ' '*) ;; *) look_up_command "$line" "$3" ;; esac
      done <"$2"
      ;;
    cpp) compile "$2" "$3" ;;
    cmake) configure_host "$2" "$3" ;;
    text) ;;
    *) report "$3: a block of the kind '$1'" ;;
  esac
}

# ----------------------------------------------------------------------------------------------------------- the links

# The anchor that a heading gets: lower case, without punctuation, "-" for spaces.
anchors() {
  awk '/^```/ { code = !code } !code && sub(/^#+ /, "") { print }' "$1" | tr '[:upper:]' '[:lower:]' |
    sed -E 's/[^[:alnum:] _-]//g; s/ /-/g'
}

check_links() { # DOCUMENT
  local link file anchor
  while IFS= read -r link; do
    [[ $link != http*://* ]] || continue
    file=${link%%#*} anchor=
    [[ $link != *'#'* ]] || anchor=${link#*#}
    [ -n "$file" ] && file=$(dirname "$1")/$file || file=$1
    if [ ! -e "$file" ]; then
      report "$1 leads to $link, which is not there"
    elif [ -n "$anchor" ] && ! anchors "$file" | grep -Fx -- "$anchor" >/dev/null; then
      report "$1 leads to $link, a heading that is not there"
    fi
  done < <(awk '/^```/ { code = !code } !code' "$1" | grep -oE '\]\([^)]+\)' | sed -E 's/^\]\((.*)\)$/\1/')
}

check_make_targets() { # DOCUMENT: `make something` in the text
  local target
  for target in $(awk '/^```/ { code = !code } !code' "$1" | grep -oE '`make [a-z]+' | sed 's/.* //' | sort -u); do
    grep -q "^$target:" "$root/Makefile" || report "$1: there is no make $target"
  done
}

blocks=0
for document; do
  name=${document#"$root"/}
  folder=$CTEST_WORK/${name//\//-}
  mkdir -p "$folder/blocks" "$folder/work"
  # One file for each block, named by the line that it begins on and its kind.
  awk -v folder="$folder/blocks" '
    /^```/ && !code { code = 1; kind = substr($0, 4); file = sprintf("%s/%05d.%s", folder, NR, kind); printf "" > file; next }
    /^```/ { code = 0; close(file); next }
    code { print > file }' "$document"
  for file in "$folder"/blocks/*; do
    [ -e "$file" ] || continue
    number=$(basename "${file%.*}")
    cd "$folder/work"
    run_block "${file##*.}" "$file" "$name:$((10#$number))"
    blocks=$((blocks + 1))
  done
  cd "$CTEST_WORK"
  awk '/^```/ { code = !code } !code && blank && /^    [^ ]/ { print FILENAME ":" NR ": " $0 } { blank = $0 == "" }' \
    "$document" >indented
  [ ! -s indented ] || report "indented as code, which nothing runs: $(cat indented)"
  check_links "$document"
  check_make_targets "$document"
done
[ "$failures" = 0 ] || exit 1
echo "$# documents, $blocks blocks: as they say"
