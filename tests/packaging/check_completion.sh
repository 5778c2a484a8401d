#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Usage: check_completion.sh SWMGRCTL COMPLETION
# The completion offers exactly the verbs and options that swmgrctl's own
# --help lists, for the tool and for each verb, so the two cannot drift.
set -u
export LC_ALL=C
ctl=$1
. "$2"
fail=0

complete_words() {  # words typed so far, then the word being completed
    COMP_WORDS=(swmgrctl "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _swmgrctl
    printf '%s\n' "${COMPREPLY[@]}" | sort
}
# Options and subcommands as CLI11 lists them in --help.
from_help() {
    "$ctl" "$@" --help | awk '
        /^[^ ]/ { section = tolower($1) }
        section == "options:" { for (i = 1; i <= NF; i++) if ($i ~ /^-/) { n = split($i, f, ","); for (j = 1; j <= n; j++) if (f[j] ~ /^--/) print f[j] } }
        section == "subcommands:" && /^  / { print $1 }' | sort -u
}
check() {
    local what=$1 want=$2 got=$3
    if [ "$want" != "$got" ]; then
        echo "$what: completion and --help differ:"
        diff <(echo "$want") <(echo "$got")
        fail=1
    fi
}

check "swmgrctl" "$(from_help)" "$(complete_words '')"
for verb in $("$ctl" --help | awk '/^[^ ]/ { on = tolower($1) == "subcommands:" } on && /^  / { print $1 }'); do
    case $verb in
        vlan) typed=(vlan add) ;;  # after the action, the options are offered
        cmd) typed=(cmd PSE qos) ;;
        dbevent) typed=(dbevent vlanEncapIf 1 insert) ;;
        show) typed=(show ports) ;;
        *) typed=("$verb") ;;
    esac
    check "swmgrctl $verb" "$(from_help "$verb")" "$(complete_words "${typed[@]}" '')"
done
# Positions that take a value from a fixed set.
check "vlan action" "$(printf '%s\n' add del)" "$(complete_words vlan '')"
check "cmd code" "$(printf '%s\n' pause qos queue-sched rate-limit trust vlan-enable)" "$(complete_words cmd PSE '')"
check "show what" "$(printf '%s\n' ports switches vlans)" "$(complete_words show '')"
check "dbevent op" "$(printf '%s\n' --help --json --old delete insert update)" "$(complete_words dbevent vlanEncapIf 7 '')"
check "after --bus-dir" "$(from_help)" "$(complete_words --bus-dir /tmp '')"
[ $fail -eq 0 ] && echo "completion matches --help"
exit $fail
