# Scenes in which the program that serves the volume is killed in the middle of work: what was synchronised before and not
# touched since is whole, fsck.fat finds only what a cut may leave, and repairs it, and the volume mounts again. To be sourced.
# shellcheck shell=bash disable=SC2154

# What fsck.fat may say after a cut, besides what it says of every volume: differing FATs; clusters that nothing reaches; a
# chain that is longer than the size; parts of a long name; FSInfo's count, which is only a hint; the mark of a volume in use.
CUT_ALLOWED='^fsck\.fat [0-9]|^$|: [0-9]+ files, [0-9]+/[0-9]+ clusters$'
CUT_ALLOWED+='|^FATs differ|^ *Using first FAT|^Reclaimed [0-9]+ unused cluster|^Leaving filesystem unchanged'
CUT_ALLOWED+='|^/|^ +File size is [0-9]+ bytes, cluster chain length is > [0-9]+ bytes\.|^ +Truncating file to [0-9]+ bytes'
CUT_ALLOWED+='|[Oo]rphaned long file name part|^Free cluster summary (wrong|uninitialized)|^ *Auto-(setting|deleting|correcting)'
CUT_ALLOWED+='|^Dirty bit is set|^ *Automatically removing dirty bit|^[0-9]+\) '

judge_cut() {
  fsck.fat -n "$image" >"$work/fsck" 2>&1 || true
  cat "$work/fsck"
  if grep -vE "$CUT_ALLOWED" "$work/fsck" >"$work/refused"; then
    cat "$work/refused"
    fail "fsck.fat finds what a cut must not leave"
  fi
}

# What was synchronised, and the file that was flushed alone, last.
judge_kept() {
  cmp "$sources/README.md" "$folder/kept/flushed" || fail "what was flushed is lost"
  diff -r -x flushed "$sources/docs" "$folder/kept" || fail "what nobody touched was harmed"
}

# What is left after a cut, before and after the repair.
judge_after_cut() {
  judge_cut
  volume_mount
  judge_kept
  find "$folder" -type f -exec cat {} + >/dev/null || fail "a file cannot be read after the cut"
  volume_unmount
  fsck.fat -a "$image" || true
  fsck.fat -n "$image" || fail "the volume was not repaired"
  volume_mount
  judge_kept
  echo again >"$folder/kept/again"
  volume_unmount
  fsck.fat -n "$image" || fail "the repaired volume does not stay so"
}

# Kills it while WORK is running in the folder. Now and then the volume is synchronised meanwhile, as the system does.
round_of_kill() { # ROUND WORK...
  local round=$1 worker
  volume_make "$type"
  volume_mount
  cp -r "$sources/docs" "$folder/kept"
  mkdir "$folder/work"
  sync -f "$folder"
  (cd / && exec "${@:2}") >"$work/worker" 2>&1 &
  worker=$!
  sleep "$((1 + round % 3)).$((round * 37 % 10))"
  if [ $((round % 2)) = 0 ]; then sync -f "$folder"; fi
  dd if="$sources/README.md" of="$folder/kept/flushed" conv=fsync status=none
  sleep "0.$((round * 3 % 10))" # and there is new work that nothing has brought to the image
  if [ "$on" != fatmount ]; then # killing what serves another folder says nothing
    wait "$worker" || cat "$work/worker"
    rm -rf "${folder:?}"/*
    return 0
  fi
  if [ $((round % 2)) = 1 ]; then # in the middle of bringing it there, with some luck
    sync -f "$folder" 2>/dev/null &
    sleep "0.00$round"
  fi
  kill -0 "$worker" || fail "the work was over before the kill: $(tail -n 8 "$work/worker")"
  volume_kill "$worker"
  judge_after_cut
}

scene killed-fatexercise "fat12 fat16 fat32" "fat16" 60 300 "fatexercise"
scene_killed-fatexercise() {
  local round how=()
  [ "$on" = fatmount ] || how=(--ordinary)
  for ((round = 1; round <= $(pick 2 8); ++round)); do
    round_of_kill "$round" timeout 60 "$fatexercise" "$folder/work" --seed "$round" --seconds 30 "${how[@]}"
  done
}

scene killed-git "fat16 fat32" "fat32" 60 300 "git"
scene_killed-git() {
  local round
  for ((round = 1; round <= $(pick 1 4); ++round)); do
    # Cloned again and again, so that it is never over before its time.
    # shellcheck disable=SC2016
    round_of_kill "$round" timeout 60 bash -c 'for ((i = 0; i < 100; ++i)); do git clone -q --no-local "$0" "$1/$i" || exit 1; done' \
      "$repository" "$folder/work"
  done
}

scene cut-commits "fat12 fat16 fat32" "fat16" 60 300 "fatexercise"
scene_cut-commits() {
  [ "$on" = fatmount ] || return 0
  local nth syncing
  for nth in $(pick "23 84 161" "$(seq 5 13 300)"); do
    volume_make "$type"
    volume_mount
    cp -r "$sources/docs" "$folder/kept"
    cp "$sources/README.md" "$folder/kept/flushed"
    volume_unmount
    # Without the order in which a sanitizer wants libraries to come.
    LD_PRELOAD=$cut FATEXERCISE_CUT=$nth ASAN_OPTIONS=verify_asan_link_order=0 volume_mount
    mkdir "$folder/work"
    while sync -f "$folder" && sleep 0.03; do :; done 2>"$work/sync" &
    syncing=$!
    if timeout 40 "$fatexercise" "$folder/work" --seed "$nth" --seconds 30 >"$work/worker" 2>&1; then
      fail "there was no write number $nth"
    fi
    wait "$pid" || true
    pid=
    wait "$syncing" || true
    unmount_patiently || fail "what is left of the mount cannot be removed"
    judge_after_cut
  done
}
