# The packages of the clients in C and Python.
set(c_library libzelttoken1)
set(CPACK_DEBIAN_C_LIBRARY_PACKAGE_NAME ${c_library})
set(CPACK_DEBIAN_C_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_C_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_C_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/triggers ${CMAKE_CURRENT_LIST_DIR}/c_library/symbols)
set(CPACK_COMPONENT_C_LIBRARY_DESCRIPTION "access tokens between local processes (C library)
A token states what the package of the requesting process is granted. This
library lets C programs request, validate, transfer and revoke tokens through
the token manager's daemon, which is in the package zelttokenmgr.")

set(CPACK_DEBIAN_C_DEVELOPMENT_PACKAGE_NAME libzelttoken-dev)
set(CPACK_DEBIAN_C_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_C_DEVELOPMENT_PACKAGE_DEPENDS "${c_library} (= ${version})")
set(CPACK_COMPONENT_C_DEVELOPMENT_DESCRIPTION "access tokens between local processes (C development)
A token states what the package of the requesting process is granted. This
package contains the files needed to build C programs with the token manager's
library: a header, a file for pkg-config and a manual page.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zelttokenmanager)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.9)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/python/postinst ${CMAKE_CURRENT_LIST_DIR}/python/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "access tokens between local processes (Python)
A token states what the package of the requesting process is granted. This
package lets Python programs request, validate, transfer and revoke tokens
through the token manager's daemon, which is in the package zelttokenmgr.")
install(DIRECTORY python/zelttokenmanager DESTINATION lib/python3/dist-packages COMPONENT python
  FILES_MATCHING PATTERN *.py PATTERN py.typed PATTERN __pycache__ EXCLUDE)
install_document(python.md python3-zelttokenmanager python)
