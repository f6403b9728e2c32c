# Install rules of the project (library, host platform, in-process service, CLI,
# headers, CMake package, pkg-config, man page, units) and its Debian packages.
# Included from the top-level CMakeLists.txt after every target is defined.
# Every rule names the component, and so the package, its files belong to:
#   runtime  libtevash1      libtevash.so.1, libtevash_host.so.1
#   dev      libtevash-dev   headers, CMake package, pkg-config files,
#                            libtevash_service.a, the .so links
#   tools    tevash          the tool, its man page, completion and user units
#                            (also every rule without a component)
#   license  (no package: the packages carry it as their copyright file)

# ---- Install: library, host platform, in-process service, CLI, headers, CMake
# package, pkg-config, man page. The installed tree is relocatable: the library
# finds libtevash_host.so.1 through $ORIGIN, the tool finds both through
# $ORIGIN/<bin to lib>, and the package files locate the prefix from their own
# place.
set(TEVASH_INSTALL_TARGETS tevash tevash_host tevash_platform_headers)
if(TARGET tevash_service)
  list(APPEND TEVASH_INSTALL_TARGETS tevash_service)
  # The tool is no part of the CMake package: libtevash-dev works without it.
  install(TARGETS tevash_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # TEVASH_BIN_TO_LIB: see the run paths in CMakeLists.txt.
  set_target_properties(tevash_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${TEVASH_BIN_TO_LIB}"
    BUILD_WITH_INSTALL_RPATH ON)
  install(FILES tools/service/include/tevhost/embedded_service.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash/tevhost COMPONENT dev)
  # The man page compressed reproducibly (no name or time stamp in the gzip header).
  set(_tevash_man ${PROJECT_BINARY_DIR}/tevash.1.gz)
  add_custom_command(OUTPUT ${_tevash_man}
    COMMAND sh -c "gzip -9nc '${PROJECT_SOURCE_DIR}/doc/tevash.1' >'${_tevash_man}'"
    DEPENDS doc/tevash.1 VERBATIM)
  add_custom_target(tevash_man ALL DEPENDS ${_tevash_man})
  install(FILES ${_tevash_man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  # The sample member schema (the one demo loads).
  install(FILES examples/schema/demo-schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/tevash
    COMPONENT tools)
  # User units of a service manager: the handler service on its socket, a director
  # per application type. Where the manager looks (also under /usr/local), not LIBDIR.
  install(FILES systemd/tevash.socket systemd/tevash.service systemd/tevash-director@.service
    DESTINATION lib/systemd/user)
endif()
install(TARGETS ${TEVASH_INSTALL_TARGETS} EXPORT tevashTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash COMPONENT dev)
# The platform headers with the host extras, test seams included: an application
# that embeds the library tests against the same seams as this project.
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tevash/platform
  COMPONENT dev)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT license)
install(EXPORT tevashTargets NAMESPACE tevash:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash
  COMPONENT dev)
configure_package_config_file(cmake/tevashConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tevashConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tevashConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tevashConfig.cmake ${PROJECT_BINARY_DIR}/tevashConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tevash COMPONENT dev)
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
install(FILES ${PROJECT_BINARY_DIR}/tevash.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
if(TARGET tevash_service)
  configure_file(cmake/tevash-service.pc.in ${PROJECT_BINARY_DIR}/tevash-service.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/tevash-service.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
endif()


# ---- Debian packages: `cmake --build <build> --target deb` writes libtevash1,
# libtevash-dev and tevash into <build>/deb (packaging/build-debs.sh).
set(_tevash_deb_needs tevash tevash_host)
if(TARGET tevash_service)
  list(APPEND _tevash_deb_needs tevash_service tevash_cli tevash_man)
endif()
if(TARGET tevash_completion)
  list(APPEND _tevash_deb_needs tevash_completion)
endif()
add_custom_target(deb
  COMMAND ${PROJECT_SOURCE_DIR}/packaging/build-debs.sh ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/deb
  USES_TERMINAL VERBATIM)
add_dependencies(deb ${_tevash_deb_needs})
