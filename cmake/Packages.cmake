# Debian packages, for the architecture of the build:
#     cmake --build build/i386-release --target fatlib_installed && (cd build/i386-release && cpack -G DEB)
# makes libfatlib0, libfatlib-dev and, when there are programs to install, fatlib-tools. `make package` does it in one word.
# Libraries lie where Debian's multiarch wants them, so that the i386 and the amd64 packages can be installed together.

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(fatlib_deb_arch i386)
  set(fatlib_deb_triplet i386-linux-gnu)
else()
  set(fatlib_deb_arch amd64)
  set(fatlib_deb_triplet x86_64-linux-gnu)
endif()
set(fatlib_deb_revision 1)
set(fatlib_deb_library libfatlib${PROJECT_VERSION_MAJOR}) # its name follows the SONAME

# --------------------------------------------------------------------------------------------------- the tree in them

# The same rules as for any prefix, in Debian's directories.
function(fatlib_install_debian)
  set(CMAKE_INSTALL_BINDIR bin)
  set(CMAKE_INSTALL_LIBDIR lib/${fatlib_deb_triplet})
  set(CMAKE_INSTALL_INCLUDEDIR include)
  set(CMAKE_INSTALL_DATADIR share)
  set(CMAKE_INSTALL_MANDIR share/man)
  set(FATLIB_ZSH_COMPLETIONS share/zsh/vendor-completions)
  fatlib_install_tree(PREFIX deb_ EXCLUDE_FROM_ALL)
endfunction()
fatlib_install_debian()

# fatlib_deb_package(<component> <package>): what every package has besides: license and change logs. Manual pages and logs
# are compressed, archives lose what is for debuggers, and programs the path by which those of a movable tree find their
# library.
function(fatlib_deb_package component package)
  set(doc share/doc/${package})
  set(rule COMPONENT deb_${component} EXCLUDE_FROM_ALL)
  configure_file(cmake/debian/changelog.in debian/${package}/changelog.Debian @ONLY)
  install(FILES cmake/debian/copyright DESTINATION ${doc} ${rule})
  install(FILES CHANGELOG.md DESTINATION ${doc} RENAME changelog ${rule})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/${package}/changelog.Debian DESTINATION ${doc} ${rule})
  install(CODE "
    file(GLOB_RECURSE pages \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/man/*.[1-9]\")
    set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${doc}\")
    execute_process(COMMAND gzip -9nf \${pages} \${folder}/changelog \${folder}/changelog.Debian
                    COMMAND_ERROR_IS_FATAL ANY)
    file(GLOB_RECURSE archives \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/*.a\")
    foreach(archive IN LISTS archives)
      execute_process(COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives \${archive}
                      COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
    file(GLOB programs \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/*\")
    foreach(program IN LISTS programs)
      file(RPATH_REMOVE FILE \${program})
    endforeach()" ${rule})
endfunction()

# ------------------------------------------------------------------------------------------------- what they depend on

# The versions of the system that the build was made on, as the packages of the C and C++ libraries are numbered. dpkg-shlibdeps
# would name lib32stdc++6 for a 32-bit build on amd64, a package that i386 does not have. A test compares with what the
# files really refer to.
execute_process(COMMAND getconf GNU_LIBC_VERSION OUTPUT_VARIABLE fatlib_libc OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REGEX REPLACE "^glibc +" "" fatlib_libc "${fatlib_libc}")
string(REGEX MATCH "^[0-9]+" fatlib_gcc "${CMAKE_CXX_COMPILER_VERSION}")
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(fatlib_gcc 12)
endif()
set(fatlib_deb_system "libc6 (>= ${fatlib_libc}), libgcc-s1 (>= ${fatlib_gcc}), libstdc++6 (>= ${fatlib_gcc})")
set(fatlib_deb_same "(= ${PROJECT_VERSION}-${fatlib_deb_revision})")

# ------------------------------------------------------------------------------------------------------------- CPack

set(CPACK_GENERATOR DEB)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON) # packs what is built, and does not build the tests first
set(CPACK_PACKAGE_NAME fatlib)
set(CPACK_PACKAGE_VENDOR "The fatlib authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own, the first line of its description
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL deb_runtime deb_development)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE fatlib)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${fatlib_deb_arch})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${fatlib_deb_revision})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The fatlib authors <maintainers@fatlib.example>" CACHE STRING
    "Who answers for the Debian packages")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The packages of both architectures can be installed side by side. CPack has no name for this field before version 3.31;
# what follows the line break in a field's value is taken as the next field.
set(fatlib_deb_libraries_priority "optional\nMulti-Arch: same")

fatlib_deb_package(runtime ${fatlib_deb_library})
# By these two dpkg-shlibdeps finds this package, and dpkg runs ldconfig.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs
  "libfatlib ${PROJECT_VERSION_MAJOR} ${fatlib_deb_library} (>= ${PROJECT_VERSION})\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_NAME ${fatlib_deb_library})
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_PRIORITY ${fatlib_deb_libraries_priority})
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_DEPENDS "${fatlib_deb_system}")
set(CPACK_COMPONENT_DEB_RUNTIME_DESCRIPTION
"FAT12, FAT16 and FAT32 volumes for programs - shared library
fatlib lets a program create, read, write, rename, move, delete and list
files on a FAT volume that is in an image file, on a device or in memory,
without mounting it and without root.
.
This package has the shared library.")

fatlib_deb_package(development libfatlib-dev)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_NAME libfatlib-dev)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_PRIORITY ${fatlib_deb_libraries_priority})
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_DEPENDS "${fatlib_deb_library} ${fatlib_deb_same}")
set(CPACK_COMPONENT_DEB_DEVELOPMENT_DESCRIPTION
"FAT12, FAT16 and FAT32 volumes for programs - development files
fatlib lets a program create, read, write, rename, move, delete and list
files on a FAT volume that is in an image file, on a device or in memory,
without mounting it and without root.
.
This package has what is needed to compile programs that use it: headers,
pkg-config and CMake packages, and the manual page.")

if(fatlib_programs)
  list(APPEND CPACK_COMPONENTS_ALL deb_tools)
  fatlib_deb_package(tools fatlib-tools)
  set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_NAME fatlib-tools)
  set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_SECTION utils)
  get_property(fatlib_deb_others GLOBAL PROPERTY FATLIB_PROGRAM_PACKAGES)
  list(JOIN fatlib_deb_others ", " fatlib_deb_others)
  string(REGEX REPLACE "(.+)" ", \\1" fatlib_deb_others "${fatlib_deb_others}")
  set(CPACK_DEBIAN_DEB_TOOLS_PACKAGE_DEPENDS
      "${fatlib_deb_library} ${fatlib_deb_same}, ${fatlib_deb_system}${fatlib_deb_others}")
  list(JOIN fatlib_programs ", " fatlib_program_names)
  set(CPACK_COMPONENT_DEB_TOOLS_DESCRIPTION
"FAT12, FAT16 and FAT32 volumes in image files - command line
Look into FAT volumes in image files and on devices, and change them,
without mounting them and without root.
.
This package has: ${fatlib_program_names}.")
endif()

include(CPack)
