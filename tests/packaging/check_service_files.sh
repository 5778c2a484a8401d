#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_service_files.sh UNIT OPENWRT_INIT [SWMGRD]
# The procd script must parse; the systemd unit must pass systemd-analyze
# verify (when it is installed), with ExecStart pointed at the built daemon
# because verify insists that the program exists.
set -eu
unit=$1; init=$2; daemon=${3:-}
sh -n "$init"
grep -q '^USE_PROCD=1$' "$init" || { echo "$init: not a procd script"; exit 1; }
grep -q '^Type=notify$' "$unit" || { echo "$unit: not Type=notify"; exit 1; }
if ! command -v systemd-analyze >/dev/null 2>&1 || [ -z "$daemon" ]; then
  echo "systemd-analyze or the daemon missing: only the procd script was checked"
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s|^ExecStart=[^ ]*|ExecStart=$daemon|" "$unit" > "$work/swmgrd.service"
out=$(SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$work/swmgrd.service" 2>&1) || {
  echo "$out"; exit 1; }
# verify also warns about units it cannot see here; only this unit counts.
if echo "$out" | grep -F "swmgrd.service" ; then exit 1; fi
echo "service files ok"
