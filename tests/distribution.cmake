# Tests of documents. scripts/test-packages tests what is installed.
foreach(page zelttoken.1 zelttokenmgrd.8)
  cmake_path(GET page STEM program)
  add_test(NAME ${program}_options COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/distribution/options.sh $<TARGET_FILE:${program}>
    ${PROJECT_SOURCE_DIR}/docs/man/${page}.scd ${PROJECT_SOURCE_DIR}/packaging/completions/${program})
endforeach()

add_test(NAME quoted_service COMMAND bash -c "diff examples/printing.h <(
    sed -n '/^```cpp$/,/^```$/p' docs/architecture.md | sed '1d;$d')"
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
