# The installed tree: two headers, the library, a pkg-config file and a CMake package. Nothing in it holds the prefix, so
# it may be moved.

include(CMakePackageConfigHelpers)

install(TARGETS fatlib EXPORT fatlib-targets LIBRARY DESTINATION lib INCLUDES DESTINATION include)
install(FILES ${FATLIB_PUBLIC_HEADERS} DESTINATION include/fatlib)
install(EXPORT fatlib-targets NAMESPACE fatlib:: DESTINATION lib/cmake/fatlib)

configure_file(cmake/fatlib-config.cmake.in fatlib-config.cmake @ONLY)
# Until version 1.0.0 a minor version may change the interface. The check also refuses a host of the other architecture.
write_basic_package_version_file(fatlib-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fatlib-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/fatlib-config-version.cmake
        DESTINATION lib/cmake/fatlib)

configure_file(cmake/fatlib.pc.in fatlib.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fatlib.pc DESTINATION lib/pkgconfig)
