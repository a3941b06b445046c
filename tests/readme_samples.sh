#!/bin/sh
# SPDX-License-Identifier: MIT
# Compiles every ```c block of the README as strict C11 against the built library and
# runs it in a scratch directory, so that the samples stay true.
set -eu
root="$1"; libdir="$2"; generated="$3"
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
