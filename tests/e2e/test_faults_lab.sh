#!/usr/bin/env bash
# The ASan+UBSan daemon under faults, one after the other (fault_* below). Under each
# it answers every control request within a second, keeps the lab's hosts and stays
# up; in the end it stops cleanly with no sanitizer report and nothing left behind.
# The flood's memory and CPU figures are printed as "info" lines.
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

ASAN_BIN="${HOSTRIX_ASAN_BIN:-$REPO_DIR/build-asan/bin/hostrix}"
HOST_FILE="$ROOT/var/hostrix"
LOCK_HOLD_S=60
SILENT_CLIENTS=100
EVENT_LINES=10000
FLOOD_FRAMES=50000
FLOOD_RATE=25000        # frames/s: a two-second flood
IDLE_CPU_MAX_PCT=5
CHURN_HOSTS=300
TABLE_LIMIT=256
SANITIZER_REPORT='ERROR: AddressSanitizer|LeakSanitizer|runtime error:'
LAB_MACS=()

info() { printf 'info - %s\n' "$*"; }
timed() { local started=$SECONDS; "$@"; info "$1 took $((SECONDS - started)) s"; }

# --- control latency: a client asks "get max-hosts" every 0.1 s while a fault runs ---

# Writes "WORST_MS COUNT UNANSWERED" to probe.out once probe.stop appears; it ends
# by itself when the test does.
probe_loop() {
    local worst=0 count=0 failed=0 t0 dt
    while [[ ! -e "$E2E_TMP/probe.stop" ]] && kill -0 "$$" 2>/dev/null; do
        t0="$(now_ms)"
        timeout 10 "$HOSTRIXCTL_BIN" get max-hosts >/dev/null 2>&1 || failed=$((failed + 1))
        dt=$(($(now_ms) - t0)) count=$((count + 1)) worst=$((dt > worst ? dt : worst))
        sleep 0.1
    done
    echo "$worst $count $failed" >"$E2E_TMP/probe.out"
}
probe_start() {
    rm -f "$E2E_TMP/probe.stop" "$E2E_TMP/probe.out"
    HOSTRIX_ROOT="$ROOT" probe_loop &
    PROBE_PID=$!
}

# probe_stop FAULT: checks the requests made since probe_start (main starts it before each fault).
probe_stop() {
    local worst=99999 count=0 failed=1
    : >"$E2E_TMP/probe.stop"
    wait "$PROBE_PID" || true
    if [[ -s "$E2E_TMP/probe.out" ]]; then read -r worst count failed <"$E2E_TMP/probe.out"; fi
    check "$1: all $count control requests answered, each within 1 s (worst ${worst} ms, $failed unanswered)" \
        test "$count" -gt 0 -a "$failed" -eq 0 -a "$worst" -le 1000
}

# How many of the lab hosts' MACs the JSON lines of FILE name.
lab_macs_in() { grep -ohF -f <(printf '"mac":"%s"\n' "${LAB_MACS[@]}") "$1" 2>/dev/null | sort -u | wc -l; }
# The daemon is up (SIGUSR2 reaches it) and the host file lists every lab host.
listed_all() { kill -USR2 "$DAEMON_PID" && ctl list --json >"$E2E_TMP/list.json" 2>/dev/null && (($(lab_macs_in "$E2E_TMP/list.json") == 6)); }
none_left() { poll left; (($(lab_macs_in "$E2E_TMP/left.json") == 0)); }
no_sanitizer_report() { ! grep -qE "$SANITIZER_REPORT" "$DAEMON_LOG"; }

# Sanitizer errors abort the daemon (see start_suite): a listing then fails here. Main
# checks it after each fault.
hosts_kept() {
    check "$1: the daemon runs and lists the six lab hosts" wait_for "$ONE_TICK" listed_all
    check "$1: none of them was reported left" none_left
}

start_suite() {
    local name
    ROOT_VETHS_BEFORE="$(root_veths)"
    # Leaks and overflows abort the daemon; UBSan's reports are found in its log.
    start_daemon_in_lab ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1 \
        UBSAN_OPTIONS=print_stacktrace=1
    for name in "${LAB_HOSTS[@]}"; do LAB_MACS+=("$(host_mac "$name")"); done
    check_lab_hosts_arrive
}

file_stamp() { stat -c %y "$HOST_FILE" 2>/dev/null; }
stamp_changed() { kill -USR2 "$DAEMON_PID"; [[ "$(file_stamp)" != "$1" ]]; }

fault_lock_held() {
    local stamp
    kill -USR2 "$DAEMON_PID"
    wait_for "$ONE_TICK" test -s "$HOST_FILE" || true
    python3 -c 'import fcntl, sys, time; f = open(sys.argv[1], "rb"); fcntl.lockf(f, fcntl.LOCK_SH)
open(sys.argv[2], "w").close(); time.sleep(float(sys.argv[3]))' "$HOST_FILE" "$E2E_TMP/locked" "$LOCK_HOLD_S" &
    wait_for 25 test -e "$E2E_TMP/locked" || true
    stamp="$(file_stamp)"
    kill -USR2 "$DAEMON_PID"  # a rewrite now, besides the ones the loop makes
    wait "$!" || true # the reader
    probe_stop "lock held ${LOCK_HOLD_S} s"
    check "lock: the host file is rewritten once the reader lets go" wait_for "$ONE_TICK" stamp_changed "$stamp"
}

# One connection per event line: most name MACs not in the table, every tenth is
# random bytes, control characters and all.
fault_silent_clients_and_events() {
    local sent
    sent="$(python3 -c 'import random, socket, sys, time
def unix(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM); s.connect(path); return s
held = [unix(sys.argv[1]) for _ in range(int(sys.argv[2]))]
rng, sent, deadline = random.Random(2), 0, time.monotonic() + 90
while sent < int(sys.argv[4]) and time.monotonic() < deadline:
    line = (bytes(rng.randrange(256) for _ in range(rng.randrange(1, 200))) if sent % 10 == 9
            else b"wlan0: AP-STA-DISCONNECTED 0a:79:00:00:%02x:%02x" % (sent >> 8 & 0xff, sent & 0xff))
    with unix(sys.argv[3]) as s: s.sendall(line + b"\n")
    sent += 1
time.sleep(3)  # the silent clients stay a while after the flood too
print(sent)' "$ROOT/var/run/.hostrix_msg" "$SILENT_CLIENTS" "$ROOT/var/run/.hostapd_action_sock" "$EVENT_LINES")"
    probe_stop "$SILENT_CLIENTS silent control clients and $EVENT_LINES event lines"
    check "events: all $EVENT_LINES lines delivered ($sent)" test "$sent" -eq "$EVENT_LINES"
}

status_kb() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$DAEMON_PID/status"; }
sniffer_tid() { grep -lx Sniffer /proc/"$DAEMON_PID"/task/*/comm 2>/dev/null | awk -F/ '{ print $5 }' || true; }
# utime + stime of the thread, in clock ticks.
thread_ticks() { awk '{ print $14 + $15 }' "/proc/$DAEMON_PID/task/$1/stat"; }
now_ms() { date +%s%3N; }
# Percent of one core: ticks over milliseconds.
cpu_pct() { echo $(((($2 - $1) * 1000 * 100 / $(getconf CLK_TCK)) / ($4 - $3 > 0 ? $4 - $3 : 1))); }

# RSS growth over the flood and the 5 s after, less what a quiet daemon (the sanitizer's
# quarantine above all) gains in as long: a cache that kept every sender would grow
# by megabytes.
fault_arp_flood() {
    local tid q0 tq0 tq1 rss0 hwm0 rss1 hwm1 c4 c5 t0 t1 t4 t5 last drift net
    tid="$(sniffer_tid)"
    check "flood: the Sniffer thread is found" test -n "$tid"
    [[ -n "$tid" ]] || { probe_stop "ARP flood"; return 0; }
    q0="$(status_kb VmRSS)" tq0="$(now_ms)"
    sleep 8 # a quiet window about as long as the flood and the 5 s after it
    rss0="$(status_kb VmRSS)" hwm0="$(status_kb VmHWM)" tq1="$(now_ms)" t0="$(now_ms)"
    traffic h1 arp-replies eth0 "$FLOOD_FRAMES" "$FLOOD_RATE" random
    t1="$(now_ms)"
    sleep 4
    c4="$(thread_ticks "$tid")" t4="$(now_ms)"
    sleep 1
    c5="$(thread_ticks "$tid")" t5="$(now_ms)"
    rss1="$(status_kb VmRSS)" hwm1="$(status_kb VmHWM)"
    probe_stop "ARP flood"
    last="$(cpu_pct "$c4" "$c5" "$t4" "$t5")"
    drift=$(((rss0 - q0) * (t5 - t0) / (tq1 - tq0)))
    net=$((rss1 - rss0 - drift))
    info "ARP flood: $FLOOD_FRAMES frames in $((t1 - t0)) ms; VmRSS ${q0} -> ${rss0} kB quiet, -> ${rss1} kB after (${drift} kB drift expected), VmHWM ${hwm0} -> ${hwm1} kB"
    check "flood: RSS grew by less than 1 MiB beyond the quiet drift (${net} kB)" test "$net" -lt 1024
    check "flood: the Sniffer is idle again within 5 s (${last}% < ${IDLE_CPU_MAX_PCT}%)" test "$last" -lt "$IDLE_CPU_MAX_PCT"
}

dnsmasq_start() { in_ns "$GW_NS" env HOSTRIX_ROOT="$ROOT" dnsmasq --conf-file="$LAB_DIR/dnsmasq.conf" </dev/null >>"$LAB_DIR/dnsmasq.out" 2>&1; }
dnsmasq_runs() { local pid; pid="$(dnsmasq_pid)" && [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null; }

fault_dnsmasq_restart() {
    local old
    old="$(dnsmasq_pid)"
    kill -TERM "$old"
    wait_for 25 all_dead "$old" || true
    rm -f "$LAB_DIR/dnsmasq.leases"
    sleep 4 # a tick without a lease file
    check "dnsmasq: started again" eval 'dnsmasq_start && wait_for 25 dnsmasq_runs'
    sleep 4
    probe_stop "dnsmasq restart"
}

port_delete() { ip -n "$GW_NS" link del "$(kif "$1")"; }
# The lab's shape again: a veth into the port's switch, joined to br0, no carrier.
port_recreate() {
    local port="$1" kport sw="hx-sw-$1"
    kport="$(kif "$port")"
    ip -n "$GW_NS" link add "$kport" type veth peer name uplink netns "$sw" &&
        ip -n "$GW_NS" link set "$kport" address "$(printf '0a:77:ff:00:01:%02x' "$2")" &&
        in_ns "$GW_NS" sysctl -qw "net/ipv6/conf/$kport/disable_ipv6=1" >/dev/null &&
        ip -n "$GW_NS" link set "$kport" master "$BR_KERNEL" up &&
        ip -n "$sw" link set uplink master sw
}
has_port() { br0_ports | grep -qx "$1"; }

fault_ports_recreated() {
    check "ports: eth0.5 and nas0_0 deleted" eval 'port_delete eth0.5 && port_delete nas0_0'
    sleep 4 # a tick without them
    check "ports: both made again" eval 'port_recreate eth0.5 4 && port_recreate nas0_0 8 &&
        wait_for 10 eval "has_port eth0.5 && has_port nas0_0"'
    probe_stop "ports deleted and made again"
    check "ports: add-host h7 on the new eth0.5" lab_run add-host h7 eth0.5 --static 10.77.0.60
    gw_ping 10.77.0.60
    check "ports: h7 is reported" wait_for "$TICKS_2" reported new "$(host_mac h7)"
}

fault_garbage_config() {
    local mib="$ROOT/etc/hostrix/mib.conf"
    cp -- "$mib" "$E2E_TMP/mib.conf"
    python3 -c 'import random, sys; open(sys.argv[1], "wb").write(random.Random(6).randbytes(1 << 20))' "$mib"
    kill -USR1 "$DAEMON_PID"
    sleep 4
    probe_stop "1 MiB of random mib.conf"
    cp -- "$E2E_TMP/mib.conf" "$mib"
    kill -USR1 "$DAEMON_PID"
}

fault_table_churn() {
    local i n most=0
    for i in {0..23}; do
        if ((i % 8 == 0)); then traffic h1 arp-hosts eth0 "$CHURN_HOSTS"; fi
        n="$(ctl get hosts 2>/dev/null | tr -dc '0-9')" # unanswered: the probe reports it
        most=$((${n:-0} > most ? n : most))
        sleep 0.5
    done
    probe_stop "$CHURN_HOSTS made-up hosts"
    check "churn: the table filled up and never held more than $TABLE_LIMIT (at most $most)" \
        test "$most" -ge $((TABLE_LIMIT - 10)) -a "$most" -le "$TABLE_LIMIT"
}

finish_suite() {
    local pid="$DAEMON_PID" rc=0
    daemon_stop || rc=$?
    check "SIGTERM stops the daemon with status 0 (got $rc)" test "$rc" -eq 0
    check "no AddressSanitizer, LeakSanitizer or UBSan report in its log" no_sanitizer_report
    if ! no_sanitizer_report; then grep -E -A 12 "$SANITIZER_REPORT" "$DAEMON_LOG" | head -n 40 | sed 's/^/    /'; fi
    if ((FAILURES > 0)); then keep_daemon_log || true; fi
    check "lab down" lab_run down
    check_nothing_left "after the faults" "$pid"
}

main() {
    [[ -x "$ASAN_BIN" ]] || skip "no ASan+UBSan daemon at $ASAN_BIN (make asan builds it, or set HOSTRIX_ASAN_BIN)"
    HOSTRIX_BIN="$ASAN_BIN"
    daemon_test_setup
    local fault
    timed start_suite
    for fault in lock_held silent_clients_and_events arp_flood dnsmasq_restart ports_recreated garbage_config table_churn; do
        probe_start
        timed "fault_$fault"
        hosts_kept "${fault//_/ }"
    done
    finish_suite
    finish
}

main "$@"
