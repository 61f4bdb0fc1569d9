# The Debian packages that cpack builds. Configure with the prefix /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "Zelt token manager maintainers <maintainers@zelt.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # the first line of each description
set(CPACK_COMPONENTS_ALL library development daemon c_library c_development python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(library libzelttokenmanager${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/triggers ${CMAKE_CURRENT_LIST_DIR}/library/symbols)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "access tokens between local processes (library)
A token states what the package of the requesting process is granted. This
library requests, validates, transfers and revokes tokens through the token
manager's daemon, which is in the package zelttokenmgr.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzelttokenmanager-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${library} (= ${version}), libboost-dev (>= 1.74), libjsoncpp-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "access tokens between local processes (development)
A token states what the package of the requesting process is granted. This
package contains the files needed to build programs with the token manager's
library: headers, files for CMake and pkg-config, a manual page and examples.")

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME zelttokenmgr)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SHLIBDEPS ON)
# The library's package does not exist yet when cpack looks up dependencies, so it is named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
  "${library} (>= ${version}), systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm
  ${CMAKE_CURRENT_LIST_DIR}/postrm ${CMAKE_CURRENT_LIST_DIR}/conffiles)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "access tokens between local processes (daemon)
A token states what the package of the requesting process is granted. This
package contains the daemon, which issues, validates, revokes and transfers
tokens, and the command zelttoken.")

include(${CMAKE_CURRENT_LIST_DIR}/Clients.cmake)

# string(TIMESTAMP) uses SOURCE_DATE_EPOCH if it is set.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in changelog.Debian @ONLY)
execute_process(COMMAND gzip -n9 -f ${PROJECT_BINARY_DIR}/changelog.Debian
  COMMAND_ERROR_IS_FATAL ANY)

# Owned by root, and empty until somebody grants something.
foreach(directory /etc/zelttokenmgr/installed /var/packages)
  install(DIRECTORY DESTINATION ${directory} COMPONENT daemon)
endforeach()

install(FILES ${CMAKE_CURRENT_LIST_DIR}/README.Debian DESTINATION share/doc/zelttokenmgr COMPONENT daemon)
install(FILES packaging/default DESTINATION /etc/default RENAME zelttokenmgr COMPONENT daemon)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides
  DESTINATION share/lintian/overrides RENAME zelttokenmgr COMPONENT daemon)

foreach(component LIBRARY DEVELOPMENT DAEMON C_LIBRARY C_DEVELOPMENT PYTHON)
  string(TOLOWER ${component} name)
  install(FILES ${PROJECT_BINARY_DIR}/changelog.Debian.gz
    DESTINATION share/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME} COMPONENT ${name})
endforeach()

include(CPack)
