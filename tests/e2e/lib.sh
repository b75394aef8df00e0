# shellcheck shell=bash source-path=SCRIPTDIR
# Helpers for the end-to-end tests: skip rules (exit 77), one line per check,
# bounded waits on conditions, and a lab that is always taken down on exit.
# LAB_PROFILE (default, openwrt) picks the lab's kernel names; tests speak gateway
# names (br0, eth0.2, wlan0) either way and the helpers translate.

E2E_DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
REPO_DIR="$(cd "$E2E_DIR/../.." && pwd)"
LAB="$REPO_DIR/lab/lab"
# shellcheck source=../../lab/lib/profile.sh
source "$REPO_DIR/lab/lib/profile.sh"
LAB_PROFILE="${LAB_PROFILE:-default}"
export HOSTRIX_LAB_DIR="${HOSTRIX_LAB_DIR:-/run/hostrix-lab}"
LAB_DIR="${HOSTRIX_LAB_DIR%/}"
GW_NS="hx-gw"
# shellcheck disable=SC2034 # used by the test scripts
PORTS=(eth0.2 eth0.3 eth0.4 eth0.5 wlan0 wlan0-vap0 wlan1 nas0_0)
FAILURES=0
CHECKS=0

skip() {
    printf 'SKIP: %s\n' "$*"
    exit 77
}

# Root, the tools, and a kernel that lets us make namespaces, veths and bridges.
require_lab_env() {
    local tool probe="hx-e2e-probe"
    [[ "$(id -u)" -eq 0 ]] || skip "needs root to create network namespaces"
    for tool in ip bridge dnsmasq busybox flock setsid; do
        command -v "$tool" >/dev/null 2>&1 || skip "'$tool' is not installed (make check installs it)"
    done
    [[ -e /proc/net/if_inet6 ]] || skip "IPv6 is disabled on this kernel"
    ip netns del "$probe" 2>/dev/null || true
    ip netns add "$probe" 2>/dev/null || skip "cannot create network namespaces here"
    if ! ip -n "$probe" link add p0 type veth peer name p1 2>/dev/null ||
        ! ip -n "$probe" link add pb type bridge 2>/dev/null; then
        ip netns del "$probe"
        skip "cannot create veth pairs or bridges in a namespace here"
    fi
    ip netns del "$probe"
}

check() {
    local desc="$1"
    shift
    CHECKS=$((CHECKS + 1))
    if "$@"; then
        printf 'ok   - %s\n' "$desc"
    else
        printf 'FAIL - %s\n' "$desc"
        FAILURES=$((FAILURES + 1))
    fi
}

# Retries CMD every 0.2 s, at most TRIES times: for state that settles
# asynchronously (leases, FDB learning), never a check on how long it took.
wait_for() {
    local tries="$1"
    shift
    while ((tries-- > 0)); do
        if "$@"; then return 0; fi
        sleep 0.2
    done
    return 1
}

finish() {
    printf '%d checks, %d failed\n' "$CHECKS" "$FAILURES"
    if ((FAILURES > 0)); then exit 1; fi
    exit 0
}

E2E_TMP=""

# A failed test leaves the daemon's log behind for a look (E2E_LOG_DIR, default /tmp).
keep_daemon_log() {
    local kept
    [[ -s "$LAB_DIR/hostrix.log" ]] || return 0
    kept="${E2E_LOG_DIR:-/tmp}/hostrix-e2e-$(basename "$0" .sh)-$LAB_PROFILE.log"
    cp -- "$LAB_DIR/hostrix.log" "$kept" 2>/dev/null && printf 'daemon log kept in %s\n' "$kept"
}

lab_down_on_exit() {
    local rc=$?
    if ((rc != 0)); then keep_daemon_log || true; fi
    "$LAB" down >/dev/null 2>&1 || true
    if [[ -n "$E2E_TMP" ]]; then rm -rf -- "$E2E_TMP"; fi
    exit "$rc"
}

# Starts from a clean machine and guarantees the lab is gone when the test ends.
lab_test_setup() {
    require_lab_env
    trap lab_down_on_exit EXIT
    trap 'exit 130' INT TERM
    E2E_TMP="$(mktemp -d)"
    "$LAB" down >/dev/null
}

# Quiet on success; the lab's own messages on failure.
lab_run() {
    if "$LAB" "$@" >"$E2E_TMP/lab.out" 2>&1; then return 0; fi
    sed 's/^/    /' "$E2E_TMP/lab.out" >&2
    return 1
}

# --- facts about the running lab (interfaces named as the gateway names them) ---

kif() { lab_kernel_ifname "$LAB_PROFILE" "$1"; }
gwif() { lab_gateway_ifname "$LAB_PROFILE" "$1"; }
BR_KERNEL="$(kif br0)"

lab_namespaces() { ip netns list 2>/dev/null | awk '$1 ~ /^hx-/ { print $1 }'; }
root_veths() { ip -o link show type veth 2>/dev/null | awk -F': ' '{ print $2 }' | sort; }
host_v4() { ip -n "hx-$1" -4 -o addr show dev eth0 2>/dev/null | awk '{ print $4 }'; }
host_v6() { ip -n "hx-$1" -6 -o addr show dev eth0 scope global 2>/dev/null | awk '{ print $4 }'; }
host_mac() { ip -n "hx-$1" -o link show dev eth0 2>/dev/null | grep -o 'link/ether [0-9a-f:]*' | awk '{ print $2 }'; }
lease_ip_of() { awk -v m="$1" '$2 == m { print $3 }' "$LAB_DIR/dnsmasq.leases" 2>/dev/null; }
lease_name_of() { awk -v m="$1" '$2 == m { print $4 }' "$LAB_DIR/dnsmasq.leases" 2>/dev/null; }
br0_ports() {
    local port
    for port in $(ip -n "$GW_NS" -o link show master "$BR_KERNEL" 2>/dev/null | awk -F': ' '{ sub(/@.*/, "", $2); print $2 }'); do
        gwif "$port"
        printf '\n'
    done | sort
}
port_carrier() { [[ "$(ip netns exec "$GW_NS" cat "/sys/class/net/$(kif "$1")/carrier" 2>/dev/null)" == 1 ]]; }
fdb_port_of() {
    local port
    port="$(bridge -n "$GW_NS" fdb show br "$BR_KERNEL" 2>/dev/null | awk -v m="$1" '$1 == m && $2 == "dev" { print $3; exit }')"
    if [[ -n "$port" ]]; then gwif "$port"; fi
}
fdb_has() { [[ "$(fdb_port_of "$1")" == "$2" ]]; }
station_listed() { grep -q "^$1 " "$LAB_DIR/stations/$2" 2>/dev/null; }

# Pids of processes whose command line names LAB_DIR (dnsmasq, udhcpc).
lab_dir_pids() {
    local f pid
    for f in /proc/[0-9]*/cmdline; do
        pid="${f#/proc/}"
        pid="${pid%/cmdline}"
        if { tr '\0' '\n' <"$f"; } 2>/dev/null | grep -qF "$LAB_DIR/"; then
            if [[ "$(awk '{ print $3 }' "/proc/$pid/stat" 2>/dev/null)" != Z ]]; then printf '%s\n' "$pid"; fi
        fi
    done
}

all_dead() {
    local pid
    for pid in "$@"; do
        if [[ -e "/proc/$pid" && "$(awk '{ print $3 }' "/proc/$pid/stat" 2>/dev/null)" != Z ]]; then return 1; fi
    done
}

# Prints one check per kind of leftover; ROOT_VETHS_BEFORE and PIDS_BEFORE
# (lab pids seen while it was up) come from the caller.
check_nothing_left() {
    local label="$1"
    shift
    check "$label: no hx- namespace left" test -z "$(lab_namespaces)"
    check "$label: no veth added to the root namespace" test "$(root_veths)" == "$ROOT_VETHS_BEFORE"
    check "$label: no process started by the lab alive" all_dead "$@"
    check "$label: no process naming $LAB_DIR alive" test -z "$(lab_dir_pids)"
    check "$label: no $LAB_DIR left" test ! -e "$LAB_DIR"
    check "$label: no lock file left" test ! -e "$LAB_DIR.lock"
}

# --- the daemon, for tests that run it in the lab (lab/lab down also stops it) ---

# Exported: the lab takes the daemon's helper programs from the same directory.
export HOSTRIX_BIN="${HOSTRIX_BIN:-$REPO_DIR/build/bin/hostrix}"
DAEMON_PID=""

require_daemon_bin() {
    [[ -x "$HOSTRIX_BIN" ]] || skip "no daemon binary at $HOSTRIX_BIN (build it or set HOSTRIX_BIN)"
}

# Runs the daemon in the gateway namespace the way lab/demo.sh does.
daemon_start() { daemon_start_env HOSTRIX_ROOT="$LAB_DIR/root"; }

# The same with the environment given as NAME=VALUE words added to ours, e.g.
# HOSTRIX_ROOT=... PATH= for a daemon that can start no program.
daemon_start_env() {
    setsid ip netns exec "$GW_NS" env "$@" "$HOSTRIX_BIN" \
        </dev/null >>"$LAB_DIR/hostrix.log" 2>&1 &
    DAEMON_PID=$!
    printf '%s\n' "$DAEMON_PID" >"$LAB_DIR/hostrix.daemon.pid"
}

# SIGTERM, then SIGKILL if it is still there after 3 s; returns its exit status.
daemon_stop() {
    local rc=0
    [[ -n "$DAEMON_PID" ]] || return 0
    kill -TERM "$DAEMON_PID" 2>/dev/null || true
    if ! wait_for 15 all_dead "$DAEMON_PID"; then kill -KILL "$DAEMON_PID" 2>/dev/null || true; fi
    wait "$DAEMON_PID" 2>/dev/null || rc=$?
    DAEMON_PID=""
    return "$rc"
}

# --- the client's view of the daemon in the lab ---

ROOT="$LAB_DIR/root"
HOSTRIXCTL_BIN="${HOSTRIXCTL_BIN:-$REPO_DIR/build/bin/hostrixctl}"

ctl() { HOSTRIX_ROOT="$ROOT" "$HOSTRIXCTL_BIN" "$@"; }
socket_up() { [[ -S "$ROOT/var/run/.hostrix_msg" ]]; }

require_client_bin() {
    [[ -x "$HOSTRIXCTL_BIN" ]] || skip "no client at $HOSTRIXCTL_BIN (build it or set HOSTRIXCTL_BIN)"
}

# The lab, and the daemon in it answering on its control socket.
start_daemon_in_lab() {
    check "lab up (profile $LAB_PROFILE)" lab_run up --profile "$LAB_PROFILE"
    daemon_start
    check "control socket is listening" wait_for 50 socket_up
}

# Every report a query returns is appended to its log, so none is lost between checks.
poll() { ctl "$1" --json >>"$E2E_TMP/$1.json" 2>/dev/null || true; }
reported() { poll "$1"; grep -qF "\"mac\":\"$2\"" "$E2E_TMP/$1.json"; }

# FIELD of the first record of MAC in the JSON lines of FILE.
field_in() {
    python3 - "$1" "$2" "$3" <<'PY'
import json, sys
path, mac, field = sys.argv[1:]
for line in open(path):
    if line.strip():
        record = json.loads(line)
        if record.get("mac") == mac:
            print(record.get(field, ""))
            break
PY
}
