#!/usr/bin/env bash
# Installs into an empty prefix, and builds and runs programs against what is there: in C99, found through pkg-config,
# and in C++, found through both packages. usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >"$work/log"
mv "$work/prefix" "$work/moved" # nothing may refer to where it was

cp "$source/examples/post.c" "$work/post.cpp"
headers="-includeproxymanager.h -includeatls/platform.h"
export ATLS_PLATFORM_DIR=$work DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/none
lacks_identity() { [ "$("$@" 127.0.0.1 1 /atls x || echo $?)" = 2 ]; }

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name atls.pc)")
flags() { pkg-config "$@" atls; }
[ "$(flags --modversion)" = 1.0.0 ]
# shellcheck disable=SC2046,SC2086
"${CC:-cc}" -std=c99 -Wall -Wextra -Wpedantic -Werror $headers $(flags --cflags) "$source/examples/post.c" \
    -o "$work/by-pkg-config" $(flags --libs) -Wl,-rpath,"$(flags --variable=libdir)"
lacks_identity "$work/by-pkg-config"

printf '%s\n' 'cmake_minimum_required(VERSION 3.18)' 'project(consumer CXX)' 'find_package(atls 1.0 REQUIRED COMPONENTS cpp)' \
    "add_compile_options(-std=c++17 -Wall -Wpedantic -Werror -includeatls.hpp $headers)" 'add_executable(by-package post.cpp)' \
    'target_link_libraries(by-package PRIVATE atls::cpp)' >"$work/CMakeLists.txt"
cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" >"$work/log"
cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
lacks_identity "$work/build/by-package"

[ "$("$work/moved/libexec/atls/evaluate-pac")" = "FPAC_SCRIPT is not set; this program is proxymanagerd's own" ]
for program in "$work"/moved/bin/*; do
    "$program" --version >"$work/log"
    [ -s "$(find "$work/moved" -name "$(basename "$program").[18]")" ]
done
