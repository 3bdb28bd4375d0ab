# The file-system stressors of stress-ng that make sense on FAT. To be sourced.
# shellcheck shell=bash disable=SC2154

# Each with its arguments. Left out, and why:
#   access, chmod, chown                     modes and owners, of which FAT has one bit
#   chattr, inode-flags, verity, xattr       flags, signatures and attributes that FAT does not store
#   link, symlink, mknod                     FAT has one name for each file, and nothing but files and directories
#   utime                                    wants the time of the last access back, of which FAT keeps the day; fatexercise sets times
#   bind-mount, binderfs, dup, eventfd, fanotify, ioprio, procfs
#                                            are not about the file system that a folder is on
#   io, sync                                 flush every file system of the machine
#   fpunch                                   punches holes, of which FAT has none
# The names of filename are those of POSIX: others FAT cannot hold. A path has 259 letters here, which bounds dirdeep.
STRESSORS=(
  "aio 1" "chdir 1 --chdir-dirs 200" "copy-file 1 --copy-file-bytes 128M" "dentry 1 --dentries 200" "dir 1 --dir-dirs 100"
  "dirdeep 1 --dirdeep-inodes 20" "dirmany 1" "dnotify 1" "fallocate 1 --fallocate-bytes 4M" "fcntl 1" "fiemap 1" "file-ioctl 1"
  "filename 1 --filename-opts posix" "flock 2" "fsize 1" "fstat 1" "getdent 1" "handle 1" "hdd 1 --hdd-bytes 8M --hdd-write-size 17000"
  "inotify 1" "iomix 1 --iomix-bytes 8M" "lease 1" "locka 2" "lockf 2" "lockofd 2" "mmap 1 --mmap-file --mmap-bytes 4M"
  "mmap 1 --mmap-file --mmap-async --mmap-bytes 4M" "msync 1 --msync-bytes 2M" "msyncmany 1" "open 1"
  "readahead 1 --readahead-bytes 8M" "rename 2" "revio 1 --revio-bytes 8M" "seek 2 --seek-size 8M" "sendfile 1 --sendfile-size 4M"
  "splice 1" "stackmmap 1" "sync-file 1 --sync-file-bytes 4M" "touch 1"
)

scene stress-ng "fat12 fat16 fat32" "fat16" 110 400 "stress-ng"
scene_stress-ng() {
  local seconds stressor status count=0
  seconds=$(pick 1 4)
  [ "$soak" = 0 ] || seconds=$((soak / ${#STRESSORS[@]} + 1))
  mkdir "$folder/stress"
  for stressor in "${STRESSORS[@]}"; do
    # The smallest file it copies has 128 MiB.
    [[ $stressor != copy-file* || $type = fat32 ]] || continue
    status=0
    # One of them leaves files where it was started.
    # shellcheck disable=SC2086 # words of the arguments
    (cd "$work" && exec stress-ng --quiet --verify --temp-path "$folder/stress" --timeout "$seconds" --$stressor) \
      >"$work/stress" 2>&1 || status=$?
    cat "$work/stress"
    count=$((count + 1))
    [ "$status" = 0 ] || fail "stress-ng --$stressor ends with $status"
  done
  echo "$count stressors, $seconds s each"
}
