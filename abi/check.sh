#!/bin/sh
# SPDX-License-Identifier: MIT
# Compares the built libvokt.so with the committed ABI baseline of its SONAME. Added
# functions pass; any change to what the baseline exports (a removed function, a changed
# signature, a changed layout of a public struct) fails, unless the SONAME and the
# baseline are moved on together ('make abi-baseline', then commit abi/).
set -u
lib="$1"; baseline_dir="$2"
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')  # readelf reads any machine's ELF
baseline="$baseline_dir/$soname.abi"
if [ ! -f "$baseline" ]; then
  echo "no ABI baseline for $soname: run 'make abi-baseline' and commit $baseline"
  exit 1
fi
abidiff --no-show-locs "$baseline" "$lib"
# Without the additions, abidiff's status is 0 only when nothing the baseline has changed
# (its bits: 1 error, 2 usage, 4 change, 8 incompatible change).
abidiff --no-show-locs --no-added-syms "$baseline" "$lib" >/dev/null 2>&1
status=$?
if [ "$status" -ne 0 ]; then
  echo "ABI check failed against $baseline (abidiff status $status)"
  exit 1
fi
echo "ABI of $soname is compatible with its baseline"
