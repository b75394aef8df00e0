#!/usr/bin/env bash
# The sniffer thread and traffic counters in the lab: a host the gateway never talks
# to is learnt from its IGMP reports; "nas0" ports are monitored as they come and go;
# the socket filter keeps other frames out; a DHCP release clears the cached address;
# a paced transfer shows in both hosts' counts and rates; SIGTERM stops it at once,
# table removed. Once the hosts are in it starts no program (each tool on its PATH
# only notes that it was started).
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# Debug bit 0x400: sniffer log level 7, so every frame that passes the filter is logged.
# Interval 0: counters are sampled only on SIGUSR2, when the test asks.
export LAB_MIB_OVERRIDES='480=0x402;475=0'
make_trap() {
    local tool
    TRAP="$E2E_TMP/trap"
    mkdir -p "$TRAP"
    for tool in ip arp bridge iwpriv nft cat grep awk sed tail ls sh bash; do
        printf '#!/bin/sh\necho "%s $*" >>%s/started\nexit 1\n' "$tool" "$TRAP" >"$TRAP/$tool"
        chmod +x "$TRAP/$tool"
    done
}
no_program_started() {
    [[ ! -e "$TRAP/started" ]] && return 0
    sed 's/^/    started: /' "$TRAP/started" | sort | uniq -c | head
    return 1
}

# The SIGHUP dump's block, from its last "Sniffer Information" line on. The block is
# read once its last section (the neighbour cache, ended by an empty line) is out: the
# list lock can hold the dump back while the thread is handling frames.
last_dump_block() {
    awk '/====> \[Sniffer Information\] <====/ { block = ""; cache = 0; done = 0 }
         { block = block $0 "\n" }
         /^### Neighbor Host:$/ { cache = 1 }
         cache && /^$/ { done = 1 }
         END { printf "%s", block; exit !done }' "$DAEMON_LOG"
}
sniffer_dump() {
    local before
    before="$(log_lines '====> [Sniffer Information] <====')"
    kill -HUP "$DAEMON_PID"
    wait_for 25 eval '(($(log_lines "====> [Sniffer Information] <====") > before))' || return 1
    wait_for 25 last_dump_block >/dev/null && last_dump_block
}
# Both fail when no whole dump came out.
dump_has() { local block; block="$(sniffer_dump)" && grep -qE -- "$1" <<<"$block"; }
dump_lacks() { local block; block="$(sniffer_dump)" && ! grep -qE -- "$1" <<<"$block"; }

check_startup_interfaces() {
    check "br0 is monitored with no master, its port nas0_0 with master br0, eth0.2 not" wait_for 10 eval \
        "dump_has '^    IF br0\([0-9]+\) SOCK [0-9]+ MASTER NULL$' && dump_has '^    IF nas0_0\([0-9]+\) SOCK [0-9]+ MASTER br0$' &&
        dump_lacks '^    IF eth0\.2\('"
}

check_sniffer_learnt_host() {
    local mac
    check "add-host h7 on eth0.3 with static 10.77.0.70" lab_run add-host h7 eth0.3 --static 10.77.0.70
    mac="$(host_mac h7)"
    traffic h7 igmp-join 239.77.0.7 4 &
    check "h7 is reported" wait_for "$TICKS_2" reported new "$mac"
    check "at 10.77.0.70, learnt by the sniffer (ipSource 3)" \
        wait_for 30 listed_with "$mac" ip=10.77.0.70 ipSource=3
    check "the gateway never resolved it by ARP" test -z "$(ip -n "$GW_NS" -4 neigh show 10.77.0.70 | grep -v FAILED)"
    wait "$!" || true
}

check_runtime_ports() {
    local port
    for port in nas0_7 eth0.9; do ip -n "$GW_NS" link add "$port" master br0 up type veth peer name "${port}p"; done
    check "nas0_7 joining br0 is monitored with master br0" \
        wait_for 20 dump_has '^    IF nas0_7\([0-9]+\) SOCK [0-9]+ MASTER br0$'
    check "eth0.9 joining br0 is not" dump_lacks '^    IF eth0\.9\('
    for port in nas0_7 eth0.9; do ip -n "$GW_NS" link del "$port"; done
    check "nas0_7 removed disappears from the dump" wait_for 20 dump_lacks '^    IF nas0_7\('
}

# 10,000 broadcast datagrams to an unwatched port, then 20 to the DHCP server port as
# a control: only the control frames reach the thread (frame sizes 375 and 343).
check_filter() {
    traffic h1 udp-burst 9999 10000 333
    traffic h1 udp-burst 67 20 301
    check "the 20 frames to port 67 reach the sniffer" wait_for 25 test "$(log_lines 'SIZE 343 PROTO 0x0800')" -ge 20
    check "none of the 10,000 frames to port 9999 does" test "$(log_lines 'SIZE 375 PROTO 0x0800')" -eq 0
}

cache_line_of() { sniffer_dump | grep -E "^    HOST ${1//:/} IP " | head -n 1; }
cached_ip_is() { [[ "$(cache_line_of "$1" | awk '{ print $4 }')" == "$2" ]]; }

# The gateway resolves h2 afresh, so h2's ARP reply to it passes the sniffer; then
# h2's DHCP client releases its lease.
check_dhcp_release() {
    local mac ip
    mac="$(host_mac h2)" && ip="$(lease_ip_of "$mac")"
    ip -n "$GW_NS" neigh flush to "$ip" 2>/dev/null || true
    gw_ping "$ip"
    check "h2's ARP reply puts $ip in the cache" wait_for 25 cached_ip_is "${mac^^}" "$ip"
    release_lease h2
    check "h2's DHCP release clears its cached address" wait_for 25 cached_ip_is "${mac^^}" 0.0.0.0
}

within_20_percent() { python3 -c 'import sys; a, e = map(float, sys.argv[1:]); ok = abs(a - e) <= 0.2 * e; ok or print("    got %g" % a); sys.exit(not ok)' "$1" "$2"; }

check_traffic() {
    local tx_mac rx_mac bytes=$((20 * 1024 * 1024)) rate=2000000 tx0 rx0 sink
    tx_mac="$(host_mac h1)" rx_mac="$(host_mac h5)"
    refresh
    tx0="$(listed_field "$tx_mac" txBytes)" rx0="$(listed_field "$rx_mac" rxBytes)"
    traffic h5 tcp-sink 5001 >/dev/null &
    sink=$!
    sleep 0.5
    traffic h1 tcp-send 10.77.0.50 5001 "$bytes" "$rate" &
    sleep 3
    refresh  # sample A, mid-transfer
    sleep 4
    refresh  # sample B: rates over the 4 s between
    check "h1's upRate is within 20% of $((rate / 128)) (1024 bit/s units)" within_20_percent "$(listed_field "$tx_mac" upRate)" $((rate / 128))
    check "h5's downRate is within 20% of $((rate / 128))" within_20_percent "$(listed_field "$rx_mac" downRate)" $((rate / 128))
    wait "$!" "$sink" || true
    refresh
    check "h1's txBytes grew by about 20 MiB" within_20_percent $(($(listed_field "$tx_mac" txBytes) - tx0)) "$bytes"
    check "h5's rxBytes grew by about 20 MiB" within_20_percent $(($(listed_field "$rx_mac" rxBytes) - rx0)) "$bytes"
}

check_shutdown() {
    local pid="$DAEMON_PID"
    check "the counter table exists while the daemon runs" nft_table_present
    kill -TERM "$pid"
    check "SIGTERM ends the daemon within 1 s, the sniffer stopped first" \
        eval 'wait_for 5 all_dead "$pid" && logged "Stop Sniffer"'
    wait "$pid" 2>/dev/null || true
    DAEMON_PID=""
    check "no nftables table is left" eval '! nft_table_present'
    check "no program was started in steady state" no_program_started
}

main() {
    daemon_test_setup
    require_tools nft
    make_trap
    start_daemon_in_lab PATH="$TRAP"
    check_lab_hosts_arrive
    rm -f "$TRAP/started"
    check_startup_interfaces
    check_sniffer_learnt_host
    check_runtime_ports
    check_filter
    check_dhcp_release
    check_traffic
    check_shutdown
    finish
}

main "$@"
