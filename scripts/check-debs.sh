#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check-debs.sh DIR
# Checks the Debian packages that `cpack -G DEB` left in DIR: each holds
# exactly the files (and symbolic links) listed in packaging/debian/PKG.list,
# depends on what PKG.depends names (a name alone matches any version), and
# the daemon they ship is the production one (no --sim) and runs.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
version=$(sed -n 's/^project(swmgr VERSION \([0-9.]*\).*/\1/p' "$top/CMakeLists.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0

for list in "$top"/packaging/debian/*.list; do
  pkg=$(basename "$list" .list)
  deb=$(ls "$dir/${pkg}_${version}_"*.deb 2>/dev/null | head -n 1)
  if [ -z "$deb" ]; then echo "$pkg: no package in $dir"; fail=1; continue; fi
  sed "s/@MULTIARCH@/$multiarch/" "$list" | LC_ALL=C sort > "$work/want"
  dpkg-deb -c "$deb" | awk '$6 !~ /\/$/ { print $6 ($7 == "->" ? " -> " $8 : "") }' | LC_ALL=C sort > "$work/got"
  if ! diff -u "$work/want" "$work/got"; then echo "$pkg: file list differs (- expected, + packaged)"; fail=1; fi
  depends=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/^ *//')
  while IFS= read -r dep; do
    dep=$(echo "$dep" | sed "s/@VERSION@/$version/")
    echo "$depends" | grep -qxF "$dep" || echo "$depends" | grep -q "^$dep (" ||
      { echo "$pkg: does not depend on $dep (Depends: $(echo $depends))"; fail=1; }
  done < "$top/packaging/debian/$pkg.depends"
  dpkg-deb -x "$deb" "$work/root"
done

if [ -x "$work/root/usr/sbin/swmgrd" ]; then
  run() { LD_LIBRARY_PATH="$work/root/usr/lib/$multiarch" "$@"; }
  got=$(run "$work/root/usr/sbin/swmgrd" --version | cut -d' ' -f1-2)
  [ "$got" = "swmgrd $version" ] || { echo "packaged swmgrd --version: $got"; fail=1; }
  if run "$work/root/usr/sbin/swmgrd" --help | grep -q -- '--sim'; then
    echo "packaged swmgrd has --sim"; fail=1
  fi
fi
[ $fail -eq 0 ] && echo "packages ok: $(ls "$dir"/*.deb | wc -l) checked"
exit $fail
