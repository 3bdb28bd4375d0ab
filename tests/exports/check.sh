# Compares the symbols that a shared library shows with a list of them, one demangled name a line, sorted bytewise.
#   check.sh NM LIBRARY LIST
set -euo pipefail
export LC_ALL=C
nm=$1 library=$2 list=$3

mkdir -p "$CTEST_WORK"
"$nm" --dynamic --defined-only --demangle "$library" | sed -E 's/^[0-9a-f]* +[A-Za-z] //' | sort >"$CTEST_WORK/symbols.txt"
if ! diff -u --label "listed in $list" --label "exported by $library" "$list" "$CTEST_WORK/symbols.txt"; then
  echo "The exported symbols differ from the list (- is missing in the library, + is not listed)."
  exit 1
fi
echo "$(wc -l <"$list") exported symbols, as listed"
