# The scenes: real programs at work in a mounted volume. Each is declared with the types of volume it takes in the long and in the
# short form, its bounds of time in seconds, short and long, and the programs that it is about. To be sourced; in force are -e, -u
# and pipefail, and these are set: folder, where the volume is; type; sources, a tree of files to copy; repository, of git;
# fatexercise, the program; work, a directory of its own; soak, extra seconds to work. A function pick chooses between short and
# long. Whatever a scene leaves is read back by others.
# shellcheck shell=bash disable=SC2154,SC2164

# Fails when the program's output has such a line; shows it.
refuse_in() { # PATTERN FILE
  ! grep -m 10 -iE "$1" "$2"
}

same_tree() { diff -r "$1" "$2" || fail "$2 is not $1"; }

# ------------------------------------------------------------------------------------------------- data, with its checksums

verify_with_fio() { # ENGINE ARGUMENT...
  fio --directory="$folder" --aux-path="$work" --ioengine="$1" --verify=crc32c --verify_fatal=1 --do_verify=1 --randrepeat=0 --group_reporting \
    --eta=never --size="$(pick 8M 24M)" "${@:2}" >"$work/fio" 2>&1 || { cat "$work/fio" && return 1; }
  refuse_in 'verify: bad|error=|err=[ ]*[1-9]' "$work/fio"
  grep -E '^ *(READ|WRITE):' "$work/fio"
}

scene fio-psync "fat12 fat16 fat32 fat32-small" "fat32" 40 300 "fio"
scene_fio-psync() {
  # Of smaller volumes less.
  local less=()
  [ "$type" != fat32-small ] || less=(--size=4M)
  [ "$type" != fat12 ] || less=(--size=8M)
  verify_with_fio psync --name=sequential --rw=write --bs=64k --numjobs=2 "${less[@]}"
  verify_with_fio psync --name=random --rw=randwrite --bsrange=512-64k --fsync=64 --numjobs=2 "${less[@]}"
  verify_with_fio psync --name=mixed --rw=randrw --bs=4k --fallocate=none --verify_backlog=256 "${less[@]}"
}

scene fio-mmap "fat12 fat16 fat32" "fat16" 40 300 "fio"
scene_fio-mmap() {
  verify_with_fio mmap --name=sequential --rw=write --bs=64k --numjobs=2
  verify_with_fio mmap --name=random --rw=randwrite --bs=4k --numjobs=2
}

# ------------------------------------------------------------------------------------------------------- measuring programs

scene bonnie "fat16 fat32" "fat32" 60 300 "bonnie++"
scene_bonnie() {
  local less=()
  [ "$SHORT" = 0 ] || less=(-f) # no transfers of single bytes, of which each is a call
  mkdir "$folder/bonnie" # the root of FAT16 has a fixed size
  bonnie++ -q -d "$folder/bonnie" -u "$(id -un)" -r "$(pick 8 32)" -s "$(pick 16 64)" -n "$(pick 1 4):4096:16:4" -m fatmount "${less[@]}" \
    2>"$work/bonnie" || { cat "$work/bonnie" && return 1; }
  refuse_in "can't|error|fail" "$work/bonnie"
}

scene fs_mark "fat12 fat16 fat32" "fat32" 30 300 "fs_mark"
scene_fs_mark() {
  local method
  cd "$folder" # it takes short paths only
  for method in $(pick "1" "0 1 2 3 4 5"); do # ways of fsync, before and after closing
    mkdir "$method"
    fs_mark -d "$method" -n "$(pick 200 250)" -s 8000 -t 2 -S "$method" -k -l ../fs_mark.log >../fs_mark 2>&1 ||
      { cat ../fs_mark && return 1; }
    tail -n 1 ../fs_mark
  done
  cd /
}

scene postmark "fat12 fat16 fat32" "fat16" 30 300 "postmark"
scene_postmark() {
  mkdir "$folder/postmark"
  postmark >"$work/postmark" 2>&1 <<END
set location $folder/postmark
set number $(pick 300 1000)
set transactions $(pick 1000 20000)
set size 500 15000
set subdirectories 10
set bias create 6
run
quit
END
  refuse_in error "$work/postmark"
  grep -E 'transactions? \(|seconds of transactions' "$work/postmark"
}

scene dbench "fat12 fat16 fat32" "fat32" 40 300 "dbench"
scene_dbench() {
  local script
  script=$(dpkg -L dbench | grep -m1 '/client.txt$')
  dbench -D "$folder" -c "$script" -t "$(pick 8 60)" "$(pick 2 3)" >"$work/dbench" 2>&1 || { cat "$work/dbench" && return 1; }
  # Its processes can start together without a semaphore, too.
  sed -i '/barrier semaphore/d' "$work/dbench"
  refuse_in 'failed|error|expected' "$work/dbench"
  grep Throughput "$work/dbench"
}

# ------------------------------------------------------------------------------------------------ programs of everyday work

scene git "fat12 fat16 fat32" "fat32" 60 300 "git"
scene_git() {
  git clone -q --no-local "$repository" "$folder/clone"
  cd "$folder/clone"
  [ -z "$(git status --porcelain)" ] || fail "git sees changes in a fresh clone: $(git status --porcelain | head -n 5)"
  local n
  for ((n = 0; n < $(pick 3 20); ++n)); do
    echo "$n" >>README.md
    mkdir -p "new $n"
    cp LICENSE "new $n/A file $n.text"
    [ "$n" = 0 ] || git mv "new $((n - 1))/A file $((n - 1)).text" "new $((n - 1))/a FILE.text"
    git add -A
    git commit -q -m "Change $n"
  done
  git gc -q --aggressive --prune=now
  git fsck --full --strict --no-progress
  git checkout -q HEAD~2
  git checkout -q -
  [ -z "$(git status --porcelain)" ] || fail "git sees changes after all is committed"
  git clone -q "$folder/clone" "$work/back"
  [ "$(git rev-parse HEAD)" = "$(git -C "$work/back" rev-parse HEAD)" ] || fail "the clone of the clone is another one"
  git -C "$work/back" fsck --full --no-progress
  cd /
}

scene rsync "fat12 fat16 fat32" "fat16" 30 200 "rsync"
scene_rsync() {
  rsync -rt "$sources/" "$folder/tree/"
  local again
  again=$(rsync -rti --modify-window=2 "$sources/" "$folder/tree/")
  [ -z "$again" ] || fail "a second run transfers: $(head -n 5 <<<"$again")"
  again=$(rsync -rti --checksum --modify-window=2 "$sources/" "$folder/tree/")
  [ -z "$again" ] || fail "a run by checksums transfers: $(head -n 5 <<<"$again")"
  rsync -rt --checksum "$folder/tree/" "$work/back/"
  again=$(rsync -rtin --checksum --modify-window=2 --delete "$sources/" "$work/back/")
  [ -z "$again" ] || fail "what came back differs: $(head -n 5 <<<"$again")"
  # Parts of files that are there already, in place and by temporary names.
  find "$sources" -type f -size +8k | awk 'NR <= 40' | while IFS= read -r file; do
    printf 'changed' | dd of="$folder/tree/${file#"$sources"/}" bs=1 seek=5000 conv=notrunc status=none
  done
  rsync -rt --checksum --inplace --no-whole-file "$sources/" "$folder/tree/"
  rsync -rt --delete "$sources/docs/" "$folder/tree/"
  same_tree "$sources/docs" "$folder/tree"
}

# Without owners and modes, which FAT does not have; and one file has a time to come.
PLAIN_FILES=(--no-same-owner --no-same-permissions --warning=no-timestamp)

scene tar "fat12 fat16 fat32" "fat16" 30 200 "tar"
scene_tar() {
  mkdir "$folder/tree"
  tar -C "$sources" -cf - . | tar -C "$folder/tree" "${PLAIN_FILES[@]}" -xf -
  same_tree "$sources" "$folder/tree"
  tar -C "$folder/tree" -cf "$folder/archive.tar" .
  mkdir "$work/back"
  tar -C "$work/back" "${PLAIN_FILES[@]}" -xf "$folder/archive.tar"
  same_tree "$sources" "$work/back"
  # Once more over what is there.
  tar -C "$folder/tree" "${PLAIN_FILES[@]}" --overwrite -xf "$folder/archive.tar"
  same_tree "$sources" "$folder/tree"
}

scene zip "fat12 fat16 fat32" "fat12" 30 200 "zip unzip"
scene_zip() {
  (cd "$sources" && zip -q -r "$folder/archive.zip" .)
  unzip -tq "$folder/archive.zip"
  unzip -q "$folder/archive.zip" -d "$folder/tree"
  same_tree "$sources" "$folder/tree"
  (cd "$folder/tree" && zip -q -r ../again.zip . && zip -q -d ../again.zip 'docs/*')
  unzip -tq "$folder/again.zip"
  rm -rf "${folder:?}/tree/docs"
}

sqlite_work() { # DATABASE MODE
  local n
  {
    echo "PRAGMA journal_mode=$2; CREATE TABLE t(id INTEGER PRIMARY KEY, a TEXT, b BLOB); CREATE INDEX i ON t(a);"
    for ((n = 0; n < $(pick 100 2000); ++n)); do
      echo "BEGIN; INSERT INTO t(a, b) VALUES('row $n', randomblob($((n % 50 * 100)))); UPDATE t SET a = a || '+' WHERE id % 7 = $((n % 7)) AND id > $n - 20; COMMIT;"
      [ $((n % 25)) != 24 ] || echo "BEGIN; DELETE FROM t WHERE id % 3 = 0; ROLLBACK; DELETE FROM t WHERE id = $n - 3;"
    done
    echo "VACUUM;"
  } | sqlite3 -bail "$1"
  [ "$(sqlite3 "$1" 'PRAGMA integrity_check')" = ok ] || fail "sqlite3 finds its database in $2 mode damaged"
  [ "$(sqlite3 "$1" 'SELECT count(*) FROM t')" = "$(pick 96 1920)" ] || fail "rows are missing in $2 mode"
}

scene sqlite "fat12 fat16 fat32" "fat32" 40 300 "sqlite3"
scene_sqlite() {
  sqlite_work "$folder/Deleted Journal.sqlite" delete
  sqlite_work "$folder/Write Ahead Log.sqlite" wal
  # Two at a time, in turns.
  sqlite3 "$folder/Write Ahead Log.sqlite" 'PRAGMA busy_timeout=20000; CREATE TABLE u(n)' >"$work/first"
  local n
  for n in 1 2; do
    {
      echo 'PRAGMA busy_timeout=20000;'
      seq -f 'INSERT INTO u VALUES(%g);' "$(pick 40 400)"
    } | sqlite3 -bail "$folder/Write Ahead Log.sqlite" >"$work/writer $n" &
    writers[n]=$!
  done
  wait "${writers[1]}" && wait "${writers[2]}"
  [ "$(sqlite3 "$folder/Write Ahead Log.sqlite" 'SELECT count(*) FROM u')" = "$(pick 80 800)" ] || fail "rows of two writers are missing"
}

# ---------------------------------------------------------------------------------------------------- the random exerciser

scene fatexercise "fat12 fat16 fat32 fat12-small fat16-small fat32-small" "fat12 fat16-small fat32" 40 200 "fatexercise"
scene_fatexercise() {
  local bytes=8388608 how=()
  [ "$on" = fatmount ] || how=(--ordinary)
  if [ "$type" = fat12-small ]; then # its root directory is small
    bytes=4000000
    how+=(--full)
  fi
  if [ "$soak" -gt 0 ]; then
    "$fatexercise" "$folder" --seconds "$soak" --max-bytes "$bytes" "${how[@]}"
    return
  fi
  "$fatexercise" "$folder" --seconds "$(pick 2 20)" --max-bytes "$bytes" "${how[@]}"
  find "$folder" -mindepth 1 -delete
  mkdir "$folder/one" "$folder/two"
  "$fatexercise" "$folder/one" --seconds "$(pick 6 60)" --max-bytes $((bytes / 2)) --exact "${how[@]}" &
  local other=$!
  "$fatexercise" "$folder/two" --seconds "$(pick 6 60)" --files 200 --max-bytes $((bytes / 2)) "${how[@]}"
  wait "$other"
  # It must notice when something is wrong.
  local fault
  for fault in byte size name time; do
    mkdir "$folder/planted $fault"
    if "$fatexercise" "$folder/planted $fault" --steps 2000 --max-bytes 500000 --plant "$fault" "${how[@]}" \
      >"$work/planted" 2>&1; then
      fail "fatexercise does not notice a planted fault: $fault"
    fi
    grep -q 'a fault is planted' "$work/planted" || { cat "$work/planted" && fail "fatexercise finds something without a planted fault"; }
    rm -rf "$folder/planted $fault"
  done
}

# ------------------------------------------------------------------------------------------------------ at the limits

# The free bytes of the volume.
free_bytes() { stat -f -c '%a %S' "$folder" | { read -r blocks size && echo $((blocks * size)); }; }

scene full "fat12-small fat16-small fat32-small" "fat16-small" 60 300 "fatexercise tar"
scene_full() {
  [ "$on" = fatmount ] || return 0 # elsewhere it would fill the machine
  mkdir "$folder/one"
  head -c $(($(free_bytes) - (2 << 20))) /dev/zero >"$folder/ballast"
  "$fatexercise" "$folder/one" --full --seconds "$(pick 8 100)" --max-bytes 4194304
  rm -rf "$folder/one"
  # More than fits: tar goes on with the next file after each that finds no room, also below directories that found none; what it
  # could write is right.
  local before after
  before=$(free_bytes)
  mkdir "$folder/tree"
  if tar -C "$sources" -cf - . | tar -C "$folder/tree" "${PLAIN_FILES[@]}" -xf - 2>"$work/tar"; then
    fail "everything found room"
  fi
  if grep -vE 'No space left on device|Cannot (open|mkdir): No such file|Wrote only [0-9]+ of|Exiting with failure status' "$work/tar"; then fail "tar failed for another reason"; fi
  local file whole=0
  while IFS= read -r file; do
    cmp -s -n "$(stat -c %s "$folder/tree/$file")" "$sources/$file" "$folder/tree/$file" || fail "$file is not what was written"
    whole=$((whole + 1))
  done < <(cd "$folder/tree" && find . -type f)
  echo "$whole files found room"
  rm -rf "$folder/tree"
  sync -f "$folder"
  after=$(free_bytes)
  [ "$before" = "$after" ] || fail "of $before free bytes $after are free again"
  mkdir "$folder/tree"
  cp "$sources/LICENSE" "$folder/tree"
}

scene many-names "fat16 fat32" "fat32" 60 600 "touch, find, mv, rm"
scene_many-names() {
  local count n other=entry
  [ "$on" = fatmount ] || other=Entry
  count=$(pick 3000 30000)
  mkdir "$folder/many"
  cd "$folder/many"
  # Two slots each; FAT has 65,536 of them in a directory.
  seq -f 'Entry %05g' "$count" | xargs -d '\n' touch
  [ "$(find . -type f | wc -l)" = "$count" ] || fail "the listing has not $count names"
  [ "$(find . -type f -size 0 -newermt '2000-01-01' | wc -l)" = "$count" ] || fail "not every file can be looked at"
  for ((n = 7; n <= count; n += count / 100)); do
    mv "$(printf 'Entry %05d' "$n")" "$(printf 'ENTRY %05d' "$n")"
    mv "$(printf 'Entry %05d' $((n + 1)))" "$(printf 'Renamed %03d' $((n * 100 / count)))"
    echo "$n" >"$(printf "$other %05d" $((n + 2)))"
  done
  [ "$(find . -type f | wc -l)" = "$count" ] || fail "renaming has changed the number of names"
  seq -f 'Entry %05g' $((count / 2 + 10)) $((count - count / 10)) | xargs -d '\n' rm -f
  [ -e "$(printf 'ENTRY %05d' 7)" ] || fail "a renamed file is missing"
  mkdir ../again
  seq -f 'again %05g' $((count / 10)) | (cd ../again && xargs -d '\n' touch)
  rm -r ../again
  cd /
}
