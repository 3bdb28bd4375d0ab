# Compiles every ```cpp block of the README and of the page for hosts as a file of its own, with the warnings on and fatal, and
# runs them: the first is a program that lists a directory, the other two are parts of a host that volume_in_image.cpp makes of
# them.
#   check.sh README PAGE_FOR_HOSTS INCLUDE_DIRECTORY LIBRARY_DIRECTORY
set -euo pipefail
readme=$1 page=$2 include=$3 library=$4
here=$(cd "$(dirname "$0")" && pwd)
export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8

fail() {
  echo "FAILED: $*"
  exit 1
}

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"

awk '/^```cpp$/ { inside = 1; ++n; next } /^```$/ { inside = 0 } inside { print > ("block" n ".cpp") }' "$readme" "$page"
[ "$(ls)" = $'block1.cpp\nblock2.cpp\nblock3.cpp' ] || fail "expected three cpp blocks in $readme and $page, found: $(ls)"
# shellcheck disable=SC2086  # a list of options
compile() {
  "$CXX" -std=c++17 -Wall -Wextra -Werror $HOST_FLAGS -I "$include" -I . "$@" -L "$library" -Wl,-rpath,"$library"
}
compile -c block2.cpp -o block2.o
compile -c block3.cpp -o block3.o
compile block1.cpp -o list -lfatlib
compile "$here/volume_in_image.cpp" -o volume_in_image -lfatlib

mkfs.fat -C volume.img 1440 >mkfs.log
seq 1 20000 >NOTES.TXT
printf 'x' >'Read me first.txt'
: >'Grüße.txt'
mmd -i volume.img ::/DOCS ::/DOCS/MORE
mcopy -i volume.img NOTES.TXT 'Read me first.txt' 'Grüße.txt' ::/DOCS
{
  head -c 1048576 /dev/zero
  cat volume.img
} >disk.img

./list volume.img DOCS | tee listing.txt
diff -u "$here/listing-expected.txt" listing.txt || fail "the listing differs"
# What the program answers when it cannot do its work is part of the example too.
for arguments in "volume.img NOTHING" "missing.img DOCS" "NOTES.TXT DOCS" ""; do
  # shellcheck disable=SC2086
  ! ./list $arguments || fail "no failure reported for the arguments '$arguments'"
done

./volume_in_image disk.img 1048576 'docs\notes.txt' >notes.out
cmp NOTES.TXT notes.out || fail "the file read through the storage back-end differs"
# Nothing before the volume is touched, and the volume is sound.
cmp -n 1048576 disk.img /dev/zero || fail "the storage back-end wrote before its volume"
tail -c +1048577 disk.img >volume-after.img
fsck.fat -n volume-after.img || fail "the volume is damaged after unmounting"
echo "all three programs compiled and did what they say"
