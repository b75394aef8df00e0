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
DAEMON_LOG="$LAB_DIR/hostrix.log"
GW_NS="hx-gw"
PORTS=(eth0.2 eth0.3 eth0.4 eth0.5 wlan0 wlan0-vap0 wlan1 nas0_0)
FAILURES=0
CHECKS=0

skip() { printf 'SKIP: %s\n' "$*"; exit 77; }

# require_tools TOOL...: skips unless each is on PATH.
require_tools() { local tool; for tool; do command -v "$tool" >/dev/null || skip "'$tool' is not installed (make check installs it)"; done; }

# Root, the tools, and a kernel that lets us make namespaces, veths and bridges.
require_lab_env() {
    local probe="hx-e2e-probe" made=0
    [[ "$(id -u)" -eq 0 ]] || skip "needs root to create network namespaces"
    require_tools ip bridge dnsmasq busybox flock setsid
    [[ -e /proc/net/if_inet6 ]] || skip "IPv6 is disabled on this kernel"
    ip netns del "$probe" 2>/dev/null || true
    ip netns add "$probe" 2>/dev/null || skip "cannot create network namespaces here"
    ip -n "$probe" link add p0 type veth peer name p1 2>/dev/null && ip -n "$probe" link add pb type bridge 2>/dev/null || made=1
    ip netns del "$probe"
    ((made == 0)) || skip "cannot create veth pairs or bridges in a namespace here"
}

# check DESC CMD...: one line per check; a failure is counted, the test goes on.
check() {
    CHECKS=$((CHECKS + 1))
    if "${@:2}"; then printf 'ok   - %s\n' "$1"; else printf 'FAIL - %s\n' "$1" && FAILURES=$((FAILURES + 1)); fi
}

# Retries CMD every 0.2 s, at most TRIES times: for state that settles
# asynchronously (leases, FDB learning), never a check on how long it took.
wait_for() {
    local tries="$1"
    while ((tries-- > 0)); do "${@:2}" && return 0; sleep 0.2; done
    return 1
}

finish() { printf '%d checks, %d failed\n' "$CHECKS" "$FAILURES"; exit $((FAILURES > 0)); }

E2E_TMP=""

# A failed test leaves the daemon's log behind for a look (E2E_LOG_DIR, default /tmp).
keep_daemon_log() {
    local test="${0##*/}" kept
    kept="${E2E_LOG_DIR:-/tmp}/hostrix-e2e-${test%.sh}-$LAB_PROFILE.log"
    [[ ! -s "$DAEMON_LOG" ]] || { cp -- "$DAEMON_LOG" "$kept" 2>/dev/null && echo "daemon log kept in $kept"; }
}

# lab_down_on_exit [RC]: RC defaults to the status the script is ending with.
lab_down_on_exit() {
    local rc=${1:-$?}
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
lab_run() { "$LAB" "$@" >"$E2E_TMP/lab.out" 2>&1 || ! sed 's/^/    /' "$E2E_TMP/lab.out" >&2; }

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
        gwif "$port" && echo
    done | sort
}
port_carrier() { [[ "$(ip netns exec "$GW_NS" cat "/sys/class/net/$(kif "$1")/carrier" 2>/dev/null)" == 1 ]]; }
fdb_port_of() {
    local port
    port="$(bridge -n "$GW_NS" fdb show br "$BR_KERNEL" 2>/dev/null | awk -v m="$1" '$1 == m && $2 == "dev" { print $3; exit }')"
    [[ -z "$port" ]] || gwif "$port"
}
fdb_has() { [[ "$(fdb_port_of "$1")" == "$2" ]]; }
no_carrier() { ! port_carrier "$1"; }
station_listed() { grep -q "^$1 " "$LAB_DIR/stations/$2" 2>/dev/null; }
not_listed() { ! station_listed "$1" "$2"; }
dnsmasq_pid() { tr -dc '0-9' <"$LAB_DIR/dnsmasq.pid" 2>/dev/null; }

alive() { [[ -e "/proc/$1" && "$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null)" != Z ]]; }
all_dead() { local pid; for pid; do ! alive "$pid" || return 1; done; }
# Pids of processes whose command line names LAB_DIR (dnsmasq, udhcpc), live or not.
lab_dir_pids() { grep -lsaF "$LAB_DIR/" /proc/[0-9]*/cmdline | cut -d/ -f3; }

# What the lab leaves behind: hx- namespaces, veths in the root namespace beyond
# ROOT_VETHS_BEFORE (from the caller), live processes of PIDS or naming LAB_DIR,
# LAB_DIR itself and its lock.
leftovers() {
    local pid
    lab_namespaces
    if [[ "$(root_veths)" != "$ROOT_VETHS_BEFORE" ]]; then root_veths; fi
    for pid in "$@" $(lab_dir_pids); do if alive "$pid"; then printf 'pid %s\n' "$pid"; fi; done
    ls -d "$LAB_DIR" "$LAB_DIR.lock" 2>/dev/null || true
}
nothing_left() { local left; left="$(leftovers "$@")"; [[ -z "$left" ]] || ! echo "    left: ${left//$'\n'/, }" >&2; }
# check_nothing_left LABEL PID...: one check for every kind of leftover.
check_nothing_left() { check "$1: no namespace, veth, process, $LAB_DIR or lock left" nothing_left "${@:2}"; }

# --- the daemon, for tests that run it in the lab (lab/lab down also stops it) ---

# Exported: the lab takes the daemon's helper programs from the same directory.
export HOSTRIX_BIN="${HOSTRIX_BIN:-$REPO_DIR/build/bin/hostrix}"
DAEMON_PID=""

# Runs the daemon in the gateway namespace the way lab/demo.sh does, with NAME=VALUE
# words added to its environment, e.g. HOSTRIX_ROOT=... PATH= (no program can start).
daemon_start_env() {
    setsid ip netns exec "$GW_NS" env "$@" "$HOSTRIX_BIN" </dev/null >>"$DAEMON_LOG" 2>&1 &
    DAEMON_PID=$!
    printf '%s\n' "$DAEMON_PID" >"$LAB_DIR/hostrix.daemon.pid"
}

# stop_pid PID [TRIES]: SIGTERM, then SIGKILL if it is still there after TRIES
# (default 25) tries; returns its exit status.
stop_pid() {
    local rc=0
    [[ -n "$1" ]] || return 0
    kill -TERM "$1" 2>/dev/null || true
    wait_for "${2:-25}" all_dead "$1" || kill -KILL "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || rc=$?
    return "$rc"
}
daemon_stop() { local pid="$DAEMON_PID"; DAEMON_PID=""; stop_pid "$pid" 15; }

ROOT="$LAB_DIR/root"
HOSTRIXCTL_BIN="${HOSTRIXCTL_BIN:-$REPO_DIR/build/bin/hostrixctl}"

ctl() { HOSTRIX_ROOT="$ROOT" "$HOSTRIXCTL_BIN" "$@"; }
socket_up() { [[ -S "$ROOT/var/run/.hostrix_msg" ]]; }

# The lab, and the daemon in it (NAME=VALUE words added to its environment) answering.
start_daemon_in_lab() {
    check "lab up (profile $LAB_PROFILE)" lab_run up --profile "$LAB_PROFILE"
    daemon_start_env HOSTRIX_ROOT="$ROOT" "$@"
    check "control socket is listening" wait_for 50 socket_up
}

# Skips unless the lab, the daemon and the client can run; then a clean start.
daemon_test_setup() {
    lab_test_setup
    [[ -x "$HOSTRIX_BIN" ]] || skip "no daemon binary at $HOSTRIX_BIN (build it or set HOSTRIX_BIN)"
    [[ -x "$HOSTRIXCTL_BIN" ]] || skip "no client at $HOSTRIXCTL_BIN (build it or set HOSTRIXCTL_BIN)"
}

TICKS_2=50  # two 3 s main-loop ticks and some slack, in 0.2 s tries
ONE_TICK=25 # one tick and some slack
LAB_HOSTS=(h1 h2 h3 h4 h5 h6)
TRAFFIC="$REPO_DIR/lab/lan_traffic.py"

logged() { grep -qF -- "$1" "$DAEMON_LOG" 2>/dev/null; }
log_lines() { grep -cF -- "$1" "$DAEMON_LOG" 2>/dev/null || true; }
in_ns() { ip netns exec "$@"; }
traffic() { in_ns "hx-$1" python3 "$TRAFFIC" "${@:2}"; }
# The gateway asks IP once: hosts it never talks to are found by ARP.
gw_ping() { in_ns "$GW_NS" busybox ping -c 1 -W 2 "$1" >/dev/null 2>&1 || true; }

# Every report a query returns is appended to its log, so none is lost between checks.
poll() { ctl "$1" --json >>"$E2E_TMP/$1.json" 2>/dev/null || true; }
reported() { poll "$1"; grep -qF "\"mac\":\"$2\"" "$E2E_TMP/$1.json"; }
lab_hosts_reported() { local name; for name in "${LAB_HOSTS[@]}"; do reported new "$(host_mac "$name")" || return 1; done; }
# The static host answers only when asked; the others arrive by their leases.
check_lab_hosts_arrive() {
    gw_ping 10.77.0.50
    check "the six lab hosts arrive" wait_for 150 lab_hosts_reported
}
# Host NAME's DHCP client releases its lease.
release_lease() { kill -USR2 "$(tr -dc '0-9' <"$LAB_DIR/udhcpc.$1.pid")"; }
nft_table_present() { in_ns "$GW_NS" nft list table bridge hostrix >/dev/null 2>&1; }

# The host file after SIGUSR2 (rates sampled, file rewritten), as JSON lines in list.json.
refresh() { kill -USR2 "$DAEMON_PID"; sleep 0.3; ctl list --json >"$E2E_TMP/list.json" 2>/dev/null; }
in_host_file() { refresh && grep -qF "\"mac\":\"$1\"" "$E2E_TMP/list.json"; }
listed_field() { record_check "$E2E_TMP/list.json" "$1" "$2"; }
# listed_with MAC FIELD=VALUE...: the refreshed host file's record of MAC holds them all.
listed_with() { refresh && record_has "$E2E_TMP/list.json" "$@"; }

# record_has FILE MAC FIELD=VALUE...: MAC's first record there holds every pair.
record_has() { [[ -z "$(record_check "$@")" ]]; }
# record_check FILE MAC FIELD: that field of MAC's first record in the JSON lines of FILE.
record_check() {
    python3 - "$@" <<'PY'
import json, sys
path, mac, *pairs = sys.argv[1:]
record = next((r for r in map(json.loads, filter(str.strip, open(path))) if r.get("mac") == mac), {})
if len(pairs) == 1 and "=" not in pairs[0]: print(record.get(pairs[0], ""))
else: print(*(key for key, want in (p.split("=", 1) for p in pairs) if str(record.get(key, "")) != want))
PY
}

# An mDNS answer "NAME.local is at IP" from inside host HOST (labels hold no blanks).
announce_mdns() {
    ip netns exec "hx-$1" /usr/bin/python3 - "$2" "$3" <<'PY'
import socket, struct, sys
name, ip = sys.argv[1:]
packet = struct.pack("!6H", 0, 0x8400, 0, 1, 0, 0) + bytes([len(name)]) + name.encode() + b"\x05local\x00"
packet += struct.pack("!HHIH", 1, 0x8001, 120, 4) + socket.inet_aton(ip)
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ip))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
s.sendto(packet, ("224.0.0.251", 5353))
PY
}

# --- hostrix-agent beside the daemon ---

AGENT_BIN="${HOSTRIX_AGENT_BIN:-$(dirname "$HOSTRIX_BIN")/hostrix-agent}"
AGENT_LOG="$LAB_DIR/agent.log"
AGENT_SOCKET="$ROOT/var/run/hostrix-agent/agent.sock"
AGENT_PID="" E2E_RC=0
in_gw() { ip netns exec "$GW_NS" "$@"; }
agent_start() {
    setsid ip netns exec "$GW_NS" env HOSTRIX_ROOT="$ROOT" "$AGENT_BIN" </dev/null >>"$AGENT_LOG" 2>&1 &
    AGENT_PID=$!
}
agent_logged() { grep -qF -- "$1" "$AGENT_LOG" 2>/dev/null; }
# agent_test_setup NAME CLEANUP: daemon_test_setup, a skip without the agent; on exit
# CLEANUP runs, the agent stops and its log is kept as hostrix-agent-NAME-e2e.log.
agent_test_setup() {
    daemon_test_setup
    [[ -x "$AGENT_BIN" ]] || skip "no agent binary at $AGENT_BIN (build it or set HOSTRIX_AGENT_BIN)"
    AGENT_TEST="$1"
    trap 'E2E_RC=$?; '"$2"'; agent_down; lab_down_on_exit "$E2E_RC"' EXIT
}
agent_down() {
    stop_pid "$AGENT_PID" || true
    if [[ -s "$AGENT_LOG" ]]; then cp -- "$AGENT_LOG" "${E2E_LOG_DIR:-/tmp}/hostrix-agent-$AGENT_TEST-e2e.log" || true; fi
}
