#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_needed.sh READELF LIBSWMGR
# The system library needs the C library, libm and SQLite only: no C++
# run-time or unwinder on the device.
readelf=${1:-readelf}; lib=$2
needed=$("$readelf" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
[ -n "$needed" ] || { echo "no NEEDED entries read from $lib"; exit 1; }
fail=0
for name in $needed; do
  case $name in
    libc.so.*|libm.so.*|libsqlite3.so.*) ;;
    *) echo "unexpected NEEDED entry: $name"; fail=1 ;;
  esac
done
[ $fail -eq 0 ] && echo "NEEDED ok:" $needed
exit $fail
