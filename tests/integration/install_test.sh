#!/usr/bin/env bash
# Installs into an empty prefix, and builds and runs programs against what is there: in C99 and C++17, found through
# pkg-config and through the CMake package. usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for component in runtime standin development tools services documentation; do
    cmake --install "$build" --prefix "$work/prefix" --component "$component" >"$work/log"
done
mv "$work/prefix" "$work/moved" # nothing may refer to where it was

cat >"$work/consumer.c" <<'PROGRAM'
#include <atls.h>
#include <proxymanager.h>
#include <atls/platform.h>

int main(void)
{
    ProxyManagerConfig config = get_http_proxy_config();
    atls_handle *handle = create_atls_handle();
    int result = atls_connect(&handle, "127.0.0.1", 0, 1, "/", 0);
    free_atls_handle(handle);
    cleanupProxyConfig(&config);
    return result == ATLS_SETUP_FAILED ? 0 : 1; /* there is no identity here */
}
PROGRAM
cp "$work/consumer.c" "$work/consumer.cpp"
export ATLS_PLATFORM_DIR=$work DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/none

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name atls.pc)")
flags() { pkg-config "$@" atls; }
[ "$(flags --modversion)" = 1.0.0 ]
libraries=$(flags --variable=libdir)
for compiler in "${CC:-cc} -std=c99" "${CXX:-c++} -std=c++17"; do
    case $compiler in *++*) program=consumer.cpp ;; *) program=consumer.c ;; esac
    # shellcheck disable=SC2046,SC2086
    $compiler -Wall -Wextra -Wpedantic -Werror $(flags --cflags) "$work/$program" -o "$work/by-pkg-config" \
        $(flags --libs) -Wl,-rpath,"$libraries"
    "$work/by-pkg-config"
done

printf '%s\n' 'cmake_minimum_required(VERSION 3.18)' 'project(consumer C CXX)' 'find_package(atls 1.0 REQUIRED)' \
    'set(CMAKE_C_STANDARD 99)' 'set(CMAKE_CXX_STANDARD 17)' 'foreach(kind c cpp)' 'add_executable(by-${kind} consumer.${kind})' \
    'target_link_libraries(by-${kind} PRIVATE atls::atls)' 'endforeach()' >"$work/CMakeLists.txt"
cmake -S "$work" -B "$work/consumers" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" >"$work/log"
cmake --build "$work/consumers" >>"$work/log" || { cat "$work/log"; exit 1; }
"$work/consumers/by-c"
"$work/consumers/by-cpp"

for program in "$work"/moved/bin/*; do
    "$program" --version >"$work/log"
    [ -s "$(find "$work/moved" -name "$(basename "$program").[18]")" ]
done
