#!/usr/bin/env bash
# The daemon on a full LAN (lab/lab scale): K real DHCP clients behind eth0.2 join at
# once. For each K it prints the arrival delay from lease to `new` report (p50, max),
# the CPU of 60 s of steady state (the daemon's own threads and its children apart),
# VmRSS and VmHWM, and control round trips per second with their p99 while discovery
# runs, beside a null UNIX-socket server measured in the same run.
# Usage: bench/scale_lab.sh [K...]      (as root; default 100 250)
#        bench/scale_lab.sh churn [SECONDS]
#            500 made-up hosts take turns through the 256-entry table for SECONDS
#            (default 600); prints RSS at the start and at the end.
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=../tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../tests/e2e/lib.sh"

PROBE="$REPO_DIR/bench/scale_probe.py"
TRAFFIC="$REPO_DIR/lab/lan_traffic.py"
SOCKET="$LAB_DIR/root/var/run/.hostrix_msg"
STEADY_S=60
RTT_S=5
TICKS_PER_SECOND="$(getconf CLK_TCK)"

# utime stime cutime cstime of the daemon, in clock ticks.
cpu_ticks() { awk '{ print $14, $15, $16, $17 }' "/proc/$DAEMON_PID/stat"; }
status_kb() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$DAEMON_PID/status"; }

bench_start() {
    lab_run down >/dev/null
    # The shipping debug flags (none): the lab's own turn on per-host log lines.
    LAB_MIB_OVERRIDES='480=0' lab_run up >/dev/null || { echo "scale: the lab did not come up" >&2; exit 1; }
    if (($# > 0)); then lab_run "$@" || { echo "scale: lab/lab $* failed" >&2; exit 1; }; fi
    daemon_start_env HOSTRIX_ROOT="$ROOT"
    wait_for 50 socket_up || { echo "scale: the daemon did not answer" >&2; exit 1; }
}

bench_stop() {
    daemon_stop || true
    lab_run down >/dev/null
}

steady_cpu() {
    local before after
    before="$(cpu_ticks)"
    sleep "$STEADY_S"
    after="$(cpu_ticks)"
    # shellcheck disable=SC2086 # four numbers each
    python3 - "$STEADY_S" "$TICKS_PER_SECOND" $before $after <<'PY'
import sys
seconds, hz, *ticks = map(int, sys.argv[1:])
own = (ticks[4] + ticks[5] - ticks[0] - ticks[1]) / hz / seconds * 100
children = (ticks[6] + ticks[7] - ticks[2] - ticks[3]) / hz / seconds * 100
print(f"cpu over {seconds} s: own threads {own:.3f}% of a core, children {children:.3f}%")
PY
}

round_trips() {
    local null="$LAB_DIR/null.sock" server
    printf 'control: daemon %s\n' "$(ip netns exec "$GW_NS" python3 "$PROBE" rtt "$SOCKET" "$RTT_S")"
    python3 "$PROBE" null-server "$null" &
    server=$!
    wait_for 25 test -S "$null" || true
    printf 'control: null server %s\n' "$(python3 "$PROBE" rtt "$null" "$RTT_S")"
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
}

run_scale() {
    local count="$1"
    echo "--- scale: $count DHCP clients join at once behind eth0.2"
    bench_start scale "$count" --hold
    sleep 4  # the daemon's first cycles, before anyone joins
    python3 "$PROBE" arrivals "$SOCKET" "$LAB_DIR/dnsmasq.leases" "$count" 60 >"$LAB_DIR/arrivals" &
    local probe=$!
    lab_run scale-go >/dev/null
    wait "$probe" || true
    cat "$LAB_DIR/arrivals"
    steady_cpu
    printf 'memory: VmRSS %s kB, VmHWM %s kB\n' "$(status_kb VmRSS)" "$(status_kb VmHWM)"
    round_trips
    bench_stop
}

run_churn() {
    local seconds="${1:-600}"
    echo "--- churn: 500 made-up hosts take turns through the 256-entry table for $seconds s"
    bench_start
    lab_run exec h1 python3 "$TRAFFIC" arp-churn eth0 500 120 10  # warm-up
    printf 'start: VmRSS %s kB, VmHWM %s kB\n' "$(status_kb VmRSS)" "$(status_kb VmHWM)"
    lab_run exec h1 python3 "$TRAFFIC" arp-churn eth0 500 120 "$seconds"
    printf 'end:   VmRSS %s kB, VmHWM %s kB\n' "$(status_kb VmRSS)" "$(status_kb VmHWM)"
    bench_stop
}

main() {
    lab_test_setup
    [[ -x "$HOSTRIX_BIN" ]] || skip "no daemon binary at $HOSTRIX_BIN (make bench builds it)"
    if [[ "${1:-}" == churn ]]; then
        run_churn "${2:-600}"
        return
    fi
    local count
    local -a counts=("$@")
    ((${#counts[@]} > 0)) || counts=(100 250)
    for count in "${counts[@]}"; do run_scale "$count"; done
}

main "$@"
