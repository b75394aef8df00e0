# shellcheck shell=bash
# The scale lab: K real DHCP clients (busybox udhcpc, one namespace each) behind the
# switch of one port, for measuring the daemon on a full LAN. It takes the place of the
# default hosts, whose addresses the clients need, and widens dnsmasq's range to the
# whole /24.

readonly SCALE_MAX=250
readonly SCALE_PORT=eth0.2
readonly SCALE_LEASE_WAIT_S=60
readonly SCALE_RANGE_FIRST=2 SCALE_RANGE_LAST=254

scale_mac() { printf '0a:7b:00:00:%02x:%02x' $(($1 >> 8)) $(($1 & 255)); }

# Every host sK with a state file, in creation order.
scale_hosts() {
    local i
    for ((i = 1; i <= SCALE_MAX; i++)); do
        if host_exists "s$i"; then printf 's%d\n' "$i"; fi
    done
}

# Like host_create, without the per-host carrier and station passes that would make
# building K hosts cost K squared.
scale_host_create() {
    local name="s$1" mac
    mac="$(scale_mac "$1")"
    host_state_write "$name" "$SCALE_PORT" dhcp "" "$mac" "hx-$name"
    host_ns_create "$(host_ns "$name")"
    host_plug_into "$name" "$SCALE_PORT" "$mac"
}

scale_dnsmasq_restart() {
    # shellcheck disable=SC2046 # one pid
    stop_pids $(pid_from_file "$LAB_DIR/dnsmasq.pid")
    LAB_DHCP_FIRST=$SCALE_RANGE_FIRST LAB_DHCP_LAST=$SCALE_RANGE_LAST dnsmasq_start
}

scale_leases() { grep -c ' 0a:7b:' "$LAB_DIR/dnsmasq.leases" 2>/dev/null || true; }
scale_all_leased() { (($(scale_leases) >= $1)); }

# Starts the DHCP client of every scale host that has none running.
verb_scale_go() {
    local name started=0
    for name in $(scale_hosts); do
        if [[ -z "$(pid_from_file "$LAB_DIR/udhcpc.$name.pid")" ]]; then
            udhcpc_start "$name"
            started=$((started + 1))
        fi
    done
    say "started $started DHCP clients"
}

verb_scale() {
    local count="${1:-}" hold="${2:-}" name i
    [[ "$count" =~ ^[0-9]+$ ]] && ((count >= 1 && count <= SCALE_MAX)) ||
        die "scale needs a host count from 1 to $SCALE_MAX"
    [[ -z "$hold" || "$hold" == --hold ]] || die "scale: unknown argument '$hold'; see lab/lab --help"
    [[ -z "$(scale_hosts)" ]] || die "the scale hosts are there already; rebuild with: lab/lab down && lab/lab up"
    for name in $(host_names); do host_destroy "$name"; done
    scale_dnsmasq_restart
    for ((i = 1; i <= count; i++)); do scale_host_create "$i"; done
    port_sync_carrier "$SCALE_PORT"
    if [[ -n "$hold" ]]; then
        say "$count hosts s1..s$count on $SCALE_PORT, DHCP clients held: start them with lab/lab scale-go"
        return 0
    fi
    verb_scale_go
    wait_until "$SCALE_LEASE_WAIT_S" scale_all_leased "$count" ||
        die "only $(scale_leases) of $count scale hosts got a lease in ${SCALE_LEASE_WAIT_S} s"
    say "$count hosts s1..s$count on $SCALE_PORT hold leases"
}
