#!/bin/sh
# Installs into a temporary directory, and builds and runs a program against it with CMake and with
# pkg-config, and an example in C.
# Usage: consumers.sh SOURCE BUILD
set -eu
source=$1
installed=$(mktemp -d)
trap 'rm -rf "$installed"' EXIT
cmake --install "$2" --prefix "$installed" >/dev/null

# Where the installed examples are.
export CPLUS_INCLUDE_PATH="$installed/share/doc/libzelttokenmanager-dev/examples"

cmake -G Ninja -S "$source/tests/distribution" -B "$installed/build" -DCMAKE_PREFIX_PATH="$installed" \
  -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_EXTENSIONS=OFF >/dev/null
cmake --build "$installed/build"
"$installed/build/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$installed" -name zelttokenmanager.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # several words
"${CXX:-c++}" -std=c++17 "$source/tests/distribution/consumer.cpp" \
  -o "$installed/consumer" $(pkg-config --cflags --libs zelttokenmanager)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zelttokenmanager) "$installed/consumer"

# shellcheck disable=SC2046 # several words
gcc -std=c11 -Wall -Wextra -Wpedantic -Wstrict-prototypes -Wconversion -Werror \
  "$source/examples/client.c" -o "$installed/client" $(pkg-config --cflags --libs zelttoken)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zelttoken) "$installed/client" || [ $? -eq 64 ]
