#!/bin/sh
# Installs the built library into a temporary prefix, then builds and runs a C consumer
# (pkg-config, cc) and a C++ consumer (CMake find_package, c++) against it.
set -eu
build="$1"; tests="$2"
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
test -f "$tmp/prefix/include/vokt/vokt.h" && test ! -e "$tmp/prefix/include/vokt/internal"
test -L "$tmp/prefix/lib/libvokt.so" && test -e "$tmp/prefix/lib/libvokt.so.1" && test -f "$tmp/prefix/lib/libvokt.a"

export PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig"
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$tests/c_check.c" $(pkg-config --cflags --libs vokt) \
   -Wl,-rpath,"$tmp/prefix/lib" -o "$tmp/hello_c"
"$tmp/hello_c" | grep -qx "c_check: ok"

cmake -S "$tests/consumers/cxx" -B "$tmp/cxx" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/cxx" >/dev/null
"$tmp/cxx/hello" | grep -qx "hello-from-C++"
echo "installed, and both consumers built and ran"
