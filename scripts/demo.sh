#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A guided tour of swmgr on simulated hardware: builds the daemon and its
# client, starts swmgrd --sim on a private bus directory with the example
# router configuration, changes a few things the way the router's other
# programs would, and shows after each step what the switch chip, the packet
# engine and the host's VLAN interfaces look like. Nothing on this machine is
# touched outside a temporary directory.
#
#   make demo                 (or scripts/demo.sh)
#   DEMO_KEEP=1 make demo     keeps the temporary directory (database, logs)
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${DEMO_BUILD:-$top/build/host}
jobs=$(nproc 2>/dev/null || echo 2)

if [ -t 1 ]; then bold=$(printf '\033[1m'); dim=$(printf '\033[2m'); off=$(printf '\033[0m'); else bold= dim= off=; fi
say() { printf '%s\n' "$*"; }
step() { printf '\n%s== %s%s\n' "$bold" "$*" "$off"; }
# Shows a command as one would type it (swmgrctl for the ctl helper), then runs it.
run() {
  shown=
  for a in "$@"; do
    [ "$a" = ctl ] && [ -z "$shown" ] && a=swmgrctl
    case $a in *" "*|*"'"*|"") a="\"$a\"" ;; esac
    shown="$shown${shown:+ }$a"
  done
  printf '%s$ %s%s\n' "$dim" "$shown" "$off"
  "$@"
}

step "Preparing: packages, build"
SWMGR_CROSS=0 "$top/scripts/install-deps.sh"
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release -DSWMGR_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs" --target swmgrd swmgrctl >/dev/null
swmgrd=$build/tools/swmgrd
swmgrctl=$build/tools/swmgrctl
[ -x "$swmgrd" ] && [ -x "$swmgrctl" ] || { say "swmgrd/swmgrctl were not built (see the CMake output)"; exit 1; }

work=$(mktemp -d /tmp/swmgr-demo.XXXXXX)
bus=$work/bus
db=$work/router.db
daemon=
logger=
cleanup() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null || true
  [ -n "$logger" ] && kill "$logger" 2>/dev/null || true
  wait 2>/dev/null || true
  if [ "${DEMO_KEEP:-0}" = 1 ]; then say "(kept $work)"; else rm -rf "$work"; fi
}
trap cleanup EXIT INT TERM

ctl() { "$swmgrctl" --bus-dir "$bus" "$@"; }
# Lines the daemon logged since the last call.
seen=0
news() {
  total=$(wc -l < "$work/log.txt")
  if [ "$total" -gt "$seen" ]; then
    say "${dim}what swmgrd logged:${off}"
    tail -n +"$((seen + 1))" "$work/log.txt" | sed 's/^/    /'
  fi
  seen=$total
}
# The simulated hardware, with what changed since the last look marked
# (+ new, - gone).
: > "$work/state.prev"
show() {
  sleep 0.2  # log records travel on their own; let them arrive
  news
  # The hardware only; the models' recent lines (the sections at the end) are shown where they tell something.
  ctl state | sed '/^== .*(the last [0-9]* at most)$/,$d' > "$work/state.now"
  say "${dim}simulated hardware (+ new, - gone since the last step):${off}"
  if [ -s "$work/state.prev" ]; then
    diff -U 10000 "$work/state.prev" "$work/state.now" | tail -n +4 | sed 's/^ /  /; s/^\([+-]\)/\1 /' || true
    cmp -s "$work/state.prev" "$work/state.now" && sed 's/^/  /' "$work/state.now"
  else
    sed 's/^/  /' "$work/state.now"
  fi
  cp "$work/state.now" "$work/state.prev"
}
# The engine's recent lines that match $1 (the last $2 of them), with what its tools said.
engine_lines() {
  say "${dim}the packet engine's last table lines and what its tools said (\\n: the MAC text's newline):${off}"
  ctl state | sed -n '/^== engine: lines/,/^== /p' | grep -E "$1" | tail -n "${2:-20}" | sed 's/^/  /'
}

step "1. The configuration database"
say "A router with two switches: the SoC's packet switch engine (PSE) on top, and a"
say "five-port switch chip (BCM) below it. PSE port 1 stands for the chip's ports"
say "(phyDevice \"BCM:0,...,BCM:4\"); PSE port 0 faces the WAN. Two VLANs exist."
sqlite3 "$db" < "$top/examples/router.sql"
run sqlite3 -header -column "$db" "SELECT switchName, switchDevice, numPorts, switchLevel FROM swGlobalCfg"
run sqlite3 -header -column "$db" "SELECT switchName, portNumber, interfaceName, phyDevice FROM swPortConfig"
run sqlite3 -header -column "$db" "SELECT vlanId, interfaceName, LogicalIfName, fwdMap, untagMap FROM vlanEncapIf"

step "2. Start the daemon on simulated hardware"
say "swmgrctl log plays the bus's log service; swmgrd sends its messages there."
say "Both use a private bus directory: every swmgrctl below runs with --bus-dir $bus."
"$swmgrctl" --bus-dir "$bus" log > "$work/log.txt" 2>/dev/null &
logger=$!
i=0; while [ ! -S "$bus/mod-20.sock" ] && [ $i -lt 100 ]; do sleep 0.05; i=$((i + 1)); done
printf '%s$ swmgrd --db %s --sim --bus-dir %s &%s\n' "$dim" "$db" "$bus" "$off"
"$swmgrd" --db "$db" --sim --bus-dir "$bus" 2> "$work/swmgrd.err" &
daemon=$!
i=0; until ctl state > /dev/null 2>&1; do
  sleep 0.05; i=$((i + 1))
  [ $i -lt 200 ] || { say "swmgrd did not start:"; cat "$work/swmgrd.err"; exit 1; }
done
say "It loaded the switches, ports and VLANs and programmed them:"
seen=$(wc -l < "$work/log.txt")
say "(${seen} log lines at start-up; the last ones:)"
tail -n 5 "$work/log.txt" | sed 's/^/    /'
show
say ""
say "Look at the packet engine: VLAN 20 has a table entry (no PSE port joins it, so no MAC"
say "address), VLAN 10 has none, and there is no address (ARL) entry. VLAN 10 reaches PSE port 1,"
say "so its two engine lines carry the interface's MAC text, which ends with a newline. The"
say "device's shell ends the command there: vlan_table_func and arl_table_func run without their"
say "last values and refuse, and the rest of each line is a command of its own that is not found"
say "(status 127, which the driver counts as success). The simulator shows what the device does."
engine_lines 'table_func|not found'
say "The pause-frame registers read 0x80080, not 0x80000000: the pipelines write the high half"
say "with 0x and the low half without its leading zeros. (Turning pause frames off would not clear"
say "bit 31: in awk, ^ is a power, not an exclusive or, so the mask becomes all ones.)"

step "3. Add VLAN 100 by inserting a row"
say "swmgrctl sql runs the statement and sends the daemon the change event"
say "(table, row id, operation 18 = insert) that the database would send."
run ctl sql --db "$db" "INSERT INTO vlanEncapIf (vlanId, interfaceName, LogicalIfName, ingressMap, egressMap, fwdMap, untagMap, inSwitchOnly) VALUES (100, 'eth0', 'br-guest', '', '', '0,1', '0', 0)"
show
say "The chip and the host have VLAN 100; the engine has no entry for it, for VLAN 10's reason:"
engine_lines 'table_func|not found' 6

step "4. The WAN link reports its bandwidth"
say "An interface event (code 5, event 22) with 100000 kbps of which 80% may go"
say "upstream becomes a rate limit on port 1 of the top-level switch."
run ctl ifevent eth1 22 --bandwidth 100000 --upstream 80
show

step "5. Queue scheduling on the packet engine"
say "A driver command (code 48) addressed to the switch named PSE: four queues,"
say "weighted scheduling (mode 3), weights 1, 2, 4 and 8, on every port."
run ctl cmd PSE queue-sched --queues 4 --mode 3 --weights 1,2,4,8
show

step "6. Delete VLAN 100"
say "The delete event carries the row's old values, read before the row went."
run ctl sql --db "$db" "DELETE FROM vlanEncapIf WHERE vlanId = 100"
show

step "7. A picture of the topology"
say "swmgrctl state --dot writes the switches by level, their ports, which lower port each upper"
say "port stands for, and the VLANs each switch holds, as a Graphviz graph."
printf '%s$ swmgrctl state --dot > %s%s\n' "$dim" "$work/topology.dot" "$off"
ctl state --dot > "$work/topology.dot"
if command -v dot > /dev/null 2>&1; then
  run dot -Tsvg -o "$work/topology.svg" "$work/topology.dot"
  say "Drawn: $work/topology.svg (DEMO_KEEP=1 keeps it)"
else
  say "(Graphviz is not installed: apt-get install graphviz draws it; the graph is in $work/topology.dot)"
fi

step "8. Stop the daemon"
run kill -TERM "$daemon"
wait "$daemon" 2>/dev/null || true
daemon=
tail -n 1 "$work/swmgrd.err"
say ""
say "Try it by hand: $swmgrd --db $db --sim --bus-dir /tmp/mybus --foreground"
say "and in another terminal: $swmgrctl --bus-dir /tmp/mybus state   (see --help of both)"
