# One volume of the exercise: made by mkfs.fat, shown as a folder, and after the work judged by programs that share nothing with
# fatlib. To be sourced, with these set: work, a directory of its own; on, fatmount (or plain, or bindfs, to try a scene itself);
# fatmount, the program.
# shellcheck shell=bash disable=SC2154,SC2164

folder=$work/folder
image=$work/volume.img
pid=

fail() {
  echo "FAILED: $*"
  exit 1
}

# mkfs.fat's arguments and the size, by the type. The small ones have the smallest clusters that suit.
volume_make() { # TYPE
  local size
  case $1 in
    fat12) size=100M arguments=(-F 12 -s 64) ;;
    fat16) size=200M arguments=(-F 16 -s 8) ;;
    fat32) size=320M arguments=(-F 32 -s 8) ;;
    fat12-small) size=7M arguments=(-F 12 -s 4 -a -r 16) ;; # and a root directory that is soon full
    fat16-small) size=28M arguments=(-F 16 -s 1) ;;
    fat32-small) size=40M arguments=(-F 32 -s 1) ;;
    *) fail "there is no type $1" ;;
  esac
  rm -rf "$image"
  mkdir -p "$folder"
  [ "$on" = fatmount ] || return 0
  truncate -s "$size" "$image"
  mkfs.fat "${arguments[@]}" "$image" >/dev/null
}

volume_mount() { # OPTION-OF-FATMOUNT...
  case $on in
    plain) return 0 ;;
    bindfs)
      mkdir -p "$work/below"
      bindfs -f "$work/below" "$folder" &
      ;;
    *) "$fatmount" "$image" "$folder" -f "$@" & ;;
  esac
  pid=$!
  local tries
  for ((tries = 0; tries < 100; ++tries)); do
    mountpoint -q "$folder" && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  fail "the volume was not mounted"
}

# Something may still look at it for a moment.
unmount_patiently() {
  local tries
  for ((tries = 0; tries < 50; ++tries)); do
    fusermount3 -u "$folder" && return 0
    sleep 0.2
  done
  return 1
}

volume_unmount() {
  [ -n "$pid" ] || return 0
  unmount_patiently || fail "the volume cannot be unmounted"
  local status=0
  wait "$pid" || status=$?
  pid=
  [ "$status" = 0 ] || fail "fatmount ended with status $status"
}

# Ends it in the middle of everything. What works in it learns so, and ends too.
volume_kill() { # PROCESS-AT-WORK
  kill -KILL "$pid"
  wait "$pid" || true
  pid=
  wait "$1" || true
  unmount_patiently || fail "what is left of the mount cannot be removed"
}

# Leaves neither a mount nor a process behind, whatever has happened.
volume_abandon() {
  ! mountpoint -q "$folder" || fusermount3 -u -z "$folder" || true
  if [ -n "$pid" ]; then
    sleep 0.5
    ! kill -KILL "$pid" 2>/dev/null || echo "fatmount had to be killed"
  fi
}

# What a folder holds, one line each: directories; files with their time, size and SHA-256.
list_tree() { # FOLDER
  (
    cd "$1"
    find . -mindepth 1 -type d -printf 'directory  %P\n'
    find . -type f -printf '%T@ %s  %P\n' | sed 's/^\([0-9]*\)[.0-9]*/time \1 size/'
    find . -type f -printf '%P\0' | xargs -0 -r sha256sum --
  ) | sort
}

judge_reader() { # READER FOLDER
  list_tree "$2" >"$work/read"
  rm -rf "$2"
  cmp -s "$work/left" "$work/read" && return 0
  diff "$work/left" "$work/read" | head -n 20 || true
  fail "$1 reads another tree than the scene left"
}

# fsck.fat finds nothing, and as many clusters in use as the mounted volume said.
judge_fsck() {
  fsck.fat -n "$image" >"$work/fsck" 2>&1 || { cat "$work/fsck" && fail "fsck.fat finds something"; }
  if grep -vE '^fsck\.fat [0-9]|^$|: [0-9]+ files, [0-9]+/[0-9]+ clusters$' "$work/fsck"; then
    fail "fsck.fat finds something"
  fi
  local counted
  counted=$(sed -nE 's|.*files, ([0-9]+/[0-9]+) clusters$|\1|p' "$work/fsck")
  [ "$counted" = "$space" ] || fail "of the clusters $space were in use by statfs, but $counted by fsck.fat"
}

# What the image holds by the independent readers, against $work/left and $space.
judge_image() {
  judge_fsck
  rm -rf "$work/mtools" "$work/7zip"
  mkdir "$work/mtools" "$work/7zip"
  [ ! -s "$work/left" ] || mcopy -s -m -Q -n -i "$image" '::/*' "$work/mtools" || fail "mtools cannot read everything"
  judge_reader mtools "$work/mtools"
  [ ! -s "$work/left" ] || 7z x -tFAT -bso0 -bsp0 -o"$work/7zip" "$image" || fail "7-Zip cannot read everything"
  judge_reader 7-Zip "$work/7zip"
}

# What the scene leaves, by the mounted volume, which is then unmounted: the tree, and the clusters in use.
volume_leave() {
  list_tree "$folder" >"$work/left"
  [ "$on" = fatmount ] || return 0
  local total free
  read -r total free <<<"$(stat -f -c '%b %f' "$folder")"
  space=$((total - free))/$total
  volume_unmount
}

# The end of a scene: what it left is what others read.
volume_judge() {
  volume_leave
  [ "$on" != fatmount ] || judge_image
}
