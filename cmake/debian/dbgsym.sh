#!/bin/sh
# SPDX-License-Identifier: MIT
# Makes libvokt1-dbgsym: the debug symbols of the shared library (which the runtime
# package ships stripped), found by the library's build ID, as Debian's own dbgsym
# packages hold them. Usage: dbgsym.sh LIBRARY OUTDIR VERSION ARCHITECTURE MAINTAINER
set -eu
library="$1"; out="$2"; version="$3"; arch="$4"; maintainer="$5"
id=$(readelf -n "$library" | sed -n 's/.*Build ID: *//p')
[ -n "$id" ] || { echo "no build ID in $library"; exit 1; }
root=$(mktemp -d); trap 'rm -rf "$root"' EXIT
dir="$root/usr/lib/debug/.build-id/$(echo "$id" | cut -c1-2)"
mkdir -p "$dir" "$root/usr/share/doc" "$root/DEBIAN"
objcopy --only-keep-debug --compress-debug-sections "$library" "$dir/$(echo "$id" | cut -c3-).debug"
chmod 0644 "$dir"/*.debug
ln -s libvokt1 "$root/usr/share/doc/libvokt1-dbgsym"
cat > "$root/DEBIAN/control" <<CONTROL
Package: libvokt1-dbgsym
Source: vokt
Version: $version
Architecture: $arch
Maintainer: $maintainer
Installed-Size: $(du -sk "$root/usr" | cut -f1)
Depends: libvokt1 (= $version)
Section: debug
Priority: optional
Description: debug symbols for libvokt1
Build-Ids: $id
Auto-Built-Package: debug-symbols
CONTROL
(cd "$root" && find usr -type f -exec md5sum {} + > DEBIAN/md5sums)
dpkg-deb --root-owner-group -Zxz --build "$root" "$out/libvokt1-dbgsym_${version}_${arch}.ddeb" >/dev/null
echo "CPack: - package: $out/libvokt1-dbgsym_${version}_${arch}.ddeb generated."
