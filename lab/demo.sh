#!/usr/bin/env bash
# demo: builds the virtual LAN, runs hostrix and hostrix-agent in the gateway
# namespace and shows what they see, for SECONDS or until Ctrl-C; then stops the
# agent, the daemon and the lab.
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
REPO="$(dirname "$HERE")"
LAB="$HERE/lab"
LAB_DIR="${HOSTRIX_LAB_DIR:-/run/hostrix-lab}"
LAB_DIR="${LAB_DIR%/}"
HOSTRIX_BIN="${HOSTRIX_BIN:-$REPO/build/bin/hostrix}"
HOSTRIXCTL_BIN="${HOSTRIXCTL_BIN:-$REPO/build/bin/hostrixctl}"
AGENT_BIN="${HOSTRIX_AGENT_BIN:-$(dirname "$HOSTRIX_BIN")/hostrix-agent}"
DAEMON_ROOT="$LAB_DIR/root"
DAEMON_LOG="$LAB_DIR/hostrix.log"
DAEMON_PID_FILE="$LAB_DIR/hostrix.daemon.pid"
AGENT_LOG="$LAB_DIR/agent.log"
AGENT_SOCKET="$DAEMON_ROOT/var/run/hostrix-agent/agent.sock"
CONTROL_SOCKET="$DAEMON_ROOT/var/run/.hostrix_msg"
WEB_URL="http://127.0.0.1:8089/"  # hostrix-agent's http_listen default, inside hx-gw
readonly REFRESH_S=3 STOP_GRACE_S=3 SOCKET_WAIT_S=15

DURATION=0
DEADLINE=0
STOP_REQUESTED=0
DAEMON_PID=""
AGENT_PID=""
VIEW_PID=""
STORY_PID=""
STEP=0

say() { printf '\n[demo %d] %s\n' "$((STEP += 1))" "$*"; }
note() { printf '         %s\n' "$*"; }
die() {
    printf 'demo: error: %s\n' "$*" >&2
    exit 1
}

usage() {
    cat <<USAGE
usage: lab/demo.sh [SECONDS]    (as root)
Builds the lab, starts hostrix in hx-gw and shows the live picture; stops by
itself after SECONDS of watching (0 or none: at Ctrl-C), then stops the daemon and the lab.
env: HOSTRIX_BIN (default build/bin/hostrix), HOSTRIXCTL_BIN (default build/bin/hostrixctl),
     HOSTRIX_AGENT_BIN (default hostrix-agent beside HOSTRIX_BIN),
     HOSTRIX_LAB_DIR (default /run/hostrix-lab), LAB_PROFILE (default or openwrt, see
     lab/lab --help), plus lab/lab's LAB_MIB_OVERRIDES
USAGE
}

parse_args() {
    case "${1:-}" in
        -h | --help) usage; exit 0 ;;
        "") DURATION=0 ;;
        *[!0-9]*) die "SECONDS must be a whole number (got '$1'); see lab/demo.sh --help" ;;
        *) DURATION=$((10#$1)) ;;
    esac
    (($# <= 1)) || die "too many arguments; usage: lab/demo.sh [SECONDS]"
}

preflight() {
    [[ "$(id -u)" -eq 0 ]] || die "the demo builds network namespaces and needs root; run: sudo lab/demo.sh"
    [[ -x "$HOSTRIX_BIN" ]] || die "no daemon at $HOSTRIX_BIN; build it with 'make' or set HOSTRIX_BIN"
}

pid_alive() {
    local state
    state="$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null)" || return 1
    [[ -n "$state" && "$state" != Z ]]
}

# Sleeps in the background so a Ctrl-C is handled at once, not after the sleep.
pause() {
    sleep "$1" &
    wait "$!" || true
}

time_left() { ((DEADLINE == 0 || $(date +%s) < DEADLINE)); }
keep_going() { ((STOP_REQUESTED == 0)) && time_left && pid_alive "$DAEMON_PID"; }

lab_fresh_up() {
    say "Building the virtual LAN: gateway hx-gw (br0, dnsmasq) and hosts h1..h6"
    "$LAB" down >/dev/null
    "$LAB" up --profile "${LAB_PROFILE:-default}"
}

# The client needs the control socket, which comes after the daemon's start-up work
# (its first nft run can take a while on a cold machine); a fixed pause would race it.
wait_for_control_socket() {
    local tries=$((SOCKET_WAIT_S * 10))
    while ((tries-- > 0)) && pid_alive "$DAEMON_PID" && [[ ! -S "$CONTROL_SOCKET" ]]; do
        sleep 0.1
    done
    [[ -S "$CONTROL_SOCKET" ]] || ! pid_alive "$DAEMON_PID" ||
        note "no control socket at $CONTROL_SOCKET after ${SOCKET_WAIT_S} s; going on"
}

start_daemon() {
    say "Starting hostrix in namespace hx-gw"
    note "binary: $HOSTRIX_BIN"
    note "HOSTRIX_ROOT=$DAEMON_ROOT (config $DAEMON_ROOT/etc/hostrix/mib.conf)"
    # Own session: a Ctrl-C reaches the demo, which then stops the daemon in order.
    setsid ip netns exec hx-gw env HOSTRIX_ROOT="$DAEMON_ROOT" "$HOSTRIX_BIN" \
        </dev/null >>"$DAEMON_LOG" 2>&1 &
    DAEMON_PID=$!
    printf '%s\n' "$DAEMON_PID" >"$DAEMON_PID_FILE"
    note "pid $DAEMON_PID, log $DAEMON_LOG"
    wait_for_control_socket
    if ! pid_alive "$DAEMON_PID"; then
        local rc=0
        wait "$DAEMON_PID" || rc=$?
        DAEMON_PID=""
        tail -n 20 "$DAEMON_LOG" >&2 || true
        die "hostrix exited right after starting (exit status $rc); its last log lines are above ($DAEMON_LOG)"
    fi
}

# The agent reads the daemon for everyone; watch then takes its events from the
# agent, so the daemon's one-shot reports are not used up by the demo.
start_agent() {
    [[ -x "$AGENT_BIN" ]] || {
        note "no hostrix-agent at $AGENT_BIN; watch will poll the daemon itself"
        return 0
    }
    say "Starting hostrix-agent in namespace hx-gw (vendors, fingerprints, mDNS names, history)"
    setsid ip netns exec hx-gw env HOSTRIX_ROOT="$DAEMON_ROOT" "$AGENT_BIN" \
        </dev/null >>"$AGENT_LOG" 2>&1 &
    AGENT_PID=$!
    note "pid $AGENT_PID, log $AGENT_LOG, subscribers at $AGENT_SOCKET"
    local tries=$((SOCKET_WAIT_S * 10))
    while ((tries-- > 0)) && pid_alive "$AGENT_PID" && [[ ! -S "$AGENT_SOCKET" ]]; do sleep 0.1; done
    [[ -S "$AGENT_SOCKET" ]] || note "hostrix-agent did not come up; see $AGENT_LOG"
}

print_picture() {
    local elapsed="" lines
    if ((DEADLINE > 0)); then elapsed=" ($((DEADLINE - $(date +%s))) s left)"; fi
    printf '\n---- %s%s ----\n' "$(date +%T)" "$elapsed"
    printf '== hostrix log (last lines) ==\n'
    lines="$(tail -n 8 "$DAEMON_LOG" 2>/dev/null)"
    printf '%s\n' "${lines:-(nothing logged yet)}"
    "$LAB" status --brief || true
}

view_with_log() {
    while keep_going; do
        print_picture
        pause "$REFRESH_S"
    done
}

# The control socket and host file are files under DAEMON_ROOT, so the client
# reaches the daemon from this namespace; no `ip netns exec` is needed.
ctl() { HOSTRIX_ROOT="$DAEMON_ROOT" "$HOSTRIXCTL_BIN" "$@"; }

view_with_client() {
    "$LAB" status --brief || true  # what the LAN holds, to compare with the events
    note "one line per event: time, NEW/LEFT/CHANGED, MAC, IPv4, name, interface, port, SSID, IPv6"
    note "(watch says on stderr whether it reads hostrix-agent or the daemon itself)"
    # The binary itself in the background (not a function subshell), so stop_pid
    # reaches the client and not only a wrapper.
    HOSTRIX_ROOT="$DAEMON_ROOT" "$HOSTRIXCTL_BIN" watch &
    VIEW_PID=$!
    while keep_going && pid_alive "$VIEW_PID"; do pause 1; done
    if keep_going; then
        local rc=0
        wait "$VIEW_PID" || rc=$?
        VIEW_PID=""
        note "hostrixctl watch ended (exit status $rc); showing the daemon log instead"
        view_with_log
    fi
}

# A little life on the LAN while the view runs: a device arrives, a phone roams to
# the 5 GHz radio, a station leaves. Each step waits so its events stand apart.
run_story() {
    local step
    for step in "add-host tv eth0.5 --hostname living-room-tv" "roam h3 wlan1" "sta-leave h4"; do
        sleep 15
        printf '         [story] lab/lab %s\n' "$step"
        # shellcheck disable=SC2086 # the step is a list of words
        "$LAB" $step >/dev/null 2>&1 || printf '         [story] lab/lab %s failed\n' "$step"
    done
}

start_story() {
    run_story &
    STORY_PID=$!
}

# The agent's page listens inside hx-gw; the demo shows that it answers with the
# LAN's devices and says how to open it from here.
show_web_page() {
    [[ -n "$AGENT_PID" ]] || return 0
    say "The connected-devices page: $WEB_URL in namespace hx-gw (http_listen in agent.conf)"
    # Only until it answers: the watch below is to see the hosts arrive.
    local tries=50 count=""
    while ((tries-- > 0)) && pid_alive "$AGENT_PID"; do
        count="$(ip netns exec hx-gw python3 -c 'import json, sys, urllib.request
print(len(json.load(urllib.request.urlopen(sys.argv[1] + "api/hosts", timeout=2))["hosts"]))' "$WEB_URL" 2>/dev/null)" && break
        sleep 0.2
    done
    note "it answers: ${WEB_URL}api/hosts lists ${count:-no} online devices so far; ${WEB_URL}metrics has their traffic"
    note "open it from this machine (socat forwards port 8089 into hx-gw), then browse $WEB_URL:"
    note "  socat TCP-LISTEN:8089,bind=127.0.0.1,fork,reuseaddr EXEC:'ip netns exec hx-gw socat STDIO TCP:127.0.0.1:8089'"
    note "or take a picture: ip netns exec hx-gw chromium --headless --no-sandbox --screenshot=/tmp/page.png $WEB_URL"
}

# The one place that picks the view: the client once it is built, the log until then.
show_live_view() {
    local until="until Ctrl-C"
    # SECONDS is watching time: building the lab does not eat into it.
    if ((DURATION > 0)); then
        until="for $DURATION s (Ctrl-C stops earlier)"
        DEADLINE=$(($(date +%s) + DURATION))
    fi
    if [[ -x "$HOSTRIXCTL_BIN" ]]; then
        say "Watching with '$HOSTRIXCTL_BIN watch' $until"
        note "every 15 s the demo adds a TV on eth0.5, roams h3 to wlan1, then lets h4 leave"
        note "try in another shell: lab/lab unplug h1 | lab/lab add-host cam eth0.4"
        start_story
        view_with_client
    else
        say "Showing the daemon log, leases and bridge FDB every ${REFRESH_S} s $until"
        note "try in another shell: lab/lab roam h3 wlan1 | lab/lab unplug h1 | lab/lab add-host tv eth0.5"
        view_with_log
    fi
}

stop_pid() {
    local pid="$1" tries=$((STOP_GRACE_S * 10))
    kill -TERM "$pid" 2>/dev/null || true
    while pid_alive "$pid" && ((tries-- > 0)); do sleep 0.1; done
    if pid_alive "$pid"; then
        note "pid $pid did not stop within ${STOP_GRACE_S} s; sending SIGKILL"
        kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
}

daemon_died() { [[ -n "$DAEMON_PID" ]] && ! pid_alive "$DAEMON_PID"; }

# The closing picture: the host file, rewritten at once on SIGUSR2.
show_final_hosts() {
    [[ -x "$HOSTRIXCTL_BIN" && -n "$DAEMON_PID" ]] && pid_alive "$DAEMON_PID" || return 0
    say "Hosts in hostrix's host file (hostrixctl list --newest)"
    kill -USR2 "$DAEMON_PID" 2>/dev/null || true
    pause 0.5
    ctl list --newest || note "hostrixctl list failed (exit status $?)"
}

# A reader that has gone away (Ctrl-C also ends `make demo | tee`) must not stop
# the teardown: output falls back to /dev/null and every step still runs.
detach_from_closed_output() {
    set +e
    { printf '\n'; } 2>/dev/null || exec >/dev/null
    { printf '\n' >&2; } 2>/dev/null || exec 2>/dev/null
}

cleanup() {
    local rc=$?
    trap - EXIT
    # The teardown runs to its end even if the terminal goes or Ctrl-C is pressed again.
    trap '' INT TERM HUP
    detach_from_closed_output
    if [[ -n "$STORY_PID" ]]; then stop_pid "$STORY_PID"; fi
    if [[ -n "$VIEW_PID" ]]; then stop_pid "$VIEW_PID"; fi
    show_final_hosts
    if [[ -n "$AGENT_PID" ]]; then
        stop_pid "$AGENT_PID"
        note "hostrix-agent's history: hostrixctl history (HOSTRIX_ROOT=$DAEMON_ROOT), last lines of its log:"
        tail -n 5 "$AGENT_LOG" 2>/dev/null | sed 's/^/         /' || true
    fi
    if daemon_died; then
        local status=0
        wait "$DAEMON_PID" 2>/dev/null || status=$?
        DAEMON_PID=""
        printf 'demo: error: hostrix stopped by itself (exit status %s); its last log lines:\n' "$status" >&2
        tail -n 10 "$DAEMON_LOG" >&2 || true
        rc=1
    fi
    say "Stopping: hostrix (SIGTERM, SIGKILL after ${STOP_GRACE_S} s), then the lab"
    if [[ -n "$DAEMON_PID" ]]; then stop_pid "$DAEMON_PID"; fi
    "$LAB" down || rc=1
    exit "$rc"
}

main() {
    parse_args "$@"
    preflight
    trap cleanup EXIT
    trap 'STOP_REQUESTED=1' INT TERM HUP
    trap '' PIPE  # a closed output ends the view with an error, then cleanup runs
    lab_fresh_up
    start_daemon
    start_agent
    show_web_page
    show_live_view
}

main "$@"
