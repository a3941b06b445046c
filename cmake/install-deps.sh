#!/bin/sh
# SPDX-License-Identifier: MIT
# Installs the Debian packages named as arguments that are missing. As root it runs
# apt-get; otherwise it prints the command to run and fails.
missing=""
for package in "$@"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing="$missing $package"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
  echo "installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq $missing >/dev/null
else
  echo "missing:$missing"
  echo "run: sudo apt-get install -y$missing"
  exit 1
fi
