#!/usr/bin/env bash
# The daemon tracks the lab's LAN: a new DHCP device is reported once with its
# lease, port and name; a static host by ARP; an IPv6-only host by its global
# address; a silent host is probed with ARP requests on br0 and reported gone; a
# station that leaves is reported and leaves the FDB; an ignored port loses its hosts;
# a host on a bridge-bound port takes its address from the sniffer.
# e2e-profiles: default openwrt
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# Short timeouts so a silent host is gone in well under a minute: ARP interval 5 s,
# probing after 10 s idle, 2 requests, FDB entries older than 8 s confirm nothing,
# offline after 20 s; debug groups 0x2 and 0x800 (probing) in the log.
export LAB_MIB_OVERRIDES='480=0x802;481=5;482=10;483=2;484=8;485=20'
TICKS_2=50  # two 3 s main-loop ticks and some slack, in 0.2 s tries

logged() { grep -qF -- "$1" "$LAB_DIR/hostrix.log" 2>/dev/null; }

report_count() { grep -cF "\"mac\":\"$2\"" "$E2E_TMP/$1.json" || true; }

reported_field() { field_in "$E2E_TMP/$1.json" "$2" "$3"; }
field_is() { [[ "$(reported_field "$1" "$2" "$3")" == "$4" ]]; }

host_file_json() { kill -USR2 "$DAEMON_PID"; sleep 0.3; ctl list --json >"$E2E_TMP/list.json" 2>/dev/null; }
in_host_file() { host_file_json && grep -qF "\"mac\":\"$1\"" "$E2E_TMP/list.json"; }
not_in_host_file() { host_file_json && ! grep -qF "\"mac\":\"$1\"" "$E2E_TMP/list.json"; }

check_new_device() {
    check "add-host h7 on eth0.5 with DHCP" lab_run add-host h7 eth0.5
    local mac ip
    mac="$(host_mac h7)"
    ip="$(lease_ip_of "$mac")"
    check "h7 has a lease" test -n "$ip"
    check "new reports h7 within two ticks" wait_for "$TICKS_2" reported new "$mac"
    check "with its leased IPv4" field_is new "$mac" ip "$ip"
    check "with the name from its lease" field_is new "$mac" devName hx-h7
    check "wired" field_is new "$mac" connectionType 0
    check "on LAN port 4" field_is new "$mac" port 4
    check "learnt on eth0.5" field_is new "$mac" ifName eth0.5
    check "brand OTHER" field_is new "$mac" brand OTHER
    check "model OTHER" field_is new "$mac" model OTHER
    check "os OTHER" field_is new "$mac" os OTHER
    sleep 3
    poll new
    check "reported once" test "$(report_count new "$mac")" -eq 1
    check "the host file holds h7" wait_for 10 in_host_file "$mac"
}

# The host file's view of MAC: FIELD is VALUE (the file is rewritten on SIGUSR2).
host_file_says() { host_file_json && [[ "$(field_in "$E2E_TMP/list.json" "$1" "$2")" == "$3" ]]; }

check_static_host() {
    local mac
    mac="$(host_mac h5)"
    ip netns exec "$GW_NS" busybox ping -c 1 -W 2 10.77.0.50 >/dev/null 2>&1 || true
    check "static h5 is reported" wait_for "$TICKS_2" reported new "$mac"
    check "at 10.77.0.50" wait_for 20 host_file_says "$mac" ip 10.77.0.50
    check "from the ARP table" host_file_says "$mac" ipSource 1
}

# The gateway pings the IPv6-only host for the rest of the test: without IPv4 it
# cannot be probed by ARP, and a real device would talk now and then anyway.
V6_PINGER=""
stop_v6_pinger() { if [[ -n "$V6_PINGER" ]]; then kill "$V6_PINGER" 2>/dev/null || true; fi; }

check_ipv6_only_host() {
    local mac addr
    mac="$(host_mac h6)"
    addr="$(host_v6 h6)"
    addr="${addr%/*}"
    ip netns exec "$GW_NS" busybox ping -6 -q -i 1 "$addr" >/dev/null 2>&1 &
    V6_PINGER=$!
    check "IPv6-only h6 is reported" wait_for "$TICKS_2" reported new "$mac"
    check "with its global address $addr" wait_for 20 host_file_says "$mac" ipv6 "$addr"
    check "and no IPv4" host_file_says "$mac" ip 0.0.0.0
    check "as a Wi-Fi station of wlan1 (SSID index 6)" host_file_says "$mac" port 6
}

# Frames of the capture in PCAP: broadcast ARP requests from the bridge for TARGET.
arp_requests_for() {
    python3 - "$1" "$2" "$3" <<'PY'
import socket, struct, sys
path, bridge_mac, target = sys.argv[1:]
mac = bytes.fromhex(bridge_mac.replace(":", ""))
want = socket.inet_aton(target)
data = open(path, "rb").read()
count, offset = 0, 24
while offset + 16 <= len(data):
    length = struct.unpack_from("<I", data, offset + 8)[0]
    frame = data[offset + 16 : offset + 16 + length]
    offset += 16 + length
    if (len(frame) >= 42 and frame[0:6] == b"\xff" * 6 and frame[6:12] == mac
            and frame[12:14] == b"\x08\x06" and frame[20:22] == b"\x00\x01"
            and frame[22:28] == mac and frame[38:42] == want):
        count += 1
print(count)
PY
}

check_silent_host() {
    local mac ip br_mac pcap="$E2E_TMP/arp.pcap" dump_pid
    mac="$(host_mac h2)"
    ip="$(lease_ip_of "$mac")"
    br_mac="$(ip -n "$GW_NS" -o link show "$BR_KERNEL" | grep -o 'link/ether [0-9a-f:]*' | awk '{ print $2 }')"
    check "h2 is reported first" wait_for "$TICKS_2" reported new "$mac"
    ip netns exec "$GW_NS" tcpdump -i "$BR_KERNEL" -U -n -w "$pcap" arp >/dev/null 2>&1 &
    dump_pid=$!
    sleep 1
    ip -n hx-h2 link set eth0 down
    check "silent h2 is reported gone" wait_for 300 reported left "$mac"
    kill "$dump_pid" 2>/dev/null || true
    wait "$dump_pid" 2>/dev/null || true
    check "ARP requests for $ip went out on br0" test "$(arp_requests_for "$pcap" "$br_mac" "$ip")" -ge 1
}

check_station_leave() {
    local mac
    mac="$(host_mac h3)"
    check "wireless h3 is known" wait_for "$TICKS_2" reported new "$mac"
    check "lab sta-leave h3" lab_run sta-leave h3
    check "left reports h3" wait_for "$TICKS_2" reported left "$mac"
    check "the daemon deleted h3's FDB entry" logged "bridge fdb del $mac dev wlan0 vlan 1 master"
    check "h3's FDB entry is gone" test -z "$(fdb_port_of "$mac")"
}

check_ignored_port() {
    local mac
    mac="$(host_mac h1)"
    check "h1 on eth0.2 is in the host file" wait_for 10 in_host_file "$mac"
    printf 'eth0.2\n' >"$ROOT/var/run/.hostrix_ignore_ifnames"
    check "ignoring eth0.2 drops h1 within a cycle" wait_for 20 not_in_host_file "$mac"
    rm -f "$ROOT/var/run/.hostrix_ignore_ifnames"
}

# eth0.5 (logical port 3) bound to a bridged WAN connection: a host that arrives there
# takes its address from the sniffer cache alone (here from its ARP reply to the
# gateway), never from its lease or the ARP table.
check_bridge_bound_port() {
    local mac ip
    check "lab set: eth0.5 bound to a bridged connection" lab_run set chain.3004 enable=1 mode=0 ports=0x8
    kill -USR1 "$DAEMON_PID"
    check "the reload computes the bridge-bind mask 8" wait_for 20 logged "bridge_bind_logic_port_mask = 8"
    check "add-host h8 on eth0.5 with DHCP" lab_run add-host h8 eth0.5
    mac="$(host_mac h8)"
    ip="$(lease_ip_of "$mac")"
    ip netns exec "$GW_NS" busybox ping -c 1 -W 2 "$ip" >/dev/null 2>&1 || true
    check "h8 on the bridge-bound port takes its address from the sniffer" wait_for 30 host_file_says "$mac" ipSource 3
    check "its leased address, $ip" host_file_says "$mac" ip "$ip"
}

main() {
    lab_test_setup
    require_daemon_bin
    require_client_bin
    command -v tcpdump >/dev/null 2>&1 || skip "'tcpdump' is not installed (make check installs it)"
    start_daemon_in_lab
    check_new_device
    check_static_host
    check_ipv6_only_host
    check_station_leave
    check_ignored_port
    check_silent_host
    check_bridge_bound_port
    check "the daemon is still running" all_alive "$DAEMON_PID"
    stop_v6_pinger
    finish
}

all_alive() { kill -0 "$1" 2>/dev/null; }

main "$@"
