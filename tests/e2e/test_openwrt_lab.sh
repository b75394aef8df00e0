#!/usr/bin/env bash
# The daemon on a box with OpenWrt's interface names (lab profile openwrt: br-lan,
# lan1..lan4, phy0-ap0, phy0-ap1, phy1-ap0): a wall-clock step changes no host; hosts
# are reported under the gateway's names; a DHCP release reaches it through dnsmasq's
# lease script and a station leave through hostapd's action program, and neither host
# comes back from the entry the bridge keeps; any MAC can be named and blocked; a
# daemon with an empty PATH still tracks hosts.
# e2e-profiles: openwrt
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
LAB_PROFILE=openwrt
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# Debug groups 0x2 and 0x80 (control commands, so a release's command shows in the log).
export LAB_MIB_OVERRIDES='480=0x82'
DAEMON_LOG="$LAB_DIR/hostrix.log"
TICKS_2=50         # two 3 s main-loop ticks and some slack, in 0.2 s tries
ONE_TICK=25        # one tick and some slack
QUIET_10S=50       # 10 s of polling
FOREIGN_MAC="a4:83:e7:12:34:56"
V4_NET="10.77.0"
FAKETIME_LIB=""
CLOCK_FILE=""
LOG_MARK=0

# --- reports and the daemon's log ---

poll_all() { poll new; poll left; poll changed; }
# Drops what was collected so far: later checks see only reports made after this.
forget_reports() {
    poll_all
    rm -f "$E2E_TMP/new.json" "$E2E_TMP/left.json" "$E2E_TMP/changed.json"
}
any_report() { poll_all; cat "$E2E_TMP"/{new,left,changed}.json 2>/dev/null | grep -q '"mac"'; }
nothing_for() { ! wait_for "$1" "${@:2}"; }

# Drains reports until a window of TRIES polls brings none (at most five windows).
settled() {
    local windows=5
    while ((windows-- > 0)); do
        forget_reports
        if nothing_for "$1" any_report; then return 0; fi
    done
    return 1
}

reported_field() { field_in "$E2E_TMP/$1.json" "$2" "$3"; }
field_is() { [[ "$(reported_field "$1" "$2" "$3")" == "$4" ]]; }

mark_log() { LOG_MARK="$(stat -c %s "$DAEMON_LOG" 2>/dev/null || echo 0)"; }
log_since_mark() { tail -c "+$((LOG_MARK + 1))" "$DAEMON_LOG" 2>/dev/null; }
logged() { log_since_mark | grep -qF -- "$1"; }
not_logged() { ! logged "$1"; }

# restart_daemon WHAT [NAME=VALUE...]: a fresh daemon with these in its environment.
restart_daemon() {
    local what="$1"
    shift
    daemon_stop || true
    forget_reports
    mark_log
    daemon_start_env HOSTRIX_ROOT="$ROOT" "$@"
    check "the daemon answers ($what)" wait_for 50 socket_up
}

# --- the lab ---

# shellcheck disable=SC2016 # expanded by the inner shell
host_sysctl() { ip netns exec "hx-$1" sh -c 'printf "%s\n" "$2" > "/proc/sys/$1"' _ "$2" "$3"; }
host_port() { awk -F= '$1 == "port" { print $2 }' "$LAB_DIR/hosts/$1"; }
udhcpc_pid() { tr -dc '0-9' <"$LAB_DIR/udhcpc.$1.pid"; }
fdb_lists() { bridge -n "$GW_NS" fdb show br "$BR_KERNEL" | grep -q "^$1 "; }
fdb_lacks() { ! fdb_lists "$1"; }
has_lease() { [[ -n "$(lease_ip_of "$1")" ]]; }
no_lease() { ! has_lease "$1"; }

# --- a wall-clock step under libfaketime; the monotonic clock runs on ---

find_faketime() {
    local lib
    for lib in /usr/lib/*/faketime/libfaketime.so.1 /usr/lib/faketime/libfaketime.so.1; do
        if [[ -r "$lib" ]]; then FAKETIME_LIB="$lib"; fi
    done
    [[ -n "$FAKETIME_LIB" ]]
}

step_clock() { printf '%s\n' "$1" >"$CLOCK_FILE"; }
faketime_loaded() { grep -qF libfaketime "/proc/$DAEMON_PID/maps" 2>/dev/null; }
hosts_all_reported() {
    local name
    for name in h1 h2 h3 h4 h5 h6; do reported new "$(host_mac "$name")" || return 1; done
}

# The date as the daemon writes it into latestActiveTime ("Y:M:D:"), DAYS from today.
stamp_date() { date -d "$1 days" '+%Y:%-m:%-d:'; }
stamped_on() { [[ "$(reported_field new "$1" latestActiveTime)" == "$2"* ]]; }

check_clock_steps() {
    if ! find_faketime; then
        printf 'skip - wall-clock steps: libfaketime is not installed (make check installs faketime)\n'
        return 0
    fi
    CLOCK_FILE="$E2E_TMP/faketime"
    step_clock "+0"
    restart_daemon "libfaketime, wall clock +0" LD_PRELOAD="$FAKETIME_LIB" FAKETIME_TIMESTAMP_FILE="$CLOCK_FILE" \
        FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1
    check "libfaketime is loaded in the daemon" faketime_loaded
    # The static host is found by ARP, the IPv6-only one by its neighbour entry.
    ip netns exec "$GW_NS" busybox ping -c 1 -W 2 "${V4_NET}.50" >/dev/null 2>&1 || true
    check "the six hosts arrive" wait_for 100 hosts_all_reported
    check "their reports settle" settled 30
    step_clock "+2d"
    check "a +2-day step: no new, left or changed report in 10 s" nothing_for "$QUIET_10S" any_report
    check "add-host h7 static ${V4_NET}.60" lab_run add-host h7 eth0.5 --static "${V4_NET}.60"
    ip netns exec "$GW_NS" busybox ping -c 1 -W 2 "${V4_NET}.60" >/dev/null 2>&1 || true
    check "h7 arrives" wait_for "$TICKS_2" reported new "$(host_mac h7)"
    check "stamped with the stepped date" stamped_on "$(host_mac h7)" "$(stamp_date 2)"
    check "the reports settle again" settled 30
    step_clock "-1d"
    check "a step back to a day behind: no report in 10 s" nothing_for "$QUIET_10S" any_report
}

# --- names: the gateway's in every record, the kernel's beside them in the listing ---

list_shows() { kill -USR2 "$DAEMON_PID"; ctl list 2>/dev/null | grep -qF -- "$1"; }
# The host file's view of MAC: FIELD is VALUE (the file is rewritten on SIGUSR2).
listed_as() {
    kill -USR2 "$DAEMON_PID"
    ctl list --json >"$E2E_TMP/list.json" 2>/dev/null && [[ "$(field_in "$E2E_TMP/list.json" "$1" "$2")" == "$3" ]]
}
no_kernel_names_reported() { ! grep -qE '"ifName":"(br-lan|lan[1-4]|phy[01]-ap[01])"' "$E2E_TMP/new.json"; }

check_gateway_names() {
    local name port mac
    for name in h1 h2 h3 h4 h6; do
        port="$(host_port "$name")"
        mac="$(host_mac "$name")"
        check "$name is reported on $port ($(kif "$port"))" wait_for "$TICKS_2" reported new "$mac"
        check "  with ifName $port" field_is new "$mac" ifName "$port"
    done
    check "no record names a kernel interface" no_kernel_names_reported
    check "h1 is on LAN port 1" field_is new "$(host_mac h1)" port 1
    check "h4 is on SSID index 2 (wlan0-vap0)" field_is new "$(host_mac h4)" port 2
    check "h4's SSID comes from ssid.wlan0-vap0" wait_for 10 listed_as "$(host_mac h4)" ssidName hx-guest
    check "list shows eth0.2 with its kernel name lan1" list_shows "eth0.2 (lan1)"
    check "list shows wlan0 with its kernel name phy0-ap0" list_shows "wlan0 (phy0-ap0)"
}

# --- a DHCP release by a wired device that then says nothing more ---

# The bridge keeps the device's entry for minutes; it must not bring the host back.
release_quietly() {
    local name="$1"
    # No IPv6: no router solicitation or neighbour traffic after the release.
    host_sysctl "$name" net/ipv6/conf/eth0/disable_ipv6 1
    sleep 1  # the last multicast reports leave before the release
    forget_reports
    kill -USR2 "$(udhcpc_pid "$name")"
}

check_release() {
    local name="$1" quiet="$2" mac port
    mac="$(host_mac "$name")"
    port="$(host_port "$name")"
    check "$name holds a lease" has_lease "$mac"
    release_quietly "$name"
    check "$name releases its lease" wait_for 25 no_lease "$mac"
    check "the lease script brings the release to the daemon" wait_for 25 logged "cmd=0x800000"
    check "left reports $name within a tick" wait_for "$ONE_TICK" reported left "$mac"
    if ((quiet > 0)); then
        check "no new report for $name in the next 10 s" nothing_for "$quiet" reported new "$mac"
        check "while the bridge still holds its entry on $port" fdb_has "$mac" "$port"
    fi
}

# --- a station leaves: hostapd's action program tells the daemon ---

check_station_leave() {
    local mac
    mac="$(host_mac h3)"
    check "h3 is in br-lan's FDB on phy0-ap0" fdb_has "$mac" wlan0
    check "lab sta-leave h3 (hostrix-hostapd-action phy0-ap0 ...)" lab_run sta-leave h3
    check "the event names the gateway's wlan0" wait_for 25 logged "EVENT: wlan0 AP-STA-DISCONNECTED $mac"
    check "h3 is gone from br-lan's FDB" wait_for 25 fdb_lacks "$mac"
    check "left reports h3" wait_for "$ONE_TICK" reported left "$mac"
}

# --- a MAC whose first octet is not printable text is named and blocked ---

name_reads() { kill -USR2 "$DAEMON_PID"; [[ "$(ctl get name "$1" 2>/dev/null)" == "$2" ]]; }

check_foreign_mac() {
    check "add-host h8 on eth0.5 with MAC $FOREIGN_MAC" lab_run add-host h8 eth0.5 --mac "$FOREIGN_MAC"
    check "h8 is reported" wait_for "$TICKS_2" reported new "$FOREIGN_MAC"
    check "set name $FOREIGN_MAC hall-tv" ctl set name "$FOREIGN_MAC" hall-tv
    check "get name reads hall-tv" wait_for 10 name_reads "$FOREIGN_MAC" hall-tv
    check "set access $FOREIGN_MAC 0 1 (block)" ctl set access "$FOREIGN_MAC" 0 1
    check "left reports the blocked host" wait_for "$ONE_TICK" reported left "$FOREIGN_MAC"
}

# --- a daemon that can start no program: native commands only ---

check_empty_path() {
    check "lab set counters off" lab_run set counters off
    restart_daemon "empty PATH, counters off" PATH=
    check "h2 is reported on eth0.3" wait_for "$TICKS_2" reported new "$(host_mac h2)"
    check "IPv6-only h6 is reported (IPv6 neighbours without ip)" wait_for "$TICKS_2" reported new "$(host_mac h6)"
    check_release h2 0
    check "no command was missing (nothing 'not found' in the log)" not_logged "not found"
}

main() {
    lab_test_setup
    require_daemon_bin
    require_client_bin
    check "lab up (profile openwrt)" lab_run up --profile openwrt
    check_clock_steps
    restart_daemon "plain"
    check_gateway_names
    check_release h1 "$QUIET_10S"
    check_station_leave
    check_foreign_mac
    check_empty_path
    check "the daemon is still running" kill -0 "$DAEMON_PID"
    finish
}

main "$@"
