# The version that CMakeLists.txt states is the newest one in the change log, and the manual pages tell no other.
#   version.sh VERSION CHANGE_LOG DIRECTORY_OF_THE_PAGES
set -euo pipefail
version=$1 log=$2 pages=$3

fail() {
  echo "FAILED: $*"
  exit 1
}

newest=$(sed -nE 's/^## ([0-9.]+).*/\1/p' "$log" | sed -n 1p)
[ "$newest" = "$version" ] || fail "the newest version in $log is $newest, not $version"
grep -qx "\.Os fatlib $version" "$pages/fatlib.3" || fail "fatlib.3 does not tell the version $version"
for page in "$pages"/*.[1-9]; do
  for told in $(grep -E '^\.(Os|TH)' "$page" | grep -oE '[0-9]+\.[0-9]+\.[0-9]+'); do
    [ "$told" = "$version" ] || fail "$page tells the version $told, not $version"
  done
done
