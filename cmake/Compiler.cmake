# Compiler settings for all targets.
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The same files from any directory: an absolute path would leave its length behind when installed.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor
                    -Wold-style-cast)
if(ZELT_WERROR)
  add_compile_options(-Werror)
endif()

# Store files may outgrow 2 GiB on every target.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)

if(ZELT_SANITIZE)
  add_compile_options(-fsanitize=${ZELT_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZELT_SANITIZE})
endif()
if(ZELT_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
