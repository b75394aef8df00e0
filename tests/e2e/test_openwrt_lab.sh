#!/usr/bin/env bash
# The daemon on a box with OpenWrt's interface names (lab profile openwrt: br-lan,
# lan1..lan4, phy0-ap0, phy0-ap1, phy1-ap0): a wall-clock step changes no host; hosts
# are reported under the gateway's names; a DHCP release reaches it through dnsmasq's
# lease script and the host does not come back from the entry the bridge keeps; any
# MAC can be named and blocked; a daemon with an empty PATH still tracks hosts. (The
# station leave through hostapd's action program: the discovery test's openwrt run.)
# e2e-profiles: openwrt
set -euo pipefail
LAB_PROFILE=openwrt
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# Debug groups 0x2 and 0x80 (control commands, so a release's command shows in the log).
export LAB_MIB_OVERRIDES='480=0x82'
QUIET_10S=50 # 10 s of polling
FOREIGN_MAC="a4:83:e7:12:34:56"
LOG_MARK=0

# Drops what was collected so far: later checks see only reports made after this.
poll_all() { poll new; poll left; poll changed; }
forget_reports() { poll_all; rm -f "$E2E_TMP"/{new,left,changed}.json; }
any_report() { poll_all; cat "$E2E_TMP"/{new,left,changed}.json 2>/dev/null | grep -q '"mac"'; }
nothing_for() { ! wait_for "$1" "${@:2}"; }
# Drains reports until a window of TRIES polls brings none (at most five windows).
settled() {
    local windows=5
    while ((windows-- > 0)); do forget_reports && nothing_for "$1" any_report && return 0; done
    return 1
}
logged_since_start() { tail -c "+$((LOG_MARK + 1))" "$DAEMON_LOG" 2>/dev/null | grep -qF -- "$1"; }

# restart_daemon WHAT [NAME=VALUE...]: a fresh daemon with these in its environment.
restart_daemon() {
    daemon_stop || true
    forget_reports
    LOG_MARK="$(stat -c %s "$DAEMON_LOG" 2>/dev/null || echo 0)"
    daemon_start_env HOSTRIX_ROOT="$ROOT" "${@:2}"
    check "the daemon answers ($1)" wait_for 50 socket_up
}

# --- a wall-clock step under libfaketime; the monotonic clock runs on ---

step_clock() { printf '%s\n' "$1" >"$E2E_TMP/faketime"; }
# The date as the daemon writes it into latestActiveTime ("Y:M:D:"), DAYS from today.
stamped_on() { [[ "$(record_check "$E2E_TMP/new.json" "$1" latestActiveTime)" == "$(date -d "$2 days" '+%Y:%-m:%-d:')"* ]]; }

check_clock_steps() {
    local lib
    for lib in /usr/lib/*/faketime/libfaketime.so.1 /usr/lib/faketime/libfaketime.so.1 ""; do [[ -r "$lib" ]] && break; done
    [[ -n "$lib" ]] || { echo 'skip - wall-clock steps: libfaketime is not installed (make check installs faketime)'; return 0; }
    step_clock "+0"
    restart_daemon "libfaketime, wall clock +0" LD_PRELOAD="$lib" FAKETIME_TIMESTAMP_FILE="$E2E_TMP/faketime" \
        FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1
    check_lab_hosts_arrive
    check "their reports settle" settled 30
    step_clock "+2d"
    check "a +2-day step: no new, left or changed report in 10 s" nothing_for "$QUIET_10S" any_report
    check "add-host h7 static 10.77.0.60" lab_run add-host h7 eth0.5 --static 10.77.0.60
    gw_ping 10.77.0.60
    check "h7 arrives stamped with the stepped date" wait_for "$TICKS_2" eval 'reported new "$(host_mac h7)" && stamped_on "$(host_mac h7)" 2'
    check "the reports settle again" settled 30
    step_clock "-1d"
    check "a step back to a day behind: no report in 10 s" nothing_for "$QUIET_10S" any_report
}

host_port() { awk -F= '$1 == "port" { print $2 }' "$LAB_DIR/hosts/$1"; }
reported_on() { reported new "$1" && record_has "$E2E_TMP/new.json" "$@"; }

# A wired host's gateway name is checked by the discovery test's openwrt run.
check_gateway_names() {
    check "h3 is reported with ifName wlan0, not $(kif wlan0)" wait_for "$TICKS_2" reported_on "$(host_mac h3)" ifName=wlan0
    check "h4 on wlan0-vap0: SSID index 2, SSID from ssid.wlan0-vap0" \
        wait_for "$TICKS_2" listed_with "$(host_mac h4)" ifName=wlan0-vap0 port=2 ssidName=hx-guest
    check "list shows eth0.2 with its kernel name lan1" eval 'refresh && ctl list | grep -qF "eth0.2 (lan1)"'
}

has_lease() { [[ -n "$(lease_ip_of "$1")" ]]; }
# The bridge keeps the device's entry for minutes; it must not bring the host back.
check_release() {
    local name="$1" quiet="$2" mac
    mac="$(host_mac "$1")"
    check "$name holds a lease" has_lease "$mac"
    # No IPv6: no router solicitation or neighbour traffic after the release.
    in_ns "hx-$name" sysctl -qw net.ipv6.conf.eth0.disable_ipv6=1
    sleep 1 # the last multicast reports leave before the release
    forget_reports
    release_lease "$name"
    check "the lease script brings $name's release to the daemon" \
        wait_for 25 eval '! has_lease "$mac" && logged_since_start cmd=0x800000'
    check "left reports $name within a tick" wait_for "$ONE_TICK" reported left "$mac"
    if ((quiet > 0)); then
        check "no new report for $name in the next 10 s" nothing_for "$quiet" reported new "$mac"
        check "while the bridge still holds its entry" fdb_has "$mac" "$(host_port "$name")"
    fi
}

# --- a MAC whose first octet is not printable text is named and blocked ---

name_reads() { kill -USR2 "$DAEMON_PID"; [[ "$(ctl get name "$1" 2>/dev/null)" == "$2" ]]; }

check_foreign_mac() {
    check "add-host h8 on eth0.5 with MAC $FOREIGN_MAC" lab_run add-host h8 eth0.5 --mac "$FOREIGN_MAC"
    check "h8 is reported" wait_for "$TICKS_2" reported new "$FOREIGN_MAC"
    check "set name $FOREIGN_MAC hall-tv; get name reads it" \
        eval 'ctl set name "$FOREIGN_MAC" hall-tv && wait_for 10 name_reads "$FOREIGN_MAC" hall-tv'
    check "set access $FOREIGN_MAC 0 1 (block): left reports it" \
        eval 'ctl set access "$FOREIGN_MAC" 0 1 && wait_for "$ONE_TICK" reported left "$FOREIGN_MAC"'
}

check_empty_path() {
    check "lab set counters off" lab_run set counters off
    restart_daemon "empty PATH, counters off" PATH=
    check "no nftables table with counters off" eval '! nft_table_present'
    check "h2 is reported on eth0.3" wait_for "$TICKS_2" reported new "$(host_mac h2)"
    check "IPv6-only h6 is reported (IPv6 neighbours without ip)" wait_for "$TICKS_2" reported new "$(host_mac h6)"
    check_release h2 0
    check "no command was missing (nothing 'not found' in the log)" eval '! logged_since_start "not found"'
}

main() {
    daemon_test_setup
    check "lab up (profile openwrt)" lab_run up --profile openwrt
    check_clock_steps
    restart_daemon "plain"
    check_gateway_names
    check_release h1 "$QUIET_10S"
    check_foreign_mac
    check_empty_path
    check "the daemon is still running" kill -0 "$DAEMON_PID"
    finish
}

main "$@"
