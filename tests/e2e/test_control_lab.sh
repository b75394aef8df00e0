#!/usr/bin/env bash
# What a management agent sees of the daemon in the lab: hostrixctl against its
# control socket, FIFO and host file, station-leave events from the authenticator
# socket, and exit code 3 once the daemon is gone.
# e2e-profiles: default openwrt
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

DAEMON_LOG="$LAB_DIR/hostrix.log"

ctl_says() { [[ "$(ctl "${@:2}" 2>/dev/null)" == "$1" ]]; }
ctl_exits() { local want="$1" rc=0; shift; ctl "$@" >/dev/null 2>&1 || rc=$?; ((rc == want)); }
logged() { grep -qF -- "$1" "$DAEMON_LOG" 2>/dev/null; }
host_file_there() { [[ -f "$ROOT/var/hostrix" ]]; }
json_lines() { ctl "$@" --json | python3 -c 'import json,sys; [json.loads(l) for l in sys.stdin if l.strip()]'; }

check_limits_and_counts() {
    check "max-hosts comes from mib.conf" ctl_says 256 get max-hosts
    check "set max-controlled 10" ctl set max-controlled 10
    check "get max-controlled reads it back" ctl_says 10 get max-controlled
    check "max-hosts 257 is refused before it is sent" ctl_exits 2 set max-hosts 257
    check "no host is counted yet" ctl_says 0 get controlled-count
    check "get max-hosts --json parses" json_lines get max-hosts
}

check_actions() {
    check "port-down of a LAN port's switch id succeeds" ctl port-down 2
    check "port-down of an unknown switch id fails with 1" ctl_exits 1 port-down 99
    check "release of an unknown MAC succeeds" ctl release 0a:77:00:00:99:99
    check "brand of an unknown MAC fails with 1" ctl_exits 1 get brand 0a:77:00:00:99:99
    check "a bad MAC is a usage error" ctl_exits 2 get brand 0a:77:00:00:99
    check "log 0x22 through the FIFO" ctl log 0x22
    check "the FIFO command reached the daemon" wait_for 50 logged "dbg_level=0x22"
}

check_reports() {
    check "new --json parses" json_lines new
    check "left --json parses" json_lines left
    check "changed --json parses" json_lines changed
    rm -f "$ROOT/var/hostrix"  # so that only the write SIGUSR2 asks for can bring it back
    kill -USR2 "$DAEMON_PID"
    check "SIGUSR2 writes the host file" wait_for 50 host_file_there
    check "list reads it under the lock" ctl list
}

# hostapd writes "IFNAME: EVENT MAC"; OpenWrt's action program sends "IFNAME EVENT MAC",
# with the gateway's name for the kernel's.
check_station_leave() {
    local from="wlan0:"
    if [[ "$LAB_PROFILE" == openwrt ]]; then from="wlan0"; fi
    check "lab sta-leave h3 sends the event" lab_run sta-leave h3 --event-only
    check "the event line reaches the daemon" wait_for 50 logged "EVENT: $from AP-STA-DISCONNECTED 0a:77:00:00:00:03"
    check "and is parsed" logged "process_hostapd_event $from AP-STA-DISCONNECTED 0a:77:00:00:00:03"
    check "the daemon still answers" ctl_says 256 get max-hosts
}

check_unreachable() {
    check "SIGTERM ends the daemon with status 0" daemon_stop
    check "without the daemon hostrixctl exits 3" ctl_exits 3 get max-hosts
    check "and names the socket" sh -c "HOSTRIX_ROOT='$ROOT' '$HOSTRIXCTL_BIN' new 2>&1 | grep -qF '$ROOT/var/run/.hostrix_msg'"
}

main() {
    lab_test_setup
    require_daemon_bin
    require_client_bin
    start_daemon_in_lab
    check_limits_and_counts
    check_actions
    check_reports
    check_station_leave
    check_unreachable
    finish
}

main "$@"
