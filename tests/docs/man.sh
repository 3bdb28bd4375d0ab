# The manual pages are sound, that of the library names each function of the header with its parameters, and its example
# compiles and lists a directory.
#   man.sh DIRECTORY_OF_THE_PAGES INTERFACE_HEADER INCLUDE_DIRECTORY LIBRARY_DIRECTORY
set -euo pipefail
pages=$1 header=$2 include=$3 library=$4
export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8

fail() {
  echo "FAILED: $*"
  exit 1
}

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"

for page in "$pages"/*.[1-9]; do
  # Whether the pages that it refers to are installed here is not looked at.
  mandoc -T lint -W warning "$page" >lint 2>&1 || true
  grep -vE 'referenced manual not found|mandoc.db' lint >findings || true
  [ ! -s findings ] || fail "$(cat findings)"
done

# Both as "result name(type name, ...)", one a line.
awk '/^FATLIB_API/ { line = "" } /^FATLIB_API/, /;$/ { sub(/^ +/, " "); line = line $0; if (/;$/) print line }' "$header" |
  sed -E 's/^FATLIB_API //; s/([a-zA-Z])\* /\1 */g; s/;$//' | sort >declared
awk '/^\.Ft/ { sub(/^\.Ft "?/, ""); sub(/"$/, ""); type = $0 ~ /\*$/ ? $0 : $0 " " }
  /^\.Fn/ && type != "" { n = split($0, part, "\""); name = part[1]; sub(/^\.Fn /, "", name); sub(/ $/, "", name)
    list = ""; for (i = 2; i <= n; i += 2) list = list (i > 2 ? ", " : "") part[i]
    if (sub(/ void$/, "", name)) list = "void"
    print type name "(" list ")"; type = "" }' "$pages/fatlib.3" | sort >shown
[ "$(wc -l <declared)" = 26 ] || fail "found $(wc -l <declared) functions in $header"
diff -u declared shown || fail "the synopsis of fatlib.3 differs from the header"

sed -n '/^\.Bd/,/^\.Ed/p' "$pages/fatlib.3" | sed -e '/^\.Bd/d' -e '/^\.Ed/d' -e 's/\\e/\\/g' >list.cpp
# shellcheck disable=SC2086  # a list of options
"$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Werror $HOST_FLAGS -I "$include" list.cpp -o list -L "$library" \
  -Wl,-rpath,"$library" -lfatlib
mkfs.fat -C volume.img 1440 >mkfs.log
mmd -i volume.img ::/DOCS ::/DOCS/MORE
printf 'x' | mcopy -i volume.img - '::/DOCS/A long name.text'
./list volume.img DOCS >listing || fail "the example failed"
diff -u <(printf '.\n..\nMORE\nALONGN~1.TEX\n') listing || fail "the example listed something else"
! ./list volume.img NOTHING || fail "the example does not report a directory that is not there"
echo "$(ls "$pages"/*.[1-9] | wc -l) manual pages are sound"
