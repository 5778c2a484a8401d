#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs what building and testing need on a Debian machine, and unpacks
# the mipsel SQLite packages into a build-local sysroot. Idempotent: a second
# run installs nothing.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${MIPSEL_SYSROOT:-$top/build/mipsel-sysroot}
want_cross=${SWMGR_CROSS:-1}
want_fuzz=${SWMGR_FUZZ:-0}

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"

pkgs="build-essential cmake make googletest libgtest-dev libsqlite3-dev sqlite3 libbenchmark-dev
libcli11-dev nlohmann-json3-dev pkgconf dpkg-dev help2man"
[ "$want_cross" = 1 ] && pkgs="$pkgs gcc-mipsel-linux-gnu g++-mipsel-linux-gnu qemu-user"
# Fuzzing: clang with libFuzzer and the sanitizer runtimes.
[ "$want_fuzz" = 1 ] && pkgs="$pkgs clang libclang-rt-dev"

missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  echo "== installing:$missing"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends $missing
fi

if [ "$want_cross" = 1 ] && [ ! -f "$sysroot/usr/include/sqlite3.h" ]; then
  echo "== unpacking mipsel SQLite into $sysroot"
  # Multiarch install of libsqlite3-dev:mipsel fails on version skew with the
  # host's security updates; downloading and unpacking the packages works.
  if ! dpkg --print-foreign-architectures | grep -qx mipsel; then
    $sudo_cmd dpkg --add-architecture mipsel
    $sudo_cmd apt-get update -qq
  fi
  mkdir -p "$sysroot"
  scratch=$(mktemp -d)
  (cd "$scratch" && apt-get download -qq libsqlite3-dev:mipsel libsqlite3-0:mipsel)
  for d in "$scratch"/*.deb; do dpkg-deb -x "$d" "$sysroot"; done
  rm -rf "$scratch"
fi
