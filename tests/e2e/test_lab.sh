#!/usr/bin/env bash
# The lab builds the LAN it promises; its verbs change it as the daemon's tests need
# (sta-leave: in the discovery test); `down` leaves nothing behind, also after a
# failed `up`; the demo brings the lab and the daemon up and down. Gateway port names
# work the same on both profiles.
# e2e-profiles: default openwrt
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

MIB="$LAB_DIR/root/etc/hostrix/mib.conf"
H1_MAC=0a:77:00:00:00:01
H3_MAC=0a:77:00:00:00:03
TV_MAC=0a:77:00:00:0a:01

lease_named() { [[ "$(lease_name_of "$1")" == "$2" ]]; }
dhcp_host_ok() {
    local v4 mac
    v4="$(host_v4 "$1")" mac="$(host_mac "$1")"
    lease_named "$mac" "hx-$1" && [[ "$v4" == 10.77.0.*/24 && "${v4%/24}" == "$(lease_ip_of "$mac")" ]] &&
        in_ns "hx-$1" busybox ping -c 1 -W 2 10.77.0.1 >/dev/null 2>&1
}
has_v6() { [[ "$(host_v6 "$1")" == fd77::*/64 ]]; }
ports_are_all_eight() { [[ "$(br0_ports)" == "$(printf '%s\n' "${PORTS[@]}" | sort)" ]]; }
mib_has() { [[ "$(grep -cxF "$1" "$MIB")" -eq 1 ]]; }
stations_as_placed() {
    station_listed "$(host_mac h3)" wlan0 && station_listed "$(host_mac h4)" wlan0-vap0 &&
        station_listed "$(host_mac h6)" wlan1 && ! station_listed "$(host_mac h1)" wlan0
}
# One ifname. line per renamed interface: eight on OpenWrt, none by default.
ifname_lines_fit_profile() { [[ "$(grep -c '^ifname\.' "$MIB")" -eq "$([[ "$LAB_PROFILE" == openwrt ]] && echo 8 || echo 0)" ]]; }
lab_fails() { ! lab_run "$@" 2>/dev/null; }
up_fails_at() { ! HOSTRIX_LAB_FAIL_AT="$1" lab_run up 2>/dev/null; }
one_line_error() { [[ "$(wc -l <"$E2E_TMP/lab.out")" -eq 1 ]] && grep -q '^lab: error: ' "$E2E_TMP/lab.out"; }
ns_absent() { ! ip netns list | grep -q "^$1\b"; }
cut_off() { ! in_ns "hx-$1" busybox ping -c 1 -W 1 10.77.0.1 >/dev/null 2>&1; }

check_built_lab() {
    local h before
    for h in h1 h2 h3 h4; do check "$h: lease named hx-$h, IPv4 equal to it, reaches the gateway" dhcp_host_ok "$h"; done
    for h in "${LAB_HOSTS[@]}"; do check "$h: SLAAC address in fd77::/64" has_v6 "$h"; done
    check "h5: static 10.77.0.50/24, no lease" eval '[[ "$(host_v4 h5)" == 10.77.0.50/24 && -z "$(lease_ip_of "$(host_mac h5)")" ]]'
    check "h6: IPv6 only, reaches the gateway over IPv6" \
        eval '[[ -z "$(host_v4 h6)" ]] && in_ns hx-h6 busybox ping -6 -c 1 -W 2 fd77::1 >/dev/null 2>&1'
    check "br0 has exactly the 8 gateway ports" ports_are_all_eight
    check "carrier: empty eth0.5 none, occupied eth0.2 and radio wlan1 yes" \
        eval 'no_carrier eth0.5 && port_carrier eth0.2 && port_carrier wlan1'
    check "stations: h3 on wlan0, h4 on wlan0-vap0, h6 on wlan1" stations_as_placed
    check "mib.conf: the lab's lease file and stations, LAB_MIB_OVERRIDES, the profile's names" \
        eval 'mib_has "lease_file = $LAB_DIR/dnsmasq.leases" && mib_has "stations = dir:$LAB_DIR/stations" &&
            mib_has "485 = 20" && ifname_lines_fit_profile'
    check "set 482 30 replaces the key; set adds a new one" \
        eval 'lab_run set 482 30 && mib_has "482 = 30" && lab_run set ssid.wlan1 lab-5g && mib_has "ssid.wlan1 = lab-5g"'
    before="$(dnsmasq_pid)"
    check "up on a running lab succeeds and keeps the same dnsmasq" \
        eval 'lab_run up --profile "$LAB_PROFILE" && test "$(dnsmasq_pid)" == "$before"'
}

check_add_and_del_host() {
    check "add-host tv on the empty port eth0.5: lease named hx-tv, carrier" \
        eval 'lab_run add-host tv eth0.5 --mac "$TV_MAC" && lease_named "$TV_MAC" hx-tv && port_carrier eth0.5'
    check "add-host with a used name fails" lab_fails add-host tv eth0.4
    check "add-host on an unknown port fails with one error line" eval 'lab_fails add-host pc eth9 && one_line_error'
    check "del-host tv: its namespace is gone, eth0.5 loses carrier" eval 'lab_run del-host tv && ns_absent hx-tv && no_carrier eth0.5'
}

check_unplug_replug_roam() {
    check "unplug h1: eth0.2 has no carrier, h1 cannot reach the gateway" eval 'lab_run unplug h1 && no_carrier eth0.2 && cut_off h1'
    # replug and roam make the host send a frame, so br0 learns without our help.
    check "replug h1: carrier again, br0 learns h1 on eth0.2" \
        eval 'lab_run replug h1 && port_carrier eth0.2 && wait_for 25 fdb_has "$H1_MAC" eth0.2'
    check "roam h3 from wlan0 to wlan1: br0 learns it there" eval 'lab_run roam h3 wlan1 && wait_for 25 fdb_has "$H3_MAC" wlan1'
    check "h3 is listed on wlan1, no longer on wlan0" eval 'station_listed "$H3_MAC" wlan1 && not_listed "$H3_MAC" wlan0'
    check "roam to the port the host is on fails" lab_fails roam h3 wlan1
}

check_down() {
    local ns pids
    mapfile -t pids < <(for ns in $(lab_namespaces); do ip netns pids "$ns"; done)
    check "lab processes were seen while up (dnsmasq + 4 udhcpc)" test "${#pids[@]}" -ge 5
    check "down succeeds" lab_run down
    check_nothing_left "down" "${pids[@]}"
    check "down again succeeds" lab_run down
}

check_failed_up() {
    check "up with HOSTRIX_LAB_FAIL_AT=$1 fails" up_fails_at "$1"
    check_nothing_left "failed up at $1"
    check "down after the failed up at $1 succeeds" lab_run down
}

# Ours only: other builds' daemons and clients (another checkout's tests) may be running.
hostrix_processes() {
    local pid bin_dir
    bin_dir="$(dirname "$(realpath "$HOSTRIX_BIN")")"
    for pid in $(pgrep -x 'hostrix|hostrixctl|hostrix-agent'); do
        if [[ "$(readlink "/proc/$pid/exe" 2>/dev/null)" == "$bin_dir"/* ]]; then echo "$pid"; fi
    done
}
demo_shows() { grep -qE -- "$1" "$E2E_TMP/demo.out"; }

check_demo() {
    local failed_before="$FAILURES"
    [[ -x "$HOSTRIX_BIN" && -x "$HOSTRIXCTL_BIN" ]] || { echo 'skip - demo: no daemon or client built'; return 0; }
    check "demo runs for 8 s and exits 0" sh -c "'$REPO_DIR/lab/demo.sh' 8 >'$E2E_TMP/demo.out' 2>&1"
    check "demo shows h1 arriving with address, name, port" demo_shows "NEW +0a:77:00:00:00:01 10\.77\.0\.[0-9]+ hx-h1 eth0\.2 LAN1"
    check "and h3 with its SSID" demo_shows "NEW +0a:77:00:00:00:03 .* wlan0 SSID1 ssid=hx-home"
    check "through hostrix-agent, which leaves the daemon's reports to it" demo_shows "through hostrix-agent"
    if ((FAILURES > failed_before)); then sed 's/^/    | /' "$E2E_TMP/demo.out"; fi
    check "no hostrix, hostrix-agent or hostrixctl process left after the demo" test -z "$(hostrix_processes)"
    check_nothing_left "after the demo"
}

main() {
    lab_test_setup
    ROOT_VETHS_BEFORE="$(root_veths)"
    check "up with LAB_MIB_OVERRIDES (profile $LAB_PROFILE)" eval 'LAB_MIB_OVERRIDES="485=20" lab_run up --profile "$LAB_PROFILE"'
    check_built_lab
    check_add_and_del_host
    check_unplug_replug_roam
    check_down
    # The failure path and the demo do not depend on the profile: one run is enough.
    if [[ "$LAB_PROFILE" == default ]]; then
        check_failed_up dnsmasq
        check_failed_up leases
        check_demo
    fi
    finish
}

main "$@"
