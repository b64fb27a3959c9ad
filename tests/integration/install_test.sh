#!/usr/bin/env bash
# Installs into an empty prefix, and builds and runs programs against what is there: in C99, found through pkg-config,
# and in C++, found through both packages. usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >"$work/log"
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
{ printf '#include <%s.hpp>\n' atls proxymanager && cat "$work/consumer.c"; } >"$work/consumer.cpp"
export ATLS_PLATFORM_DIR=$work DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/none

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/moved" -name atls.pc)")
flags() { pkg-config "$@" atls; }
[ "$(flags --modversion)" = 1.0.0 ]
# shellcheck disable=SC2046
"${CC:-cc}" -std=c99 -Wall -Wextra -Wpedantic -Werror $(flags --cflags) "$work/consumer.c" -o "$work/by-pkg-config" \
    $(flags --libs) -Wl,-rpath,"$(flags --variable=libdir)"
"$work/by-pkg-config"

printf '%s\n' 'cmake_minimum_required(VERSION 3.18)' 'project(consumer CXX)' 'find_package(atls 1.0 REQUIRED COMPONENTS cpp)' \
    'add_compile_options(-std=c++17 -Wall -Wextra -Wpedantic -Werror)' 'add_executable(by-package consumer.cpp)' \
    'target_link_libraries(by-package PRIVATE atls::cpp)' >"$work/CMakeLists.txt"
cmake -S "$work" -B "$work/consumers" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" >"$work/log"
cmake --build "$work/consumers" >>"$work/log" || { cat "$work/log"; exit 1; }
"$work/consumers/by-package"

for program in "$work"/moved/bin/*; do
    "$program" --version >"$work/log"
    [ -s "$(find "$work/moved" -name "$(basename "$program").[18]")" ]
done
