# The documents for administrators and programmers, with links that lead somewhere when installed.
function(install_document name package component)
  file(READ docs/${name} text)
  string(REPLACE "](../include/" "](${CMAKE_INSTALL_FULL_INCLUDEDIR}/" text "${text}")
  if(NOT package STREQUAL zelttokenmgr)
    string(REGEX REPLACE "\\]\\(([a-z]+\\.md)" "](../zelttokenmgr/\\1" text "${text}")
  endif()
  file(CONFIGURE OUTPUT documents/${package}/${name} CONTENT "${text}" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS docs/${name})
  install(FILES ${PROJECT_BINARY_DIR}/documents/${package}/${name}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()
foreach(name administration errors performance protocol python reliability)
  install_document(${name}.md zelttokenmgr daemon)
endforeach()
install(DIRECTORY docs/plots DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zelttokenmgr COMPONENT daemon)

# The manual pages, if scdoc is installed, and the reference of the library's interface (target
# "docs"), if Doxygen is installed.
find_program(SCDOC scdoc)
find_program(GZIP gzip)
if(SCDOC AND GZIP)
  foreach(page zelttoken.1 zelttoken.3 zelttokenmanager.3 zelttoken-files.5 zelttokenmgrd.8)
    string(REGEX MATCH "[0-9]$" section ${page})
    set(source ${PROJECT_SOURCE_DIR}/docs/man/${page}.scd)
    set(example ${PROJECT_SOURCE_DIR}/examples/package.cpp)
    if(page STREQUAL zelttoken.3)
      set(component c_development)
      set(example ${PROJECT_SOURCE_DIR}/examples/client.c)
    elseif(section EQUAL 3)
      set(component development)
    else()
      set(component daemon)
    endif()
    # The line @EXAMPLE@ is replaced by the example's text, so that the two never differ. scdoc
    # treats a backslash as an escape.
    add_custom_command(OUTPUT ${page}.gz
      COMMAND sed "s/\\\\/&&/g" ${example} |
        sed -e "/^@EXAMPLE@/r /dev/stdin" -e "/^@EXAMPLE@/d" ${source} | ${SCDOC} > ${page}
      COMMAND ${GZIP} -n9 -f ${page}
      DEPENDS ${source} ${example} VERBATIM)
    list(APPEND man_pages ${PROJECT_BINARY_DIR}/${page}.gz)
    install(FILES ${PROJECT_BINARY_DIR}/${page}.gz
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endforeach()
  add_custom_target(man ALL DEPENDS ${man_pages})
else()
  message(STATUS "No manual pages: they need scdoc and gzip")
endif()

find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  configure_file(docs/Doxyfile.in Doxyfile @ONLY)
  add_custom_target(docs COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
endif()
