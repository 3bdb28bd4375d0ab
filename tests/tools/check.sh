# fatread must find a good volume good, and say so of nothing else: the demo is worth no more than that. The sizes of the
# files go through every case of the padding of SHA-256, whose twin here is sha256sum.
#   check.sh FATREAD
set -euo pipefail
fatread=$1
export LC_ALL=C.UTF-8 MTOOLSRC=/dev/null MTOOLS_SKIP_CHECK=1

fail() {
  echo "FAILED: $*"
  cat verify.log
  exit 1
}

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"

mkdir -p "tree/Top/A directory" tree/Top/empty
for size in 0 1 54 55 56 57 63 64 65 119 120 127 128 129 4096 300000; do
  seq 1 100000 | head -c "$size" >"tree/Top/$size bytes.txt" || true # seq may not live to write all of its lines
done
echo "short name, stored in upper case" >tree/Top/short.txt
echo "Unicode" >'tree/Top/A directory/Имя файла 名前.txt'
echo "root" >'tree/In the root.txt'
(
  cd tree
  find . -mindepth 1 -type d -printf 'directory  %P\n'
  find . -type f -printf '%P\0' | xargs -0 sha256sum --
) >manifest
files=$(find tree -type f | wc -l)
bytes=$(find tree -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum }')

make_image() {
  rm -f "$1"
  mkfs.fat -C "$1" 2880 >mkfs.log
  mcopy -s -Q -i "$1" tree/* ::/
}
# expect STATUS TEXT IMAGE MANIFEST: the exit status, and a line of the output
expect() {
  local status=0
  "$fatread" verify "$3" "$4" totals >verify.log 2>&1 || status=$?
  [ "$status" = "$1" ] || fail "exit status $status, not $1, where the output should hold: $2"
  grep -qF -- "$2" verify.log || fail "the output lacks: $2"
}

make_image good.img
expect 0 "$files files in 3 directories, $bytes bytes: read, and equal to their source" good.img manifest
[ "$(cat totals)" = "$files $bytes" ] || fail "totals are $(cat totals), not $files $bytes"
grep -qx '       <DIR>  A directory' verify.log || fail "a directory is not listed"
grep -qx '      300000  300000 bytes.txt' verify.log || fail "a file is not listed with its size"
"$fatread" list good.img 'Top\A directory' | grep -qF 'Имя файла 名前.txt' || fail "list shows no name"

sed 's/^.\(.*  Top\/65 bytes.txt\)/0\1/' manifest >changed
cmp -s manifest changed && fail "the manifest was not changed"
expect 1 "65 bytes.txt  DIFFERS FROM THE SOURCE" good.img changed

make_image changed.img
printf 'X' | mcopy -o -i changed.img - '::/Top/A directory/Имя файла 名前.txt'
expect 1 "Имя файла 名前.txt  DIFFERS FROM THE SOURCE" changed.img manifest

make_image lacking.img
mdel -i lacking.img '::/Top/57 bytes.txt'
expect 1 "MISSING on the volume: Top/57 bytes.txt" lacking.img manifest

make_image lacking-root.img
mdel -i lacking-root.img '::/In the root.txt'
expect 1 "In the root.txt  CANNOT BE READ" lacking-root.img manifest

make_image more.img
mmd -i more.img '::/Top/empty/One more'
expect 1 "One more  NOT IN THE SOURCE" more.img manifest

make_image other-case.img
mdel -i other-case.img '::/Top/64 bytes.txt'
mcopy -i other-case.img 'tree/Top/64 bytes.txt' '::/Top/64 BYTES.txt'
expect 1 "64 BYTES.txt  NOT IN THE SOURCE" other-case.img manifest

head -c 100000 /dev/zero >nothing.img
expect 2 "cannot mount nothing.img" nothing.img manifest
echo "text" >README
expect 2 "README is no manifest" good.img README
echo "fatread tells good volumes from bad ones"
