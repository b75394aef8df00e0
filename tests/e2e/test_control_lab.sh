#!/usr/bin/env bash
# What a management agent sees of the daemon in the lab, beyond the process tests: the
# lab's mib.conf read whole, hostrixctl's requests against the daemon's real state,
# the FIFO and host file, and the files gone after SIGTERM.
# e2e-profiles: default openwrt
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

ctl_says() { [[ "$(ctl "${@:2}" 2>/dev/null)" == "$1" ]]; }
ctl_exits() { local want="$1" rc=0; shift; ctl "$@" >/dev/null 2>&1 || rc=$?; ((rc == want)); }
json_lines() { ctl "$@" --json | python3 -c 'import json,sys; [json.loads(l) for l in sys.stdin if l.strip()]'; }
all_json() { json_lines get max-hosts && json_lines new && json_lines left && json_lines changed; }

main() {
    daemon_test_setup
    start_daemon_in_lab
    check "the lab's mib.conf is read without complaint" eval '! logged "mib.conf:"'
    check "max-hosts comes from mib.conf" ctl_says 256 get max-hosts
    check "set max-controlled 10 reads back" eval 'ctl set max-controlled 10 && ctl_says 10 get max-controlled'
    check "no host is counted yet" ctl_says 0 get controlled-count
    check "port-down of a LAN port's switch id succeeds, of an unknown one fails with 1" \
        eval 'ctl port-down 2 && ctl_exits 1 port-down 99'
    check "release of an unknown MAC succeeds" ctl release 0a:77:00:00:99:99
    check "brand of an unknown MAC fails with 1" ctl_exits 1 get brand 0a:77:00:00:99:99
    check "log 0x22 through the FIFO reaches the daemon" eval 'ctl log 0x22 && wait_for 50 logged dbg_level=0x22'
    check "get, new, left and changed --json parse" all_json
    rm -f "$ROOT/var/hostrix" # so that only the write SIGUSR2 asks for can bring it back
    kill -USR2 "$DAEMON_PID"
    check "SIGUSR2 writes the host file, list reads it under the lock" \
        eval 'wait_for 50 test -f "$ROOT/var/hostrix" && ctl list >/dev/null'
    check "SIGTERM ends the daemon with status 0" daemon_stop
    check "its PID file and host file are removed" test ! -e "$ROOT/var/run/hostrix.pid" -a ! -e "$ROOT/var/hostrix"
    finish
}

main "$@"
