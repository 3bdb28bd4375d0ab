# The scene that tries those who judge the others: an image that is not what the mounted volume showed must not pass. To be sourced.
# shellcheck shell=bash disable=SC2154,SC2034

# Changes a copy of the image by a command, and expects those words of the judges.
must_be_noticed() { # WORDS COMMAND...
  cp --sparse=always "$work/whole" "$image"
  "${@:2}"
  if (judge_image) >"$work/judged" 2>&1; then fail "not noticed: ${*:2}"; fi
  grep -q "$1" "$work/judged" || { cat "$work/judged" && fail "noticed for another reason: ${*:2}"; }
}

patch_image() { # OFFSET
  printf '\1' | dd of="$image" bs=1 seek="$1" conv=notrunc status=none
}

scene judges "fat16" "fat16" 30 60 ""
scene_judges() {
  [ "$on" = fatmount ] || return 0
  volume_make "$type"
  volume_mount
  cp "$sources/README.md" "$folder/Read me.md"
  mkdir "$folder/A directory"
  seq 1000 >"$folder/A directory/numbers"
  volume_leave
  mv "$image" "$work/whole"
  cp --sparse=always "$work/whole" "$image"
  judge_image
  # Another byte, name, time, file more, file less; a cluster that nothing reaches; a cluster more in use than was said.
  seq 1000 >"$work/numbers"
  touch -r "$sources/LICENSE" "$work/numbers"
  must_be_noticed 'another tree' patch_image "$(grep -abo -m1 '^999$' "$work/whole" | cut -d: -f1)"
  must_be_noticed 'another tree' mren -i "$image" '::/Read me.md' '::/Read us.md'
  must_be_noticed 'another tree' mcopy -m -o -i "$image" "$work/numbers" '::/A directory/numbers'
  must_be_noticed 'in use by statfs' mcopy -i "$image" "$work/numbers" '::/other'
  must_be_noticed 'in use by statfs' mdel -i "$image" '::/Read me.md'
  must_be_noticed 'fsck.fat finds' patch_image $((4 * 512 + 20000))
  space=0/51145
  must_be_noticed 'in use by statfs' true
}
