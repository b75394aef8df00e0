#!/usr/bin/env bash
# What a management agent and the box see of the daemon in the lab: its PID file and
# FIFO at start, hostrixctl against its control socket, FIFO and host file, a clean
# SIGTERM that removes its files, and exit code 3 once it is gone.
# e2e-profiles: default openwrt
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

ctl_says() { [[ "$(ctl "${@:2}" 2>/dev/null)" == "$1" ]]; }
ctl_exits() { local want="$1" rc=0; shift; ctl "$@" >/dev/null 2>&1 || rc=$?; ((rc == want)); }
pid_file_names_daemon() { [[ "$(cat "$ROOT/var/run/hostrix.pid" 2>/dev/null)" == "$DAEMON_PID" ]]; }
json_lines() { ctl "$@" --json | python3 -c 'import json,sys; [json.loads(l) for l in sys.stdin if l.strip()]'; }
all_json() { json_lines get max-hosts && json_lines new && json_lines left && json_lines changed; }
gone_names_socket() { grep -qF "$ROOT/var/run/.hostrix_msg" <<<"$(ctl new 2>&1)" && ctl_exits 3 get max-hosts; }

check_startup() {
    check "the daemon writes its PID file" wait_for 50 pid_file_names_daemon
    check "its debug FIFO is there" wait_for 25 test -p "$ROOT/var/run/hostrix.fifo"
    check "the lab's mib.conf is read without complaint" eval '! logged "mib.conf:"'
}

check_settings() {
    check "max-hosts comes from mib.conf" ctl_says 256 get max-hosts
    check "set max-controlled 10" ctl set max-controlled 10
    check "get max-controlled reads it back" ctl_says 10 get max-controlled
    check "max-hosts 257 is refused before it is sent" ctl_exits 2 set max-hosts 257
    check "no host is counted yet" ctl_says 0 get controlled-count
}

check_actions() {
    check "port-down of a LAN port's switch id succeeds" ctl port-down 2
    check "port-down of an unknown switch id fails with 1" ctl_exits 1 port-down 99
    check "release of an unknown MAC succeeds" ctl release 0a:77:00:00:99:99
    check "brand of an unknown MAC fails with 1" ctl_exits 1 get brand 0a:77:00:00:99:99
    check "a bad MAC is a usage error" ctl_exits 2 get brand 0a:77:00:00:99
    check "log 0x22 through the FIFO reaches the daemon" eval 'ctl log 0x22 && wait_for 50 logged dbg_level=0x22'
}

check_reports() {
    check "get, new, left and changed --json parse" all_json
    rm -f "$ROOT/var/hostrix" # so that only the write SIGUSR2 asks for can bring it back
    kill -USR2 "$DAEMON_PID"
    check "SIGUSR2 writes the host file" wait_for 50 test -f "$ROOT/var/hostrix"
    check "list reads it under the lock" ctl list
}

check_stop() {
    check "SIGTERM ends the daemon with status 0" daemon_stop
    check "its PID file and host file are removed" test ! -e "$ROOT/var/run/hostrix.pid" -a ! -e "$ROOT/var/hostrix"
    check "without the daemon hostrixctl exits 3 naming the socket" gone_names_socket
}

main() {
    daemon_test_setup
    start_daemon_in_lab
    check_startup
    check_settings
    check_actions
    check_reports
    check_stop
    finish
}

main "$@"
