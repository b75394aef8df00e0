#!/usr/bin/env bash
# The daemon (the ASan+UBSan build) under faults in the lab: a reader holding the
# host-file lock, silent control clients and an event-line flood, an ARP flood from
# made-up senders, a DHCP server restart that loses its leases, bridge ports deleted
# and re-created, a mib.conf of random bytes reloaded, and more hosts than the table
# holds. Under each it answers every control request within a second, keeps the lab's
# hosts, stays up, and in the end stops cleanly with no sanitizer report and nothing
# left behind. The flood's memory and CPU figures are printed as "info" lines.
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

ASAN_BIN="${HOSTRIX_ASAN_BIN:-$REPO_DIR/build-asan/bin/hostrix}"
TRAFFIC="$REPO_DIR/lab/lan_traffic.py"
DAEMON_LOG="$LAB_DIR/hostrix.log"
HOST_FILE="$ROOT/var/hostrix"
REAL_HOSTS=(h1 h2 h3 h4 h5 h6)
MAX_LATENCY_MS=1000
LOCK_HOLD_S=60
SILENT_CLIENTS=100
SILENT_HOLD_S=3
EVENT_LINES=10000
FLOOD_FRAMES=50000
FLOOD_RATE=25000        # frames/s: a two-second flood
RSS_GROWTH_MAX_KB=1024
QUIET_S=8               # the quiet window before the flood: about as long as flood and after
IDLE_CPU_MAX_PCT=5
CHURN_HOSTS=300
TABLE_LIMIT=256
ONE_TICK=25             # one 3 s main-loop tick and some slack, in 0.2 s tries
TICKS_2=50
SANITIZER_REPORT='ERROR: AddressSanitizer|LeakSanitizer|runtime error:'
declare -A MAC_OF=()
SEEN_PIDS=()
PROBE_PID=""

info() { printf 'info - %s\n' "$*"; }
timed() {
    local started=$SECONDS
    "$@"
    info "$1 took $((SECONDS - started)) s"
}
in_ns() { local ns="$1"; shift; ip netns exec "$ns" "$@"; }
traffic() { local host="$1"; shift; in_ns "hx-$host" python3 "$TRAFFIC" "$@"; }
gw_ping() { in_ns "$GW_NS" busybox ping -c 1 -W 2 "$1" >/dev/null 2>&1 || true; }
remember_pids() { mapfile -t -O "${#SEEN_PIDS[@]}" SEEN_PIDS < <(lab_dir_pids); }

# --- control latency: a client asks "get max-hosts" every 0.1 s while a fault runs ---

write_probe() {
    cat >"$E2E_TMP/probe.py" <<'PY'
import os, subprocess, sys, time
ctl, stop, out = sys.argv[1:]
worst, count, failed = 0.0, 0, 0
deadline = time.monotonic() + 240  # a probe left running must still end
while not os.path.exists(stop) and time.monotonic() < deadline:
    start = time.monotonic()
    try:
        done = subprocess.run([ctl, "get", "max-hosts"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=10)
        ok = done.returncode == 0
    except (subprocess.TimeoutExpired, OSError):  # OSError: the client could not start
        ok = False
    worst = max(worst, time.monotonic() - start)
    count, failed = count + 1, failed + (not ok)
    time.sleep(0.1)
with open(out, "w") as f:
    f.write("%d %d %d\n" % (worst * 1000, count, failed))
PY
}

probe_start() {
    rm -f "$E2E_TMP/probe.stop" "$E2E_TMP/probe.out"
    HOSTRIX_ROOT="$ROOT" python3 "$E2E_TMP/probe.py" "$HOSTRIXCTL_BIN" "$E2E_TMP/probe.stop" "$E2E_TMP/probe.out" &
    PROBE_PID=$!
}

# probe_stop FAULT: checks the requests made since probe_start.
probe_stop() {
    local worst=99999 count=0 failed=1
    : >"$E2E_TMP/probe.stop"
    wait "$PROBE_PID" || true
    PROBE_PID=""
    if [[ -s "$E2E_TMP/probe.out" ]]; then read -r worst count failed <"$E2E_TMP/probe.out"; fi
    info "$1: worst control latency ${worst} ms over $count requests, $failed unanswered"
    check "$1: every control request answered" test "$count" -gt 0 -a "$failed" -eq 0
    check "$1: each within 1 s (worst ${worst} ms)" test "$worst" -le "$MAX_LATENCY_MS"
}

# --- the lab's hosts stay tracked ---

listed_all() {
    local name
    kill -USR2 "$DAEMON_PID"
    ctl list --json >"$E2E_TMP/list.json" 2>/dev/null || return 1
    for name in "${REAL_HOSTS[@]}"; do
        grep -qF "\"mac\":\"${MAC_OF[$name]}\"" "$E2E_TMP/list.json" || return 1
    done
}
none_left() {
    local name
    poll left
    for name in "${REAL_HOSTS[@]}"; do
        if grep -qF "\"mac\":\"${MAC_OF[$name]}\"" "$E2E_TMP/left.json" 2>/dev/null; then return 1; fi
    done
}
no_sanitizer_report() { ! grep -qE "$SANITIZER_REPORT" "$DAEMON_LOG"; }

hosts_kept() {
    check "$1: the daemon is running" kill -0 "$DAEMON_PID"
    check "$1: the six lab hosts are listed" wait_for "$ONE_TICK" listed_all
    check "$1: none of them was reported left" none_left
    check "$1: no sanitizer report so far" no_sanitizer_report
}

all_arrived() {
    local name
    for name in "${REAL_HOSTS[@]}"; do reported new "${MAC_OF[$name]}" || return 1; done
}

start_suite() {
    local name
    ROOT_VETHS_BEFORE="$(root_veths)"
    # Leaks and overflows abort the daemon; UBSan's reports are found in its log.
    start_daemon_in_lab_env ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:halt_on_error=1 \
        UBSAN_OPTIONS=print_stacktrace=1
    for name in "${REAL_HOSTS[@]}"; do MAC_OF[$name]="$(host_mac "$name")"; done
    gw_ping "10.77.0.50"  # the static host answers only when asked
    check "the six lab hosts arrive" wait_for 150 all_arrived
    remember_pids
}

start_daemon_in_lab_env() {
    check "lab up (profile $LAB_PROFILE)" lab_run up --profile "$LAB_PROFILE"
    daemon_start_env HOSTRIX_ROOT="$ROOT" "$@"
    check "control socket is listening" wait_for 50 socket_up
}

# --- 1: a local reader holds the host file's lock ---

file_stamp() { stat -c %y "$HOST_FILE" 2>/dev/null; }
stamp_changed() { kill -USR2 "$DAEMON_PID"; [[ "$(file_stamp)" != "$1" ]]; }

fault_lock_held() {
    local holder stamp
    kill -USR2 "$DAEMON_PID"
    check "lock: the host file exists" wait_for "$ONE_TICK" test -s "$HOST_FILE"
    probe_start
    python3 -c 'import fcntl, sys, time
f = open(sys.argv[1], "rb")
fcntl.lockf(f, fcntl.LOCK_SH)
open(sys.argv[2], "w").close()
time.sleep(float(sys.argv[3]))' "$HOST_FILE" "$E2E_TMP/locked" "$LOCK_HOLD_S" &
    holder=$!
    wait_for 25 test -e "$E2E_TMP/locked" || true
    stamp="$(file_stamp)"
    kill -USR2 "$DAEMON_PID"  # a rewrite now, besides the ones the loop makes
    wait "$holder" || true
    probe_stop "lock held ${LOCK_HOLD_S} s"
    check "lock: the host file is rewritten once the reader lets go" wait_for "$ONE_TICK" stamp_changed "$stamp"
    hosts_kept "lock"
}

# --- 2: control clients that say nothing; a flood of event lines ---

silent_clients() {
    python3 -c 'import socket, sys, time
held = []
for _ in range(int(sys.argv[2])):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(sys.argv[1])
    held.append(s)
time.sleep(float(sys.argv[3]))' "$ROOT/var/run/.hostrix_msg" "$SILENT_CLIENTS" "$SILENT_HOLD_S"
}

# Prints how many lines went out. Most name MACs that are not in the table; every
# tenth is made-up bytes, control characters and all.
event_flood() {
    python3 -c 'import random, socket, sys, time
path, total = sys.argv[1], int(sys.argv[2])
rng = random.Random(2)
deadline = time.monotonic() + 90
sent = 0
for i in range(total):
    if time.monotonic() > deadline:
        break
    if i % 10 == 9:
        line = bytes(rng.randrange(256) for _ in range(rng.randrange(1, 200)))
    else:
        line = b"wlan0: AP-STA-DISCONNECTED 0a:79:00:00:%02x:%02x" % (i >> 8 & 0xff, i & 0xff)
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(path)
    s.sendall(line + b"\n")
    s.close()
    sent += 1
print(sent)' "$ROOT/var/run/.hostapd_action_sock" "$EVENT_LINES"
}

fault_silent_clients_and_events() {
    local sent
    probe_start
    silent_clients
    probe_stop "$SILENT_CLIENTS silent control clients"
    probe_start
    sent="$(event_flood)"
    probe_stop "$EVENT_LINES event lines"
    check "events: all $EVENT_LINES lines delivered ($sent)" test "$sent" -eq "$EVENT_LINES"
    hosts_kept "silent clients and events"
}

# --- 3: ARP replies from 50,000 made-up senders; memory and the sniffer's CPU ---

status_kb() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$DAEMON_PID/status"; }
sniffer_tid() {
    local task
    for task in /proc/"$DAEMON_PID"/task/*; do
        if [[ "$(cat "$task/comm" 2>/dev/null)" == Sniffer ]]; then basename "$task"; fi
    done
}
# utime + stime of the thread, in clock ticks.
thread_ticks() { awk '{ print $14 + $15 }' "/proc/$DAEMON_PID/task/$1/stat"; }
now_ms() { date +%s%3N; }
# Percent of one core: ticks over milliseconds.
cpu_pct() { echo $(((($2 - $1) * 1000 * 100 / $(getconf CLK_TCK)) / ($4 - $3 > 0 ? $4 - $3 : 1))); }

# RSS growth over the flood and the 5 s after, less what a quiet daemon (the sanitizer's
# quarantine above all) gains in as long: a cache that kept every sender would grow
# by megabytes.
fault_arp_flood() {
    local tid q0 tq0 tq1 rss0 hwm0 rss1 hwm1 c0 c1 c4 c5 t0 t1 t4 t5 during after last drift net
    tid="$(sniffer_tid)"
    check "flood: the Sniffer thread is found" test -n "$tid"
    [[ -n "$tid" ]] || return 0
    q0="$(status_kb VmRSS)" tq0="$(now_ms)"
    sleep "$QUIET_S"
    rss0="$(status_kb VmRSS)" hwm0="$(status_kb VmHWM)" tq1="$(now_ms)"
    probe_start
    c0="$(thread_ticks "$tid")" t0="$(now_ms)"
    traffic h1 arp-replies eth0 "$FLOOD_FRAMES" "$FLOOD_RATE" random
    c1="$(thread_ticks "$tid")" t1="$(now_ms)"
    sleep 4
    c4="$(thread_ticks "$tid")" t4="$(now_ms)"
    sleep 1
    c5="$(thread_ticks "$tid")" t5="$(now_ms)"
    rss1="$(status_kb VmRSS)" hwm1="$(status_kb VmHWM)"
    probe_stop "ARP flood"
    during="$(cpu_pct "$c0" "$c1" "$t0" "$t1")"
    after="$(cpu_pct "$c1" "$c5" "$t1" "$t5")"
    last="$(cpu_pct "$c4" "$c5" "$t4" "$t5")"
    drift=$(((rss0 - q0) * (t5 - t0) / (tq1 - tq0)))
    net=$((rss1 - rss0 - drift))
    info "ARP flood: $FLOOD_FRAMES frames in $((t1 - t0)) ms; Sniffer CPU ${during}% of a core during it, ${after}% over the 5 s after, ${last}% in the 5th second"
    info "ARP flood: VmRSS ${rss0} -> ${rss1} kB ($((rss1 - rss0)) kB; quiet before: ${q0} -> ${rss0} kB in $((tq1 - tq0)) ms, so ${drift} kB expected without it), VmHWM ${hwm0} -> ${hwm1} kB"
    check "flood: RSS grew by less than 1 MiB beyond the quiet drift (${net} kB)" test "$net" -lt "$RSS_GROWTH_MAX_KB"
    check "flood: the Sniffer is idle again within 5 s (${last}% < ${IDLE_CPU_MAX_PCT}%)" test "$last" -lt "$IDLE_CPU_MAX_PCT"
    hosts_kept "flood"
}

# --- 4: the DHCP server dies, its lease file goes, it comes back ---

dnsmasq_pid() { tr -dc '0-9' <"$LAB_DIR/dnsmasq.pid" 2>/dev/null; }
dnsmasq_start() {
    in_ns "$GW_NS" env HOSTRIX_ROOT="$ROOT" dnsmasq --conf-file="$LAB_DIR/dnsmasq.conf" \
        </dev/null >>"$LAB_DIR/dnsmasq.out" 2>&1
}
dnsmasq_runs() { local pid; pid="$(dnsmasq_pid)" && [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null; }

fault_dnsmasq_restart() {
    local old
    old="$(dnsmasq_pid)"
    probe_start
    kill -TERM "$old"
    check "dnsmasq: stopped" wait_for 25 all_dead "$old"
    rm -f "$LAB_DIR/dnsmasq.leases"
    sleep 4  # a tick without a lease file
    check "dnsmasq: started again" dnsmasq_start
    check "dnsmasq: runs with a new pid" wait_for 25 dnsmasq_runs
    sleep 4
    probe_stop "dnsmasq restart"
    remember_pids
    hosts_kept "dnsmasq restart"
}

# --- 5: bridge ports deleted and made again ---

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
lacks_port() { ! has_port "$1"; }

fault_ports_recreated() {
    probe_start
    check "ports: eth0.5 and nas0_0 deleted" eval 'port_delete eth0.5 && port_delete nas0_0'
    check "ports: gone from br0" wait_for 10 eval 'lacks_port eth0.5 && lacks_port nas0_0'
    sleep 4  # a tick without them
    check "ports: eth0.5 made again" port_recreate eth0.5 4
    check "ports: nas0_0 made again" port_recreate nas0_0 8
    check "ports: both back in br0" wait_for 10 eval 'has_port eth0.5 && has_port nas0_0'
    probe_stop "ports deleted and made again"
    check "ports: add-host h7 on the new eth0.5" lab_run add-host h7 eth0.5 --static 10.77.0.60
    gw_ping 10.77.0.60
    check "ports: h7 is reported" wait_for "$TICKS_2" reported new "$(host_mac h7)"
    remember_pids
    hosts_kept "ports"
}

# --- 6: mib.conf turns into a megabyte of random bytes and is reloaded ---

fault_garbage_config() {
    local mib="$ROOT/etc/hostrix/mib.conf"
    cp -- "$mib" "$E2E_TMP/mib.conf"
    python3 -c 'import random, sys
open(sys.argv[1], "wb").write(random.Random(6).randbytes(1 << 20))' "$mib"
    probe_start
    kill -USR1 "$DAEMON_PID"
    sleep 4
    check "garbage mib.conf: the daemon is running" kill -0 "$DAEMON_PID"
    probe_stop "1 MiB of random mib.conf"
    cp -- "$E2E_TMP/mib.conf" "$mib"
    kill -USR1 "$DAEMON_PID"
    hosts_kept "garbage mib.conf, then restored"
}

# --- 7: more made-up hosts than the table holds ---

host_count() { ctl get hosts 2>/dev/null | tr -dc '0-9'; }
# An unanswered request counts as within: the latency probe reports those.
count_within_limit() {
    local n
    n="$(host_count)"
    [[ -n "$n" ]] || return 0
    if ((n > CHURN_MAX)); then CHURN_MAX=$n; fi
    ((n <= TABLE_LIMIT))
}
CHURN_MAX=0

fault_table_churn() {
    local within=0
    probe_start
    for _ in 1 2 3; do
        traffic h1 arp-hosts eth0 "$CHURN_HOSTS"
        for _ in 1 2 3 4 5 6 7 8; do
            count_within_limit || within=1
            sleep 0.5
        done
    done
    probe_stop "$CHURN_HOSTS made-up hosts"
    info "churn: at most $CHURN_MAX hosts in the table"
    check "churn: the table never held more than $TABLE_LIMIT" test "$within" -eq 0
    check "churn: it filled up ($CHURN_MAX)" test "$CHURN_MAX" -ge $((TABLE_LIMIT - 10))
    hosts_kept "churn"
}

# --- the end: a clean stop, no sanitizer report, nothing left ---

finish_suite() {
    local pid="$DAEMON_PID" rc=0
    remember_pids
    daemon_stop || rc=$?
    check "SIGTERM stops the daemon with status 0 (got $rc)" test "$rc" -eq 0
    check "no AddressSanitizer, LeakSanitizer or UBSan report in its log" no_sanitizer_report
    if ! no_sanitizer_report; then grep -E -A 12 "$SANITIZER_REPORT" "$DAEMON_LOG" | head -n 40 | sed 's/^/    /'; fi
    if ((FAILURES > 0)); then keep_daemon_log || true; fi
    check "lab down" lab_run down
    check_nothing_left "after the faults" "$pid" "${SEEN_PIDS[@]}"
}

# The latency probe must not outlive a test that stops early.
stop_probe_on_exit() {
    local rc=$?
    if [[ -n "$PROBE_PID" ]]; then kill "$PROBE_PID" 2>/dev/null || true; fi
    (exit "$rc")
    lab_down_on_exit
}

main() {
    lab_test_setup
    trap stop_probe_on_exit EXIT
    [[ -x "$ASAN_BIN" ]] || skip "no ASan+UBSan daemon at $ASAN_BIN (make asan builds it, or set HOSTRIX_ASAN_BIN)"
    HOSTRIX_BIN="$ASAN_BIN"
    require_client_bin
    write_probe
    timed start_suite
    timed fault_lock_held
    timed fault_silent_clients_and_events
    timed fault_arp_flood
    timed fault_dnsmasq_restart
    timed fault_ports_recreated
    timed fault_garbage_config
    timed fault_table_churn
    finish_suite
    finish
}

main "$@"
