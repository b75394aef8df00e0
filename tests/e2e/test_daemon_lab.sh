#!/usr/bin/env bash
# The real daemon in the lab's gateway namespace: it starts on the lab's
# configuration, answers its FIFO and SIGUSR1 reload, stops cleanly on SIGTERM;
# and the demo brings the lab and the daemon up and down leaving nothing behind.
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

DAEMON_LOG="$LAB_DIR/hostrix.log"

logged() { grep -qF -- "$1" "$DAEMON_LOG" 2>/dev/null; }
pid_file_names_daemon() { [[ "$(cat "$ROOT/var/run/hostrix.pid" 2>/dev/null)" == "$DAEMON_PID" ]]; }
is_socket() { [[ -S "$1" ]]; }
is_fifo() { [[ -p "$1" ]]; }
daemon_alive() { ! all_dead "$DAEMON_PID"; }
no_config_complaint() { ! logged "mib.conf:"; }
stopped_with_zero() { daemon_stop; }
# Ours only: other builds' daemons and clients (another checkout's tests) may be running.
hostrix_processes() {
    local pid bin_dir
    bin_dir="$(dirname "$(realpath "$HOSTRIX_BIN")")"
    for pid in $(pgrep -x hostrix; pgrep -x hostrixctl); do
        if [[ "$(readlink "/proc/$pid/exe" 2>/dev/null)" == "$bin_dir"/* ]]; then printf '%s\n' "$pid"; fi
    done
}

fifo_command() { printf '%s\n' "$1" >"$ROOT/var/run/hostrix.fifo"; }

check_daemon_runs() {
    daemon_start
    check "daemon writes its PID file" wait_for 50 pid_file_names_daemon
    check "control socket is listening" wait_for 25 is_socket "$ROOT/var/run/.hostrix_msg"
    # Made after the counter table, which takes one run of nft.
    check "debug FIFO is there" wait_for 25 is_fifo "$ROOT/var/run/hostrix.fifo"
    check "table initialised" logged "init HostrixData."
    check "the lab's configuration is read without complaint" no_config_complaint
}

check_fifo_and_reload() {
    fifo_command "log 0x802"
    check "FIFO 'log 0x802' is acknowledged" wait_for 50 logged "dbg_level=0x802"
    lab_run set 480 0x2
    kill -USR1 "$DAEMON_PID"
    check "SIGUSR1 is traced under the FIFO-set flags" \
        wait_for 50 logged "[Hostrix]:receive USR1 signal and processing...."
    check "the reload reports the bridge-bind mask" wait_for 50 logged "bridge_bind_logic_port_mask = 0"
    kill -USR2 "$DAEMON_PID"
    check "SIGUSR2 is traced with the reloaded flags" \
        wait_for 50 logged "[Hostrix]:receive USR2 signal and processing...."
    check "still running after USR1, USR2 and HUP" sh -c "kill -HUP $DAEMON_PID && sleep 0.3 && kill -0 $DAEMON_PID"
}

check_clean_stop() {
    check "SIGTERM ends the daemon with status 0" stopped_with_zero
    check "PID file removed" test ! -e "$ROOT/var/run/hostrix.pid"
    check "host file removed" test ! -e "$ROOT/var/hostrix"
}

check_demo() {
    local failed_before="$FAILURES"
    lab_run down
    check "demo runs for 8 s and exits 0" sh -c "'$REPO_DIR/lab/demo.sh' 8 >'$E2E_TMP/demo.out' 2>&1"
    check "demo started the daemon" grep -qF "Starting hostrix" "$E2E_TMP/demo.out"
    check "demo shows the leases" grep -qF "hx-h1" "$E2E_TMP/demo.out"
    check "demo shows h1 arriving with address, name, port" \
        grep -qE "NEW +0a:77:00:00:00:01 10\.77\.0\.[0-9]+ hx-h1 eth0\.2 LAN1" "$E2E_TMP/demo.out"
    check "and h3 with its SSID" grep -qE "NEW +0a:77:00:00:00:03 .* wlan0 SSID1 ssid=hx-home" "$E2E_TMP/demo.out"
    if ((FAILURES > failed_before)); then sed 's/^/    | /' "$E2E_TMP/demo.out"; fi
    check "no hostrix or hostrixctl process left after the demo" test -z "$(hostrix_processes)"
    check "no hx- namespace left after the demo" test -z "$(lab_namespaces)"
    check "no $LAB_DIR left after the demo" test ! -e "$LAB_DIR"
}

main() {
    lab_test_setup
    require_daemon_bin
    check "lab up" lab_run up
    check_daemon_runs
    check_fifo_and_reload
    check_clean_stop
    check_demo
    finish
}

main "$@"
