# The installed tree. Nothing in it holds the prefix, so it may be moved.
#
# Components: runtime (the shared library), development (headers, what is linked to, pkg-config and CMake packages, the
# manual page of the library) and tools (programs with their manual pages and shell completions). `cmake --install` without a
# component installs all three.
#
# A second set of rules, with the components deb_runtime, deb_development and deb_tools, lays out the same files as Debian
# wants them; only Packages.cmake asks for those.
#
# A program is installed when its directory says so:
#     set_property(GLOBAL APPEND PROPERTY FATLIB_PROGRAMS fatimg)
# and, if it needs a library that is not fatlib's or the system's, also what Debian calls that:
#     set_property(GLOBAL APPEND PROPERTY FATLIB_PROGRAM_PACKAGES "libexample1 (>= 1.2)")
# With it go docs/man/fatimg.1 and, of tools/fatimg/completions, fatimg.bash, _fatimg (zsh) and fatimg.fish, as far as they
# are there.

include(CMakePackageConfigHelpers)

# One prefix holds one architecture, so that its libraries are in lib unless somebody wants them elsewhere. A parent project has
# directories of its own.
if(PROJECT_IS_TOP_LEVEL)
  set(CMAKE_INSTALL_LIBDIR lib CACHE PATH "Directory of libraries below the prefix")
endif()
include(GNUInstallDirs)
set(FATLIB_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)

# ------------------------------------------------------------------------------------------ files that hold versions

# Until version 1.0.0 a minor version may change the interface. The check also refuses a host of the other architecture.
write_basic_package_version_file(fatlib-config-version.cmake COMPATIBILITY SameMinorVersion)
configure_file(cmake/fatlib-config.cmake.in fatlib-config.cmake @ONLY)

get_property(fatlib_programs GLOBAL PROPERTY FATLIB_PROGRAMS)
foreach(program IN LISTS fatlib_programs)
  # The program finds the library of its own tree, wherever that is moved.
  file(RELATIVE_PATH fatlib_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${fatlib_bin_to_lib}")
endforeach()

# What `make install` has to build first.
add_custom_target(fatlib_installed)
add_dependencies(fatlib_installed fatlib ${fatlib_programs})
if(TARGET fatlib_host)
  add_dependencies(fatlib_installed fatlib_host)
endif()

# ---------------------------------------------------------------------------------------------------------- the rules

# fatlib_install_tree([PREFIX <prefix of component names>] [EXCLUDE_FROM_ALL])
# Lays out one tree in the directories that CMAKE_INSTALL_* name.
function(fatlib_install_tree)
  cmake_parse_arguments(PARSE_ARGV 0 arg "EXCLUDE_FROM_ALL" "PREFIX" "")
  set(runtime COMPONENT ${arg_PREFIX}runtime)
  set(development COMPONENT ${arg_PREFIX}development)
  set(tools COMPONENT ${arg_PREFIX}tools)
  set(exclude "")
  if(arg_EXCLUDE_FROM_ALL)
    set(exclude EXCLUDE_FROM_ALL)
  endif()
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/fatlib)

  install(TARGETS fatlib EXPORT ${arg_PREFIX}fatlib-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ${runtime} NAMELINK_COMPONENT ${arg_PREFIX}development ${exclude}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(FILES ${FATLIB_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fatlib ${development} ${exclude})
  fatlib_install_pc(fatlib)

  if(TARGET fatlib_host) # the C++ face: an archive that hosts link into themselves
    install(TARGETS fatlib_host EXPORT ${arg_PREFIX}fatlib-targets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} ${development} ${exclude}
      INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    get_directory_property(headers DIRECTORY host DEFINITION FATLIB_HOST_HEADERS)
    list(TRANSFORM headers PREPEND host/)
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fatlib ${development} ${exclude})
    fatlib_install_pc(fatlib-host)
  endif()

  install(EXPORT ${arg_PREFIX}fatlib-targets FILE fatlib-targets.cmake NAMESPACE fatlib::
    DESTINATION ${package_dir} ${development} ${exclude})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fatlib-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/fatlib-config-version.cmake
    DESTINATION ${package_dir} ${development} ${exclude})
  install(FILES docs/man/fatlib.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 ${development} ${exclude})

  foreach(program IN LISTS fatlib_programs)
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} ${tools} ${exclude})
    set(completions tools/${program}/completions)
    fatlib_install_if_there(docs/man/${program}.1 ${CMAKE_INSTALL_MANDIR}/man1 ${program}.1)
    fatlib_install_if_there(${completions}/${program}.bash
      ${CMAKE_INSTALL_DATADIR}/bash-completion/completions ${program})
    fatlib_install_if_there(${completions}/_${program} ${FATLIB_ZSH_COMPLETIONS} _${program})
    fatlib_install_if_there(${completions}/${program}.fish
      ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d ${program}.fish)
  endforeach()
endfunction()

# Parts of fatlib_install_tree, which read its variables.

macro(fatlib_install_if_there file directory name)
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    install(FILES ${file} DESTINATION ${directory} RENAME ${name} ${tools} ${exclude})
  endif()
endmacro()

macro(fatlib_install_pc name)
  # From the directory of the .pc file to the prefix and its parts.
  file(RELATIVE_PATH PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" PC_TO_PREFIX ${PC_TO_PREFIX})
  configure_file(cmake/${name}.pc.in pkgconfig/${arg_PREFIX}${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${arg_PREFIX}${name}.pc RENAME ${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${development} ${exclude})
endmacro()

fatlib_install_tree()
