# Installation in components: the library, the files needed to build programs with it, the same for
# C, and the daemon with its command line.
include(CMakePackageConfigHelpers)

add_library(ZELT::TokenManager ALIAS zelttokenmanager)
set_target_properties(zelttokenmanager PROPERTIES EXPORT_NAME TokenManager)
target_compile_features(zelttokenmanager INTERFACE cxx_std_17)

install(TARGETS zelttokenmanager EXPORT zelttokenmanagerTargets
  LIBRARY COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS zelttoken_c
  LIBRARY COMPONENT c_library NAMELINK_COMPONENT c_development)
install(TARGETS zelttoken RUNTIME COMPONENT daemon)
install(TARGETS zelttokenmgrd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)

# For programs that use the library.
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zelttokenmanager)
configure_package_config_file(cmake/zelttokenmanagerConfig.cmake.in
  zelttokenmanagerConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(zelttokenmanagerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zelttokenmanager.pc.in zelttokenmanager.pc @ONLY)
configure_file(cmake/zelttoken.pc.in zelttoken.pc @ONLY)

install(EXPORT zelttokenmanagerTargets NAMESPACE ZELT:: DESTINATION ${config_dir}
  COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/zelttokenmanagerConfig.cmake
  ${PROJECT_BINARY_DIR}/zelttokenmanagerConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/zelttokenmanager.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/zelttoken.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT c_development)
install(FILES include/zelttoken.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT c_development)
install(DIRECTORY include/zelttokenmanager DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(DIRECTORY examples
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzelttokenmanager-dev COMPONENT development
  PATTERN *.c EXCLUDE)
install(FILES examples/client.c
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzelttoken-dev/examples COMPONENT c_development)

# For administrators.
configure_file(packaging/zelttokenmgrd.service.in zelttokenmgrd.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelttokenmgrd.service packaging/zelttokenmgrd.socket
  DESTINATION lib/systemd/system COMPONENT daemon)
install(FILES packaging/sysusers.conf DESTINATION lib/sysusers.d RENAME zelttokenmgr.conf
  COMPONENT daemon)
install(FILES packaging/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME zelttokenmgr.conf
  COMPONENT daemon)
install(FILES packaging/completions/zelttoken packaging/completions/zelttokenmgrd
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT daemon)

include(cmake/Documentation.cmake)
if(ZELT_DEBIAN)
  include(packaging/debian/Debian.cmake)
endif()
