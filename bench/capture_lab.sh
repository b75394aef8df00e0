#!/usr/bin/env bash
# The whole capture path in the lab: a client sends ARP replies at a fixed rate into
# br0; the daemon's sniffer thread takes each one through the kernel filter, the
# packet socket and the parser. Prints frames per second offered, the sniffer thread's
# CPU time per 10,000 frames at the shipping log level, and (in a second run at log
# level 7) how many frames reached the parser.
# Usage: bench/capture_lab.sh [FRAMES] [RATES...]   (as root; default 100000 at 10000 and 50000/s)
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=../tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../tests/e2e/lib.sh"

FRAMES="${1:-100000}"
shift || true
RATES=("$@")
((${#RATES[@]} > 0)) || RATES=(10000 50000)
TRAFFIC="$REPO_DIR/lab/lan_traffic.py"
TICKS_PER_SECOND="$(getconf CLK_TCK)"

sniffer_tid() {
    local task
    for task in /proc/"$DAEMON_PID"/task/*; do
        if [[ "$(cat "$task/comm" 2>/dev/null)" == Sniffer ]]; then
            printf '%s' "${task##*/}"
            return 0
        fi
    done
    return 1
}

# utime and stime of the sniffer thread, in clock ticks.
sniffer_ticks() { awk '{ print $14, $15 }' "/proc/$DAEMON_PID/task/$1/stat"; }
now_ns() { date +%s%N; }
# Receive lines of the generator's frames that arrived on interface $1.
receive_lines() { grep -c "Receive packet SIZE 42 PROTO 0x0806 IF $1 " "$LAB_DIR/hostrix.log" 2>/dev/null || true; }

send_replies() { ip netns exec hx-h1 python3 "$TRAFFIC" arp-replies eth0 "$FRAMES" "$1"; }

measure_rate() {
    local rate="$1" tid before after start elapsed_ns
    tid="$(sniffer_tid)"
    before="$(sniffer_ticks "$tid")"
    start="$(now_ns)"
    send_replies "$rate"
    elapsed_ns=$(($(now_ns) - start))
    sleep 0.5  # let the thread drain its sockets
    after="$(sniffer_ticks "$tid")"
    # shellcheck disable=SC2086 # two numbers each
    python3 - "$FRAMES" "$elapsed_ns" "$TICKS_PER_SECOND" "$rate" $before $after <<'PY'
import sys
frames, elapsed_ns, hz, rate, user0, sys0, user1, sys1 = map(int, sys.argv[1:])
fps = frames / (elapsed_ns / 1e9)
user_ms, sys_ms = (user1 - user0) * 1000 / hz, (sys1 - sys0) * 1000 / hz
per = 10000 / frames
print(f"capture  offered {rate:>6}/s  sent {fps:>8.0f} frames/s  sniffer thread per 10,000 frames: "
      f"{(user_ms + sys_ms) * per:6.1f} ms CPU ({user_ms * per:5.1f} user, {sys_ms * per:5.1f} system), "
      f"{(user_ms + sys_ms) / (elapsed_ns / 1e6) * 100:5.1f}% of one core")
PY
}

# Level 7 logs every frame, so the count of receive lines shows how many got through.
measure_delivery() {
    local br0 nas0
    kill -USR1 "$DAEMON_PID"
    sleep 1
    br0="$(receive_lines br0)"
    nas0="$(receive_lines nas0_0)"
    send_replies 10000
    sleep 2
    printf 'delivery %d frames sent at 10000/s with every frame logged: %d reached the parser from br0, %d from nas0_0 (no carrier in the lab: nothing is forwarded to it)\n' \
        "$FRAMES" $(($(receive_lines br0) - br0)) $(($(receive_lines nas0_0) - nas0))
}

main() {
    lab_test_setup
    [[ -x "$HOSTRIX_BIN" ]] || skip "no daemon binary at $HOSTRIX_BIN (make bench builds it)"
    lab_run up || { echo "lab up failed" >&2; exit 1; }
    daemon_start_env HOSTRIX_ROOT="$ROOT"
    wait_for 50 sniffer_tid >/dev/null || { echo "no Sniffer thread in the daemon" >&2; exit 1; }
    sleep 2
    local rate
    for rate in "${RATES[@]}"; do measure_rate "$rate"; done
    "$LAB" set 480 0x400 >/dev/null
    measure_delivery
    daemon_stop || true
}

main "$@"
