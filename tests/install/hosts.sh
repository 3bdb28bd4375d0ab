# What the tests of the installed tree and of the packages share: building the hosts of this directory against an installed fatlib,
# and having them work on volumes. To be sourced; the environment is that of fatlib_delivery_test.
export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8

fail() {
  echo "FAILED: $*"
  exit 1
}

enter_work_directory() {
  rm -rf "$CTEST_WORK"
  mkdir -p "$CTEST_WORK"
  cd "$CTEST_WORK"
}

make_volume() { # volume.img, which the hosts read
  mkfs.fat -C -F 16 volume.img 16384 >mkfs.log
  printf 'hello, host\n' >HELLO.TXT
  mmd -i volume.img ::/DIR
  mcopy -i volume.img HELLO.TXT ::/DIR/HELLO.TXT
}

# run_hosts DIRECTORY LIBDIR: those in DIRECTORY must use the library in LIBDIR, and no other that the system may have.
run_hosts() {
  local program
  for program in storage c_host face; do
    [[ $(ldd "$1/$program") == *"libfatlib.so.0 => $2/"* ]] || fail "$1/$program uses another library: $(ldd "$1/$program")"
  done
  cp volume.img host.img
  "$1/storage" host.img | tee "$1/storage.txt"
  diff -u "$hosts/storage-expected.txt" "$1/storage.txt" || fail "$1/storage printed something else"
  "$1/c_host" || fail "$1/c_host"
  "$1/face" face.img >"$1/face.txt" || fail "$1/face: $(cat "$1/face.txt")"
  diff -u "$hosts/face-expected.txt" "$1/face.txt" || fail "$1/face printed something else"
  fsck.fat -n face.img >fsck.log || fail "$(cat fsck.log)"
}

# build_with_cmake DIRECTORY LIBDIR: by find_package, of the fatlib whose libraries are in LIBDIR
build_with_cmake() {
  "$CMAKE" -G Ninja -S "$hosts" -B "$1" -Dfatlib_DIR="$2/cmake/fatlib" -DCMAKE_C_FLAGS="$HOST_FLAGS" \
    -DCMAKE_CXX_FLAGS="$HOST_FLAGS" >cmake.log || fail "$(cat cmake.log)"
  "$CMAKE" --build "$1" >>cmake.log || fail "$(cat cmake.log)"
}

# build_with_pkg_config DIRECTORY LIBDIR
build_with_pkg_config() {
  local warnings="-Wall -Wextra -Wpedantic -Werror"
  export PKG_CONFIG_PATH=$2/pkgconfig
  [ "$(pkg-config --modversion fatlib)" = 0.1.0 ] || fail "wrong version: $(pkg-config --modversion fatlib)"
  mkdir "$1"
  # shellcheck disable=SC2046,SC2086  # lists of options
  {
    "$CXX" -std=c++17 $warnings $HOST_FLAGS $(pkg-config --cflags fatlib) "$hosts/storage.cpp" -o "$1/storage" \
      $(pkg-config --libs fatlib) -Wl,-rpath,"$2"
    "$CC" -std=c11 $warnings $HOST_FLAGS $(pkg-config --cflags fatlib) "$hosts/c_host.c" -o "$1/c_host" \
      $(pkg-config --libs fatlib) -Wl,-rpath,"$2"
    "$CXX" -std=c++17 $warnings $HOST_FLAGS $(pkg-config --cflags fatlib-host) "$hosts/face.cpp" -o "$1/face" \
      $(pkg-config --libs fatlib-host) -Wl,-rpath,"$2"
  }
}
