# Compares the symbols that a shared library shows with a list of them, one demangled name a line, sorted bytewise. Each of
# them must have the version that hosts are linked to.
#   check.sh NM LIBRARY LIST VERSION
set -euo pipefail
export LC_ALL=C
nm=$1 library=$2 list=$3 version=$4

mkdir -p "$CTEST_WORK"
# The version is listed as a symbol too, an absolute one.
"$nm" --dynamic --defined-only --demangle "$library" | grep -v " A $version\$" | sed -E 's/^[0-9a-f]* +[A-Za-z] //' |
  sort >"$CTEST_WORK/versioned.txt"
if grep -v "@@$version\$" "$CTEST_WORK/versioned.txt"; then
  echo "These symbols do not have the version $version."
  exit 1
fi
sed "s/@@$version\$//" "$CTEST_WORK/versioned.txt" >"$CTEST_WORK/symbols.txt"
if ! diff -u --label "listed in $list" --label "exported by $library" "$list" "$CTEST_WORK/symbols.txt"; then
  echo "The exported symbols differ from the list (- is missing in the library, + is not listed)."
  exit 1
fi
echo "$(wc -l <"$list") exported symbols, as listed, all of version $version"
