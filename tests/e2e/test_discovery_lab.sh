#!/usr/bin/env bash
# The daemon tracks the lab's LAN: a new DHCP device is reported once with its
# lease, port and name; a static host by ARP; an IPv6-only host by its global
# address; a silent host is probed with ARP requests on br0 and reported gone; a
# station that leaves is reported and leaves the FDB; an ignored port loses its hosts;
# a host on a bridge-bound port takes its address from the sniffer; hosts with a global
# IPv6 address are asked for it with well-formed neighbour solicitations.
# e2e-profiles: default openwrt
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# Short timeouts so a silent host is gone in well under a minute: ARP interval 5 s,
# probing after 10 s idle, 2 requests, FDB entries older than 8 s confirm nothing,
# offline after 20 s; debug groups 0x2 and 0x800 (probing) in the log.
export LAB_MIB_OVERRIDES='480=0x802;481=5;482=10;483=2;484=8;485=20'

report_count() { grep -cF "\"mac\":\"$2\"" "$E2E_TMP/$1.json" || true; }
not_in_host_file() { refresh && ! grep -qF "\"mac\":\"$1\"" "$E2E_TMP/list.json"; }

check_new_device() {
    check "add-host h7 on eth0.5 with DHCP" lab_run add-host h7 eth0.5
    local mac ip
    mac="$(host_mac h7)" ip="$(lease_ip_of "$(host_mac h7)")"
    check "new reports h7 within two ticks" wait_for "$TICKS_2" reported new "$mac"
    check "with its lease's IPv4 and name, wired, on LAN port 4 (eth0.5), brand/model/os OTHER" \
        record_has "$E2E_TMP/new.json" "$mac" ip="$ip" devName=hx-h7 connectionType=0 port=4 ifName=eth0.5 \
        brand=OTHER model=OTHER os=OTHER
    sleep 3
    poll new
    check "reported once, and in the host file" eval 'test "$(report_count new "$mac")" -eq 1 && wait_for 10 in_host_file "$mac"'
}

check_static_host() {
    local mac
    mac="$(host_mac h5)" && gw_ping 10.77.0.50
    check "static h5 is reported" wait_for "$TICKS_2" reported new "$mac"
    check "at 10.77.0.50 from the ARP table" wait_for 20 listed_with "$mac" ip=10.77.0.50 ipSource=1
}

check_ipv6_only_host() {
    local mac addr
    mac="$(host_mac h6)" addr="$(host_v6 h6)" && addr="${addr%/*}"
    # The gateway pings it until the lab goes down: without IPv4 it cannot be probed
    # by ARP, and a real device would talk now and then anyway.
    in_ns "$GW_NS" busybox ping -6 -q -i 1 "$addr" >/dev/null 2>&1 &
    check "IPv6-only h6 is reported" wait_for "$TICKS_2" reported new "$mac"
    check "with its global address $addr, no IPv4, a station of wlan1 (SSID index 6)" \
        wait_for 20 listed_with "$mac" ipv6="$addr" ip=0.0.0.0 port=6
}

# Broadcast ARP requests for IP from the bridge's own MAC in the capture PCAP.
arp_requests_for() {
    tcpdump -r "$1" -n -e 2>/dev/null | grep -cE "^[^ ]+ $2 > ff:ff:ff:ff:ff:ff, ethertype ARP .*Request who-has ${3//./\\.} tell" || true
}

check_silent_host() {
    local mac ip
    mac="$(host_mac h2)" ip="$(lease_ip_of "$(host_mac h2)")"
    check "h2 is reported first" wait_for "$TICKS_2" reported new "$mac"
    ip -n hx-h2 link set eth0 down
    check "silent h2 is reported gone" wait_for 300 reported left "$mac"
    check "ARP requests for $ip went out on br0" test "$(arp_requests_for "$CAPTURE" "$BR_MAC" "$ip")" -ge 1
}

# The daemon's solicitations for ADDR in the capture PCAP, from the bridge's MAC BR_MAC:
# from a link-local address (the kernel's own, for the gateway's pings, come from
# fd77::1), to the address's solicited-node group, hop limit 255, BR_MAC as the source
# link address.
solicited() {
    local group
    group="$(python3 -c 'import ipaddress, sys; print("33:33:ff:%02x:%02x:%02x" % tuple(ipaddress.ip_address(sys.argv[1]).packed[13:]))' "$3")"
    tcpdump -r "$1" -n -e -v 2>/dev/null | grep -A1 -F "$2 > $group," | grep -A1 -F "hlim 255," |
        grep -A1 -E "\) fe80:[0-9a-f:]+ > .* who has $3\$" | grep -qF "source link-address option (1), length 8 (1): $2"
}

# The daemon asks every 30 s; the capture runs from its start.
check_solicitation() {
    local v6
    v6="$(host_v6 h6)"
    check "a neighbour solicitation for h6's ${v6%/*} went out on br0" wait_for 150 solicited "$CAPTURE" "$BR_MAC" "${v6%/*}"
}

check_station_leave() {
    local mac
    mac="$(host_mac h3)"
    check "lab sta-leave h3" lab_run sta-leave h3
    check "left reports wireless h3" wait_for "$TICKS_2" reported left "$mac"
    # In the openwrt profile the event came through hostrix-hostapd-action, with phy0-ap0.
    check "the daemon deleted h3's FDB entry on wlan0" \
        eval 'logged "bridge fdb del $mac dev wlan0 vlan 1 master" && test -z "$(fdb_port_of "$mac")"'
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
    wait_for 20 logged "bridge_bind_logic_port_mask = 8" || true
    check "add-host h8 on eth0.5 with DHCP" lab_run add-host h8 eth0.5
    mac="$(host_mac h8)" ip="$(lease_ip_of "$(host_mac h8)")" && gw_ping "$ip"
    check "h8 on the bridge-bound port takes its leased $ip from the sniffer" \
        wait_for 30 listed_with "$mac" ipSource=3 ip="$ip"
}

main() {
    daemon_test_setup
    require_tools tcpdump
    start_daemon_in_lab
    BR_MAC="$(ip -n "$GW_NS" -o link show "$BR_KERNEL" | grep -o 'link/ether [0-9a-f:]*' | cut -c12-)" CAPTURE="$E2E_TMP/br0.pcap"
    ip netns exec "$GW_NS" tcpdump -i "$BR_KERNEL" -U -n -w "$CAPTURE" 'arp or icmp6' >/dev/null 2>&1 &
    check_new_device
    check_static_host
    check_ipv6_only_host
    check_station_leave
    check_ignored_port
    check_silent_host
    check_bridge_bound_port
    check_solicitation
    check "the daemon is still running" kill -0 "$DAEMON_PID"
    finish
}

main "$@"
