# Installs the library into an empty prefix, moves the tree, and builds two hosts against it as a stranger would: with
# CMake's find_package and with pkg-config. The hosts then read a volume.
#   check.sh BUILD_DIRECTORY DIRECTORY_OF_THE_HOSTS
set -euo pipefail
build=$1 hosts=$2
export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8

fail() {
  echo "FAILED: $*"
  exit 1
}

rm -rf "$CTEST_WORK"
mkdir -p "$CTEST_WORK"
cd "$CTEST_WORK"

echo "== the installed tree"
env -u DESTDIR "$CMAKE" --install "$build" --prefix "$PWD/first" >install.log
mv first moved # nothing in the tree may depend on where it was installed
prefix=$PWD/moved
(cd moved && find . ! -type d | LC_ALL=C sort) | grep -v '^./lib/cmake/fatlib/fatlib-targets-[a-z]*\.cmake$' >tree.txt
diff -u - tree.txt <<'LIST' || fail "other files are installed than expected"
./include/fatlib/FatLibIntf.h
./include/fatlib/XStorage.h
./lib/cmake/fatlib/fatlib-config-version.cmake
./lib/cmake/fatlib/fatlib-config.cmake
./lib/cmake/fatlib/fatlib-targets.cmake
./lib/libfatlib.so
./lib/libfatlib.so.0
./lib/libfatlib.so.0.1.0
./lib/pkgconfig/fatlib.pc
LIST
dynamic=$(readelf --dynamic --wide moved/lib/libfatlib.so)
[[ $dynamic == *'Library soname: [libfatlib.so.0]'* ]] || fail "wrong SONAME"
[[ $dynamic != *RPATH* && $dynamic != *RUNPATH* ]] || fail "the library holds a run path"

echo "== a volume to read"
mkfs.fat -C -F 16 volume.img 16384 >mkfs.log
printf 'hello, host\n' >HELLO.TXT
mmd -i volume.img ::/DIR
mcopy -i volume.img HELLO.TXT ::/DIR/HELLO.TXT

# A host must not find the headers or the library anywhere else.
run_hosts() { # DIRECTORY
  local program
  for program in storage c_host; do
    [[ $(ldd "$1/$program") == *"libfatlib.so.0 => $prefix/lib/"* ]] || fail "$1/$program uses another library"
  done
  cp volume.img host.img
  "$1/storage" host.img | tee "$1/storage.txt"
  diff -u "$hosts/storage-expected.txt" "$1/storage.txt" || fail "$1/storage printed something else"
  "$1/c_host" || fail "$1/c_host"
}

echo "== find_package"
"$CMAKE" -G Ninja -S "$hosts" -B by-cmake -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$HOST_FLAGS" \
  -DCMAKE_CXX_FLAGS="$HOST_FLAGS" >cmake.log || fail "$(cat cmake.log)"
"$CMAKE" --build by-cmake >>cmake.log || fail "$(cat cmake.log)"
run_hosts by-cmake

echo "== pkg-config"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
[ "$(pkg-config --modversion fatlib)" = 0.1.0 ] || fail "wrong version: $(pkg-config --modversion fatlib)"
mkdir by-pkg-config
warnings="-Wall -Wextra -Wpedantic -Werror"
# shellcheck disable=SC2046,SC2086  # lists of options
{
  "$CXX" -std=c++17 $warnings $HOST_FLAGS $(pkg-config --cflags fatlib) "$hosts/storage.cpp" -o by-pkg-config/storage \
    $(pkg-config --libs fatlib) -Wl,-rpath,"$prefix/lib"
  "$CC" -std=c11 $warnings $HOST_FLAGS $(pkg-config --cflags fatlib) "$hosts/c_host.c" -o by-pkg-config/c_host \
    $(pkg-config --libs fatlib) -Wl,-rpath,"$prefix/lib"
}
run_hosts by-pkg-config
echo "installed tree, both hosts, both ways: as expected"
