#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_exports.sh NM LIBSWMGR LIBPORT EXPORTS_LIST
# The system library exports every listed name and no platform symbol; the
# port library defines every platform symbol.
nm=${1:-nm}; lib=$2; port=$3; list=$4
fail=0
defined() { "$nm" -D --defined-only "$1" | awk '{print $3}' | sort -u; }
libsyms=$(defined "$lib") || exit 1
portsyms=$(defined "$port") || exit 1

for name in $(grep -v '^#' "$list"); do
  echo "$libsyms" | grep -qx "$name" || { echo "missing export: $name"; fail=1; }
done

platform="osaListInit osaListFirst osaListNext osaListNodeAppend osaListNodeRemove
osaOpen osaIoctl osaClose osaFileOpen osaFilePrintf osaFileClose osaUnlink osaCmdExec
mbusInit mbusRegister mbusListen mbusIoctl mbusUnRegister mbusDeInit
sqlite3QueryResGet sqliteBusyHandler"
for name in $platform; do
  echo "$libsyms" | grep -qx "$name" && { echo "platform symbol defined in the system library: $name"; fail=1; }
  echo "$portsyms" | grep -qx "$name" || { echo "port library lacks: $name"; fail=1; }
done

# Internal helpers stay hidden: no C++ symbols leave the library.
leaked=$(echo "$libsyms" | grep '^_Z' | head -5)
[ -n "$leaked" ] && { echo "internal symbols exported:"; echo "$leaked"; fail=1; }

[ $fail -eq 0 ] && echo "exports ok: $(grep -vc '^#' "$list") names checked"
exit $fail
