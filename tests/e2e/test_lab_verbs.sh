#!/usr/bin/env bash
# The lab's verbs change the LAN the way the daemon will be tested against:
# hosts come and go, unplug and come back, roam between radios, and leave
# with an authenticator event; config keys can be changed. Gateway port names
# work the same on both profiles.
# e2e-profiles: default openwrt
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

LISTENER_PID=""
H1_MAC=0a:77:00:00:00:01
H3_MAC=0a:77:00:00:00:03
H4_MAC=0a:77:00:00:00:04
TV_MAC=0a:77:00:00:0a:01
EVENT_SOCK=""

mib_line_count() { grep -cxF "$1" "$LAB_DIR/root/etc/hostrix/mib.conf" || true; }
no_carrier() { ! port_carrier "$1"; }
not_listed() { ! station_listed "$1" "$2"; }
ns_absent() { ! ip netns list | grep -q "^$1\b"; }
lease_named() { [[ "$(lease_name_of "$1")" == "$2" ]]; }
lab_fails() { ! lab_run "$@" 2>/dev/null; }
one_line_error() { [[ "$(wc -l <"$E2E_TMP/lab.out")" -eq 1 ]] && grep -q '^lab: error: ' "$E2E_TMP/lab.out"; }
up_with_overrides() { LAB_MIB_OVERRIDES='485=20' lab_run up --profile "$LAB_PROFILE"; }
bad_port_rejected() { lab_fails add-host pc eth9 && one_line_error; }
cut_off() { ! ip netns exec "hx-$1" busybox ping -c 1 -W 1 10.77.0.1 >/dev/null 2>&1; }
replug_relists_h4() { lab_run replug h4 && station_listed "$H4_MAC" wlan0-vap0; }
# One ifname. line per renamed interface: eight on OpenWrt, none by default.
ifname_lines_fit_profile() {
    local want=0
    if [[ "$LAB_PROFILE" == openwrt ]]; then want=8; fi
    test "$(grep -c '^ifname\.' "$LAB_DIR/root/etc/hostrix/mib.conf")" -eq "$want"
}
set_adds_key() { lab_run set ssid.wlan1 lab-5g && test "$(mib_line_count "ssid.wlan1 = lab-5g")" -eq 1; }

check_add_and_del_host() {
    check "add-host tv on the empty port eth0.5" lab_run add-host tv eth0.5 --mac "$TV_MAC"
    check "tv: lease named hx-tv" lease_named "$TV_MAC" hx-tv
    check "eth0.5 has carrier once tv is plugged in" port_carrier eth0.5
    check "add-host with a used name fails" lab_fails add-host tv eth0.4
    check "add-host on an unknown port fails with one error line" bad_port_rejected
    check "del-host tv" lab_run del-host tv
    check "tv's namespace is gone" ns_absent hx-tv
    check "eth0.5 loses carrier when its last host leaves" no_carrier eth0.5
}

check_unplug_replug() {
    check "unplug h1" lab_run unplug h1
    check "eth0.2 has no carrier while h1 is unplugged" no_carrier eth0.2
    check "h1 cannot reach the gateway while unplugged" cut_off h1
    check "replug h1" lab_run replug h1
    check "eth0.2 has carrier again" port_carrier eth0.2
    # replug and roam make the host send a frame, so br0 learns without our help.
    check "br0 learns h1 on eth0.2 after replug" wait_for 25 fdb_has "$H1_MAC" eth0.2
}

check_roam() {
    check "roam h3 from wlan0 to wlan1" lab_run roam h3 wlan1
    check "br0 learns h3 on wlan1" wait_for 25 fdb_has "$H3_MAC" wlan1
    check "h3 is listed on wlan1" station_listed "$H3_MAC" wlan1
    check "h3 is no longer listed on wlan0" not_listed "$H3_MAC" wlan0
    check "roam to the port the host is on fails" lab_fails roam h3 wlan1
}

listener_ready() { [[ -S "$EVENT_SOCK" ]]; }

# Stands in for the daemon's event socket and keeps the one line it receives.
start_event_listener() {
    EVENT_SOCK="$LAB_DIR/root/var/run/.hostapd_action_sock"
    if command -v socat >/dev/null 2>&1; then
        socat -u "UNIX-LISTEN:$EVENT_SOCK" "OPEN:$E2E_TMP/events,creat" &
    else
        python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM); s.bind(sys.argv[1]); s.listen(1)
c, _ = s.accept(); data = b""
while (chunk := c.recv(4096)):
    data += chunk
open(sys.argv[2], "wb").write(data)' "$EVENT_SOCK" "$E2E_TMP/events" &
    fi
    LISTENER_PID=$!
    wait_for 25 listener_ready
}

# hostapd's own line, or the one OpenWrt's action program makes of its kernel name.
event_received() { grep -qxE "wlan0-vap0:? AP-STA-DISCONNECTED $H4_MAC" "$E2E_TMP/events" 2>/dev/null; }

check_sta_leave() {
    if ! command -v socat >/dev/null 2>&1 && ! command -v python3 >/dev/null 2>&1; then
        printf 'skip - sta-leave checks: neither socat nor python3 is installed\n'
        return 0
    fi
    check "sta-leave without a daemon socket fails" lab_fails sta-leave h4
    check "a stand-in event socket listens" start_event_listener
    check "sta-leave h4" lab_run sta-leave h4
    check "the event line reached the socket" wait_for 25 event_received
    check "h4 is off the wlan0-vap0 station list" not_listed "$H4_MAC" wlan0-vap0
    check "replug h4 puts it back on the list" replug_relists_h4
    kill "$LISTENER_PID" 2>/dev/null || true
    wait "$LISTENER_PID" 2>/dev/null || true
}

check_config() {
    check "LAB_MIB_OVERRIDES applied at up" test "$(mib_line_count '485 = 20')" -eq 1
    check "mib.conf maps the profile's kernel names" ifname_lines_fit_profile
    check "set 482 30" lab_run set 482 30
    check "482 appears once, with the new value" test "$(mib_line_count '482 = 30')" -eq 1
    check "set adds a new key" set_adds_key
}

main() {
    lab_test_setup
    ROOT_VETHS_BEFORE="$(root_veths)"
    check "up with LAB_MIB_OVERRIDES (profile $LAB_PROFILE)" up_with_overrides
    check_config
    check_add_and_del_host
    check_unplug_replug
    check_roam
    check_sta_leave
    check "down succeeds" lab_run down
    check_nothing_left "down"
    finish
}

main "$@"
