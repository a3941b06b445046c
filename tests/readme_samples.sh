#!/bin/sh
# SPDX-License-Identifier: MIT
# Compiles every ```c block of the README as strict C11 against the built library and
# runs it in a scratch directory, so that the samples stay true; then runs the install
# commands of "Installing and linking" as written, into a scratch HOME, on the first sample.
set -eu
root="$1"; libdir="$2"; generated="$3"; direct="$4"
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
awk -v dir="$tmp" '
  /^```c$/ { n++; file = dir "/sample" n ".c"; inside = 1; next }
  /^```/   { inside = 0; next }
  inside   { print > file }
' "$root/README.md"
count=0
for sample in "$tmp"/sample*.c; do
  [ -e "$sample" ] || continue
  count=$((count + 1))
  cc -std=c11 -Wall -Wextra -Wpedantic -Werror -I"$root" -I"$generated" "$sample" -L"$libdir" -lvokt -Wl,-rpath,"$libdir" \
     -o "${sample%.c}"
  (cd "$tmp" && "${sample%.c}" >/dev/null)
done
[ "$count" -gt 0 ] || { echo "no C samples found in README.md"; exit 1; }
echo "$count README samples compiled and ran"

awk '/^## Installing and linking/ { section = 1 } section && /^```sh$/ { inside = 1; next }
     inside && /^```/ { exit } inside { print }' "$root/README.md" > "$tmp/install.sh"
grep -q "make install" "$tmp/install.sh" || { echo "no install commands found in README.md"; exit 1; }
cp "$tmp/sample1.c" "$tmp/app.c"
# make means the project's Makefile, for the build folder this test belongs to.
(cd "$tmp" && HOME="$tmp/home" DIRECT_LOCK="$direct" sh -eu -c \
  "make() { command make --no-print-directory -C '$root' \"\$@\"; }; $(cat "$tmp/install.sh")" >/dev/null)
echo "the install commands worked as written"
