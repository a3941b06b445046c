#!/bin/sh
# SPDX-License-Identifier: MIT
# Builds and runs a C consumer (pkg-config, cc) and a C++ consumer (CMake find_package,
# c++) against vokt as a user gets it: installed into a temporary prefix ('install'), or
# unpacked from the Debian packages and the .tar.gz that 'make package' makes ('package').
set -eu
mode="$1"; build="$2"; tests="$3"
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT

libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")

consume() {  # prefix
  prefix="$1"; lib="$prefix/$libdir"
  for file in include/vokt/vokt.h include/vokt/core/vokt_version.h "$libdir/libvokt.so.1" "$libdir/libvokt.a"; do
    test -e "$prefix/$file" || { echo "missing: $file"; exit 1; }
  done
  test -L "$lib/libvokt.so" || { echo "missing: the link name libvokt.so"; exit 1; }
  test ! -e "$prefix/include/vokt/internal" || { echo "private headers installed"; exit 1; }
  flags=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs vokt)
  cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$tests/c_check.c" $flags -Wl,-rpath,"$lib" -o "$tmp/hello_c"
  "$tmp/hello_c" | grep -qx "c_check: ok"
  # The static archive links warning-free into a program built with any compiler and flags.
  for compiler in gcc clang; do
    command -v $compiler >/dev/null || continue
    $compiler -std=c11 -O2 -Wall -Wextra -Werror "$tests/c_check.c" -I"$prefix/include" "$lib/libvokt.a" -pthread \
      -o "$tmp/static_c"
    "$tmp/static_c" | grep -qx "c_check: ok"
  done
  rm -rf "$tmp/cxx"
  cmake -S "$tests/consumers/cxx" -B "$tmp/cxx" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$tmp/cxx" >/dev/null
  "$tmp/cxx/hello" | grep -qx "hello-from-C++"
}

if [ "$mode" = install ]; then
  cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
  consume "$tmp/prefix"
  echo "installed, and both consumers built and ran"
  exit 0
fi

(cd "$tmp" && cpack --config "$build/CPackConfig.cmake" >/dev/null)
runtime=$(ls "$tmp"/libvokt1_*.deb)
dev=$(ls "$tmp"/libvokt-dev_*.deb)
archive=$(ls "$tmp"/vokt-*.tar.gz)
# The runtime package holds the shared library only; the rest is in the development one.
dpkg-deb -c "$runtime" | grep -q "usr/$libdir/libvokt.so.1 "
if dpkg-deb -c "$runtime" | grep -q -e 'include/' -e '\.a$'; then echo "development files in $runtime"; exit 1; fi
dpkg-deb -f "$dev" Depends | grep -q '^libvokt1 ('
for deb in "$runtime" "$dev"; do dpkg-deb -x "$deb" "$tmp/root"; done
consume "$tmp/root/usr"
mkdir "$tmp/unpacked" && tar -xzf "$archive" -C "$tmp/unpacked"
consume "$(ls -d "$tmp"/unpacked/vokt-*)/usr"
echo "packages made, and both consumers built and ran against the Debian packages and the archive"
