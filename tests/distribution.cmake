# Tests of documents. scripts/test-packages tests what is installed.
set(distribution ${CMAKE_CURRENT_SOURCE_DIR}/distribution)

add_test(NAME zelttoken_options COMMAND ${distribution}/options.sh
  $<TARGET_FILE:zelttoken> ${PROJECT_SOURCE_DIR}/docs/man/zelttoken.1.scd
  ${PROJECT_SOURCE_DIR}/packaging/completions/zelttoken)
add_test(NAME zelttokenmgrd_options COMMAND ${distribution}/options.sh
  $<TARGET_FILE:zelttokenmgrd> ${PROJECT_SOURCE_DIR}/docs/man/zelttokenmgrd.8.scd
  ${PROJECT_SOURCE_DIR}/packaging/completions/zelttokenmgrd)

add_test(NAME quoted_service COMMAND bash -c "diff examples/printing.h <(
    sed -n '/^```cpp$/,/^```$/p' docs/architecture.md | sed '1d;$d')"
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})

# The tests, and the phases of the torture, that docs/reliability.md refers to.
add_test(NAME documented_tests COMMAND bash -c [[
    ! grep -oE '[A-Z]+[a-z]+[A-Z][A-Za-z0-9]+' docs/reliability.md | sort -u |
      while read -r name; do grep -rqw "$name" tests tools scripts || echo "no test $name"; done |
      grep .]]
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
