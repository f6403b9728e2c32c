# Install rules of the project (library, host platform, in-process service, CLI,
# headers, CMake package, pkg-config, man page) and its Debian package.
# Included from the top-level CMakeLists.txt after every target is defined.

# ---- Install: library, host platform, in-process service, CLI, headers, CMake
# package, pkg-config, man page. The installed tree is relocatable: the library
# finds libtevash_host.so.1 through $ORIGIN, the tool finds both through
# $ORIGIN/<bin to lib>, and the package files locate the prefix from their own
# place.
set(TEVASH_INSTALL_TARGETS tevash tevash_host tevash_platform_headers)
if(TARGET tevash_service)
  list(APPEND TEVASH_INSTALL_TARGETS tevash_service tevash_cli)
  # TEVASH_BIN_TO_LIB: see the run paths in CMakeLists.txt.
  set_target_properties(tevash_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${TEVASH_BIN_TO_LIB}"
    BUILD_WITH_INSTALL_RPATH ON)
  install(FILES tools/service/include/tevhost/embedded_service.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash/tevhost)
  install(FILES doc/tevash.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
install(TARGETS ${TEVASH_INSTALL_TARGETS} EXPORT tevashTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash)
# The platform headers with the host extras, test seams included: an application
# that embeds the library tests against the same seams as this project.
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash/platform)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(EXPORT tevashTargets NAMESPACE tevash:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash)
configure_package_config_file(cmake/tevashConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tevashConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tevashConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tevashConfig.cmake ${PROJECT_BINARY_DIR}/tevashConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash)
# pkg-config: the prefix is found from the .pc file's own directory. Outside the
# system's library directories, -Wl,-rpath lets applications start without
# LD_LIBRARY_PATH.
file(RELATIVE_PATH TEVASH_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" TEVASH_PC_TO_PREFIX "${TEVASH_PC_TO_PREFIX}")
set(TEVASH_PC_RPATH "-Wl,-rpath,\${libdir}")
if(CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set(TEVASH_PC_RPATH "")
endif()
configure_file(cmake/tevash.pc.in ${PROJECT_BINARY_DIR}/tevash.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tevash.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET tevash_service)
  configure_file(cmake/tevash-service.pc.in ${PROJECT_BINARY_DIR}/tevash-service.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/tevash-service.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# ---- Debian package: `cpack -G DEB` in a build tree.
set(CPACK_PACKAGE_NAME tevash)
set(CPACK_PACKAGE_VENDOR "the tevash authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Handler settings library of an embedded device platform, with a host platform and tools")
set(CPACK_PACKAGE_DESCRIPTION
  "libtevash.so.1 keeps the settings of a device's jobs as handlers in a record store. The
package holds the library, the host platform it runs on (in-memory or SQLite record
store, message service, trace), the in-process handler service for applications,
headers, CMake and pkg-config files, and the tevash command-line tool.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "the tevash authors <tevash@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
find_program(TEVASH_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(TEVASH_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The package's own libraries, for dpkg-shlibdeps to resolve the tool against.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1, libsqlite3-0")
endif()
include(CPack)
