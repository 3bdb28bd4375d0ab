# Installs everything into an empty prefix, moves the tree, and builds the hosts against it as a stranger would: with CMake's
# find_package and with pkg-config. The hosts then work on volumes. Each component has the files that it should have.
#   check.sh BUILD_DIRECTORY DIRECTORY_OF_THE_HOSTS PROGRAM...     the programs that are installed
set -euo pipefail
build=$1 hosts=$2
shift 2
# shellcheck source=tests/install/hosts.sh
. "$hosts/hosts.sh"
enter_work_directory

install_to() { # PREFIX [OPTION...]
  env -u DESTDIR "$CMAKE" --install "$build" --prefix "$PWD/$1" "${@:2}" >install.log || fail "$(cat install.log)"
}
# The names of files depend on the type of build, and completions and manual pages on what programs bring with them.
list() {
  (cd "$1" && find . ! -type d | LC_ALL=C sort) | grep -vE 'fatlib-targets-[a-z]*\.cmake$|^./include/fatlib/|^./share/[^/]*(comp|zsh|fish)'
}

echo "== the components"
install_to runtime --component runtime
diff -u - <(list runtime) <<'LIST' || fail "the runtime component has other files than expected"
./lib/libfatlib.so.0
./lib/libfatlib.so.0.1.0
LIST
install_to development --component development
diff -u - <(list development) <<'LIST' || fail "the development component has other files than expected"
./lib/cmake/fatlib/fatlib-config-version.cmake
./lib/cmake/fatlib/fatlib-config.cmake
./lib/cmake/fatlib/fatlib-targets.cmake
./lib/libfatlib-host.a
./lib/libfatlib.so
./lib/pkgconfig/fatlib-host.pc
./lib/pkgconfig/fatlib.pc
./share/man/man3/fatlib.3
LIST
for header in FatLibIntf.h XStorage.h Volume.h; do
  [ -e "development/include/fatlib/$header" ] || fail "$header is not installed"
done
install_to tools --component tools
for program; do
  [ -x "tools/bin/$program" ] || fail "$program is not installed"
  [ -e "tools/share/man/man1/$program.1" ] || fail "$program has no manual page"
done
[ "$(find tools -path '*/bin/*' | wc -l)" = $# ] || fail "other programs are installed than: $*"

echo "== the whole tree"
install_to first
mv first moved # nothing in the tree may depend on where it was installed
prefix=$PWD/moved
diff -u <(for part in runtime development tools; do [ ! -d $part ] || (cd $part && find . ! -type d); done | sort) \
  <(cd moved && find . ! -type d | sort) || fail "the components are not the whole"
dynamic=$(readelf --dynamic --wide moved/lib/libfatlib.so)
[[ $dynamic == *'Library soname: [libfatlib.so.0]'* ]] || fail "wrong SONAME"
[[ $dynamic != *RPATH* && $dynamic != *RUNPATH* ]] || fail "the library holds a run path"
for program; do
  [[ $(ldd "moved/bin/$program") == *"libfatlib.so.0 => $prefix/"* ]] || fail "$program does not find the moved library"
  [[ $("moved/bin/$program" --version) == *0.1.0* ]] || fail "$program does not tell its version"
done

make_volume
echo "== find_package"
build_with_cmake by-cmake "$prefix/lib"
run_hosts by-cmake "$prefix/lib"
# The prefix alone is enough, and a component that is not there is refused.
mkdir absent
printf 'cmake_minimum_required(VERSION 3.21)\nproject(absent C)\nfind_package(fatlib COMPONENTS %s)\nif(NOT fatlib_FOUND)\nmessage(FATAL_ERROR no)\nendif()\n' \
  nonsense >absent/CMakeLists.txt
! "$CMAKE" -G Ninja -S absent -B absent/build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$HOST_FLAGS" >absent.log 2>&1 ||
  fail "a component that is not there was found"
sed -i 's/nonsense/host/' absent/CMakeLists.txt
"$CMAKE" -G Ninja -S absent -B absent/build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$HOST_FLAGS" >absent.log 2>&1 ||
  fail "$(cat absent.log)"

echo "== pkg-config"
build_with_pkg_config by-pkg-config "$prefix/lib"
run_hosts by-pkg-config "$prefix/lib"
echo "installed tree, all hosts, both ways: as expected"
