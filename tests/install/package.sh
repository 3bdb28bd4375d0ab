# Makes the Debian packages, looks at what they say of themselves and hold, installs them with dpkg into an empty root, builds
# the hosts against what is there, runs the installed programs, and removes everything again. Needs no root: the packages
# have no scripts.
#   package.sh BUILD_DIRECTORY DIRECTORY_OF_THE_HOSTS ARCHITECTURE TRIPLET PROGRAM...
set -euo pipefail
build=$1 hosts=$2 arch=$3 triplet=$4
shift 4
# shellcheck source=tests/install/hosts.sh
. "$hosts/hosts.sh"
enter_work_directory

names=(libfatlib0 libfatlib-dev)
[ $# = 0 ] || names+=(fatlib-tools)

echo "== packages"
"${CMAKE%/cmake}/cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$PWD/packages" >cpack.log || fail "$(cat cpack.log)"
debs=()
for name in "${names[@]}"; do debs+=("packages/${name}_0.1.0-1_$arch.deb"); done
[ "$(printf '%s\n' packages/*.deb)" = "$(printf '%s\n' "${debs[@]}" | sort)" ] || fail "other packages: $(ls packages)"

field() { dpkg-deb --field "$1" "$2"; } # PACKAGE FIELD
person='^[A-Z].* <[^ ]+@[^ ]+>$'
for i in "${!names[@]}"; do
  name=${names[i]} deb=${debs[i]}
  [ "$(field "$deb" Package)" = "$name" ] || fail "$deb is not named $name"
  [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$name is for $(field "$deb" Architecture)"
  [[ $(field "$deb" Maintainer) =~ $person ]] || fail "$name has no maintainer"
  [ "$(field "$deb" Priority)" = optional ] || fail "$name has priority $(field "$deb" Priority)"
  description=$(field "$deb" Description)
  [[ ${description%%$'\n'*} =~ ^.{30,79}$ ]] || fail "$name has a bad synopsis"
  [ "$(wc -L <<<"$description")" -le 80 ] || fail "$name has long lines in its description"
  dpkg-deb --contents "$deb" >"$name.list"
  ! grep -vE '^(drwxr-xr-x|-rw-r--r--|-rwxr-xr-x|lrwxrwxrwx) root/root ' "$name.list" || fail "$name has odd modes or owners"
  dpkg-deb --control "$deb" "$name.control"
  [ -z "$(find "$name.control" -name '*inst' -o -name '*rm')" ] || fail "$name has scripts"
  for file in copyright changelog.gz changelog.Debian.gz; do
    grep -q "/usr/share/doc/$name/$file\$" "$name.list" || fail "$name lacks $file"
  done
  ! grep '/man/.*[1-9]$' "$name.list" || fail "$name has a manual page that is not compressed"
done
[ "$(for name in "${names[@]}"; do field "packages/${name}_0.1.0-1_$arch.deb" Section; done | tr '\n' ' ')" = \
  "$([ $# = 0 ] && echo "libs libdevel " || echo "libs libdevel utils ")" ] || fail "wrong sections"
for name in libfatlib0 libfatlib-dev; do
  [ "$(field "packages/${name}_0.1.0-1_$arch.deb" Multi-Arch)" = same ] || fail "$name cannot be installed for two architectures"
done
[ "$(field "${debs[1]}" Depends)" = "libfatlib0 (= 0.1.0-1)" ] || fail "libfatlib-dev depends on: $(field "${debs[1]}" Depends)"
[ "$(cat libfatlib0.control/shlibs)" = "libfatlib 0 libfatlib0 (>= 0.1.0)" ] || fail "wrong shlibs"
[ "$(cat libfatlib0.control/triggers)" = "activate-noawait ldconfig" ] || fail "wrong triggers"
sort -k6 ./*.list | awk '$1 !~ /^d/ { print $6 }' | uniq -d >twice
[ ! -s twice ] || fail "in two packages: $(cat twice)"

echo "== installed by dpkg"
mkdir -p root/var/lib/dpkg/info root/var/lib/dpkg/updates
touch root/var/lib/dpkg/status
dpkg_in_root() { dpkg --root="$PWD/root" --force-not-root --force-depends --log=/dev/null "$@"; }
[ "$(dpkg --print-architecture)" = "$arch" ] || dpkg_in_root --add-architecture "$arch"
dpkg_in_root --install "${debs[@]}" >dpkg.log 2>&1 || fail "$(cat dpkg.log)"
[ -z "$(dpkg_in_root --audit)" ] || fail "$(dpkg_in_root --audit)"
[ -z "$(dpkg_in_root --verify)" ] || fail "$(dpkg_in_root --verify)"
libdir=$PWD/root/usr/lib/$triplet

echo "== what is needed of the system's libraries"
# stated PACKAGE VERSION: the version that libfatlib0 asks of a package is no lower than one that it needs
stated() {
  local asked
  asked=$(field "${debs[0]}" Depends | tr -d '(),' | xargs -n3 | awk -v name="$1" '$1 == name { print $3 }')
  dpkg --compare-versions "$asked" ge "$2" || fail "needs $1 $2, asks for $asked"
}
newest() { # the newest version of a family of symbols that the library or a program refers to
  readelf --version-info --wide "$libdir/libfatlib.so.0" "${@:2}" | grep -oE "Name: $1_[0-9.]+" | grep -oE '[0-9.]+$' |
    sort -V | tail -n1
}
programs=()
for program; do programs+=("root/usr/bin/$program"); done
stated libc6 "$(newest GLIBC "${programs[@]}")"
case $(newest GLIBCXX "${programs[@]}") in # as libstdc++ numbers them
  "" | 3.4 | 3.4.[0-9] | 3.4.1[0-9] | 3.4.2[0-8]) stated libstdc++6 9 ;;
  3.4.29) stated libstdc++6 11 ;;
  3.4.30) stated libstdc++6 12 ;;
  3.4.3[12]) stated libstdc++6 13 ;;
  *) fail "the package of GLIBCXX_$(newest GLIBCXX "${programs[@]}") has to be added here" ;;
esac
stated libgcc-s1 3.0
# Any other library is in a package that fatlib-tools asks for.
for soname in $(readelf --dynamic --wide "$libdir/libfatlib.so.0" "${programs[@]}" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | sort -u); do
  case $soname in
    libfatlib.so.0 | libc.so.6 | libm.so.6 | libstdc++.so.6 | libgcc_s.so.1 | ld-linux* | lib[au]*san.so.*) continue ;;
  esac
  package=$(sed -E 's/\.so\./-/; s/([^0-9])-([0-9])/\1\2/' <<<"$soname") # libexample.so.1 is in libexample1
  [[ "$(field "${debs[-1]}" Depends), " == *" $package"[\ ,]* ]] || fail "no package asks for $package, which has $soname"
done

echo "== hosts and programs"
make_volume
build_with_cmake by-cmake "$libdir"
run_hosts by-cmake "$libdir"
build_with_pkg_config by-pkg-config "$libdir"
run_hosts by-pkg-config "$libdir"
zgrep -q Fat_Mount root/usr/share/man/man3/fatlib.3.gz || fail "the manual page does not name Fat_Mount"
for program; do
  [[ $(readelf --dynamic --wide "root/usr/bin/$program") != *R*PATH* ]] || fail "$program holds a run path"
  [[ $(LD_LIBRARY_PATH=$libdir "root/usr/bin/$program" --version) == *0.1.0* ]] || fail "$program does not tell its version"
  [ -s "root/usr/share/man/man1/$program.1.gz" ] || fail "$program has no manual page"
done

echo "== removed by dpkg"
dpkg_in_root --purge "${names[@]}" >dpkg.log 2>&1 || fail "$(cat dpkg.log)"
[ -z "$(find root -path root/var -prune -o ! -type d -print)" ] || fail "left behind: $(find root -path root/var -prune -o -print)"
echo "${#names[@]} packages for $arch: made, installed, used and removed"
