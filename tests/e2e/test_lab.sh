#!/usr/bin/env bash
# The lab builds the LAN it promises (leases with names, addresses, all br0
# ports) and leaves nothing behind after `down`, including after a failed `up`.
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

DHCP_HOSTS=(h1 h2 h3 h4)
ALL_HOSTS=(h1 h2 h3 h4 h5 h6)

named_leases() { awk '$4 != "*" && $4 != "" { n++ } END { print n + 0 }' "$LAB_DIR/dnsmasq.leases"; }
has_named_lease() { [[ "$(lease_name_of "$(host_mac "$1")")" == "hx-$1" ]]; }
v4_matches_lease() {
    local v4
    v4="$(host_v4 "$1")"
    [[ "$v4" == 10.77.0.*/24 && "${v4%/24}" == "$(lease_ip_of "$(host_mac "$1")")" ]]
}
has_v6() { [[ "$(host_v6 "$1")" == fd77::*/64 ]]; }
reaches_gateway_v4() { ip netns exec "hx-$1" busybox ping -c 1 -W 2 10.77.0.1 >/dev/null 2>&1; }
reaches_gateway_v6() { ip netns exec "hx-$1" busybox ping -6 -c 1 -W 2 fd77::1 >/dev/null 2>&1; }
ports_are_all_eight() { [[ "$(br0_ports)" == "$(printf '%s\n' "${PORTS[@]}" | sort)" ]]; }
mib_has() { grep -qxF "$1" "$LAB_DIR/root/etc/hostrix/mib.conf"; }
no_carrier() { ! port_carrier "$1"; }
stations_as_placed() {
    station_listed "$(host_mac h3)" wlan0 && station_listed "$(host_mac h4)" wlan0-vap0 &&
        station_listed "$(host_mac h6)" wlan1 && ! station_listed "$(host_mac h1)" wlan0
}
up_fails_at() { ! HOSTRIX_LAB_FAIL_AT="$1" lab_run up 2>/dev/null; }
dnsmasq_pid() { cat "$LAB_DIR/dnsmasq.pid" 2>/dev/null; }

lab_pids_now() {
    local ns
    for ns in $(lab_namespaces); do ip netns pids "$ns"; done
}

check_built_lab() {
    local h
    check "at least 4 leases carry a host name" test "$(named_leases)" -ge 4
    for h in "${DHCP_HOSTS[@]}"; do
        check "$h: lease named hx-$h" has_named_lease "$h"
        check "$h: IPv4 in 10.77.0.0/24 equal to its lease" v4_matches_lease "$h"
        check "$h: reaches the gateway over IPv4" reaches_gateway_v4 "$h"
    done
    for h in "${ALL_HOSTS[@]}"; do
        check "$h: SLAAC address in fd77::/64" has_v6 "$h"
    done
    check "h5: static 10.77.0.50/24" test "$(host_v4 h5)" == 10.77.0.50/24
    check "h5: no DHCP lease" test -z "$(lease_ip_of "$(host_mac h5)")"
    check "h6: IPv6 only, no IPv4" test -z "$(host_v4 h6)"
    check "h6: reaches the gateway over IPv6" reaches_gateway_v6 h6
    check "br0 has exactly the 8 gateway ports" ports_are_all_eight
    check "empty wired port eth0.5 has no carrier" no_carrier eth0.5
    check "occupied wired port eth0.2 has carrier" port_carrier eth0.2
    check "radio wlan1 has carrier" port_carrier wlan1
    check "stations: h3 on wlan0, h4 on wlan0-vap0, h6 on wlan1" stations_as_placed
    check "mib.conf names the lab lease file" mib_has "lease_file = $LAB_DIR/dnsmasq.leases"
    check "mib.conf names the station directory" mib_has "stations = dir:$LAB_DIR/stations"
}

check_up_twice() {
    local before
    before="$(dnsmasq_pid)"
    check "up on a running lab succeeds" lab_run up
    check "up on a running lab keeps the same dnsmasq" test "$(dnsmasq_pid)" == "$before"
}

check_down() {
    local -a pids
    mapfile -t pids < <(lab_pids_now)
    check "lab processes were seen while up (dnsmasq + 4 udhcpc)" test "${#pids[@]}" -ge 5
    check "down succeeds" lab_run down
    check_nothing_left "down" "${pids[@]}"
    check "down again succeeds" lab_run down
}

check_failed_up() {
    local at="$1"
    check "up with HOSTRIX_LAB_FAIL_AT=$at fails" up_fails_at "$at"
    check_nothing_left "failed up at $at"
    check "down after the failed up at $at succeeds" lab_run down
    check_nothing_left "down after failed up at $at"
}

main() {
    lab_test_setup
    ROOT_VETHS_BEFORE="$(root_veths)"
    check "up succeeds" lab_run up
    check_built_lab
    check_up_twice
    check_down
    check_failed_up dnsmasq
    check_failed_up leases
    finish
}

main "$@"
