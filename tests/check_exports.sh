#!/bin/sh
# SPDX-License-Identifier: MIT
# Compares the functions exported by the shared library with those declared VOKT_API.
set -eu
lib="$1"; headers="$2"; nm="${3:-nm}"  # a cross build's own nm reads its machine's library
expected=$(grep -rhoE 'VOKT_API[^;(]*[ *]([A-Za-z_][A-Za-z0-9_]*)\(' "$headers" --include='*.h' \
  | sed -E 's/.*[ *]([A-Za-z_][A-Za-z0-9_]*)\($/\1/' | grep -v '^__' | sort -u)
actual=$("$nm" -D --defined-only "$lib" | awk '$2 ~ /^[TWV]$/ {print $3}' | sort -u)
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from the public API:"
  printf '%s\n' "$expected" > /tmp/vokt-expected.$$; printf '%s\n' "$actual" > /tmp/vokt-actual.$$
  diff /tmp/vokt-expected.$$ /tmp/vokt-actual.$$ || true
  rm -f /tmp/vokt-expected.$$ /tmp/vokt-actual.$$
  exit 1
fi
echo "$(printf '%s\n' "$actual" | wc -l) exported functions match the public API"
