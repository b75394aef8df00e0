#!/usr/bin/env bash
# hostrix-agent in the lab (OpenWrt profile, whose dnsmasq runs the DHCP hook): two
# subscribers and hostrixctl watch all see a host that joins, and nothing is taken
# from one by another; a real vendor OUI gets its vendor (and the daemon's brand), a
# 02: MAC randomMac; a host announcing NAME.local over mDNS gets that name; a DHCP
# request with Windows 10's option-55 list gets osFamily windows; subscribers that
# send garbage or a huge line are dropped without harm to the others; a daemon
# restart reports no present host gone; an agent restart keeps the history and the
# first-seen times.
# e2e-profiles: openwrt
set -euo pipefail
LAB_PROFILE=openwrt
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

VENDOR_MAC="00:1a:2b:00:00:31"
VENDOR_NAME="Ayecom Technology Co., Ltd."
RANDOM_MAC="02:00:00:00:00:32"
WINDOWS_MAC="0e:77:00:00:00:33"
WINDOWS_OPTIONS=(1 3 6 15 31 33 43 44 46 47 119 121 249 252)
ARRIVAL=150  # 30 s in 0.2 s tries: a lease, a discovery tick, a poll
SUBSCRIBERS=()
agent_up() { [[ -S "$AGENT_SOCKET" ]]; }

# subscribe NAME [REQUEST]: a subscriber whose lines go to $E2E_TMP/NAME.ndjson.
subscribe() {
    python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.sendall(sys.argv[2].encode() + b"\n")
for data in iter(lambda: s.recv(65536), b""): sys.stdout.buffer.write(data), sys.stdout.flush()' \
        "$AGENT_SOCKET" "${2:-{\}}" >"$E2E_TMP/$1.ndjson" 2>&1 &
    SUBSCRIBERS+=($!)
}

# event_field FILE MAC EVENT FIELD: FIELD of the host in the last such event.
event_field() {
    python3 - "$@" <<'PY'
import json, sys
path, mac, event, field = sys.argv[1:]
value = None
for line in open(path):
    try: record = json.loads(line)
    except ValueError: continue
    hosts = record.get("hosts", []) if record.get("type") == "snapshot" else [record.get("host", {})]
    value = next((h.get(field) for h in hosts if h.get("mac") == mac and event in ("any", record.get("event"))), value)
print(json.dumps(value) if value is not None else "")
PY
}
saw() { [[ -n "$(event_field "$E2E_TMP/$1.ndjson" "$2" "$3" mac)" ]]; }
field_of() { [[ "$(event_field "$E2E_TMP/$1.ndjson" "$2" any "$3")" == "$4" ]]; }
has_name() { event_field "$E2E_TMP/$1.ndjson" "$2" any names | grep -qF "$3"; }
watched() { grep -qF "\"mac\":\"$1\"" "$E2E_TMP/watch.ndjson"; }

# A DHCP exchange with Windows 10's parameter request list (busybox sends -O options
# in ascending order, which is Windows 10's order too); the address is not applied.
windows_dhcp() {
    local args=() option
    for option in "${WINDOWS_OPTIONS[@]}"; do args+=(-O "$option"); done
    in_ns hx-win busybox udhcpc -i eth0 -n -q -t 3 -T 1 -o "${args[@]}" -x hostname:win-pc -s /bin/true >/dev/null 2>&1
}

# One sends garbage, the other a 10 MiB line without an end.
bad_subscribers() {
    python3 -c 'import contextlib, socket, sys
garbage, huge = socket.socket(socket.AF_UNIX), socket.socket(socket.AF_UNIX)
garbage.connect(sys.argv[1]), huge.connect(sys.argv[1]), garbage.sendall(b"hello agent\n")
with contextlib.suppress(OSError): huge.sendall(b"{" * (10 * 1024 * 1024))' "$AGENT_SOCKET"
}

stop_subscribers() {
    local pid
    for pid in "${SUBSCRIBERS[@]}" "${WATCH_PID:-}"; do kill "$pid" 2>/dev/null || true; done
}

main() {
    agent_test_setup agent stop_subscribers

    start_daemon_in_lab
    agent_start
    check "agent socket is listening" wait_for 50 agent_up
    check "agent socket is 0600" test "$(stat -c %a "$AGENT_SOCKET")" == 600
    subscribe one
    subscribe two
    HOSTRIX_ROOT="$ROOT" "$HOSTRIXCTL_BIN" watch --json >"$E2E_TMP/watch.ndjson" 2>"$E2E_TMP/watch.err" &
    WATCH_PID=$!
    check "the agent's snapshot lists the lab's hosts" wait_for 100 saw one 0a:77:00:00:00:01 any
    check "watch says it uses the agent" wait_for 25 grep -q "through hostrix-agent" "$E2E_TMP/watch.err"

    bad_subscribers
    check "a subscriber sending garbage is dropped with one line" wait_for 25 agent_logged "sent a bad request"
    check "a subscriber sending a huge line is dropped" wait_for 25 agent_logged "sent a line longer than"

    check "hosts with a vendor OUI and with a 02: MAC added" eval \
        'lab_run add-host vend eth0.5 --mac "$VENDOR_MAC" --hostname vend-host && lab_run add-host rnd eth0.4 --mac "$RANDOM_MAC"'
    for who in one two; do
        check "subscriber $who sees the vendor host and the 02: host arrive" \
            wait_for "$ARRIVAL" eval "saw $who $VENDOR_MAC new && saw $who $RANDOM_MAC new"
    done
    check "watch sees the vendor host too" wait_for 25 watched "$VENDOR_MAC"
    check "the vendor host has its vendor and no random MAC, the 02: host the reverse" eval \
        'field_of one "$VENDOR_MAC" vendor "\"$VENDOR_NAME\"" && field_of one "$VENDOR_MAC" randomMac false &&
        field_of one "$RANDOM_MAC" randomMac true && field_of one "$RANDOM_MAC" vendor "\"\""'
    check "the daemon's brand is the vendor" test "$(ctl get brand "$VENDOR_MAC")" == "$VENDOR_NAME"

    check "a static host makes a DHCP exchange with Windows 10's options" \
        eval 'lab_run add-host win eth0.4 --static 10.77.0.60 --mac "$WINDOWS_MAC" && windows_dhcp'
    check "the host gets osFamily windows" wait_for "$ARRIVAL" field_of one "$WINDOWS_MAC" osFamily '"windows"'
    check "its supplied name has source dhcp" wait_for 25 has_name one "$WINDOWS_MAC" '{"name": "win-pc", "source": "dhcp"}'

    # A static host the gateway has not heard over IPv4 has no address to tie a name to.
    check "h5 talks to the gateway" in_ns hx-h5 busybox ping -q -c 1 -W 2 10.77.0.1 >/dev/null
    check "the agent learns h5's address" wait_for "$ARRIVAL" field_of two 0a:77:00:00:00:05 ip '"10.77.0.50"'
    announce_mdns h5 e2e-printer 10.77.0.50
    check "h5 gets its mDNS name" wait_for 25 has_name two 0a:77:00:00:00:05 '{"name": "e2e-printer", "source": "mdns"}'
    check "the first subscriber is still served" has_name one 0a:77:00:00:00:05 e2e-printer

    daemon_stop
    check "the agent says once that hostrix is away" wait_for 25 agent_logged "hostrix is not reachable"
    daemon_start_env HOSTRIX_ROOT="$ROOT"
    check "the agent reconciles with the restarted daemon" wait_for 50 agent_logged "hostrix started again"
    check "the restarted daemon has written its host file" wait_for 50 test -s "$ROOT/var/hostrix"
    sleep 3  # two polls after the fresh file: a wrong departure would have been sent
    check "no host still present is reported gone" test -z "$(event_field "$E2E_TMP/one.ndjson" 0a:77:00:00:00:01 left mac)"
    check "hostrix away is said once" test "$(grep -c 'hostrix is not reachable' "$AGENT_LOG")" -eq 1

    local first
    first="$(event_field "$E2E_TMP/one.ndjson" 0a:77:00:00:00:01 any firstSeen)"
    stop_pid "$AGENT_PID" || true
    check "the agent wrote the history at SIGTERM" test -s "$ROOT/var/lib/hostrix/history.db"
    check "hostrixctl history knows the vendor host" eval 'ctl history "$VENDOR_MAC" | grep -cF Ayecom >/dev/null'
    agent_start
    check "the agent is back" wait_for 50 agent_up
    subscribe three
    check "after a restart h1 keeps its first-seen time" wait_for 50 field_of three 0a:77:00:00:00:01 firstSeen "$first"
    check "after a restart the vendor host is still known" wait_for 25 saw three "$VENDOR_MAC" any
    finish
}

main "$@"
