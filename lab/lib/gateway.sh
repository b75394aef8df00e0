# shellcheck shell=bash
# The gateway side: namespace hx-gw with bridge br0 (br-lan in the openwrt profile),
# one switch namespace per gateway port, dnsmasq, and the daemon's configuration
# under $LAB_DIR/root.

gateway_create() {
    run ip netns add "$GW_NS"
    run ip -n "$GW_NS" link set lo up
    # A router does not take RAs and answers neighbour solicitations as a router.
    ns_sysctl "$GW_NS" net/ipv6/conf/all/forwarding 1
    run ip -n "$GW_NS" link add "$BRIDGE" type bridge stp_state 0 forward_delay 0 mcast_snooping 0
    run ip -n "$GW_NS" link set "$BRIDGE" address "$GW_MAC"
    run ip -n "$GW_NS" addr add "$GW_V4/24" dev "$BRIDGE"
    run ip -n "$GW_NS" addr add "$GW_V6/64" dev "$BRIDGE" nodad
    # RAs leave from the link-local address; while that is still tentative the
    # first hosts' solicitations go unanswered and cost them a 4 s retry.
    ns_sysctl "$GW_NS" "net/ipv6/conf/$BRIDGE/accept_dad" 0
    run ip -n "$GW_NS" link set "$BRIDGE" up
}

port_mac() { printf '0a:77:ff:00:01:%02x' "$1"; }

# Gateway port PORT (in hx-gw under the profile's kernel name, member of the bridge)
# is a veth to the uplink of a small bridge in hx-sw-PORT; hosts plug into that
# bridge, so a port can carry any number of hosts and a host can be moved between ports.
port_create() {
    local port="$1" index="$2" sw kport
    sw="$(switch_ns "$port")"
    kport="$(kif "$port")"
    run ip netns add "$sw"
    # The switch must stay silent, or br0 would learn its MACs as hosts.
    ns_sysctl "$sw" net/ipv6/conf/default/disable_ipv6 1
    ns_sysctl "$sw" net/ipv6/conf/all/disable_ipv6 1
    run ip -n "$sw" link add "$SWITCH_BR" type bridge stp_state 0 forward_delay 0 mcast_snooping 0
    run ip -n "$sw" link set "$SWITCH_BR" up
    run ip -n "$GW_NS" link add "$kport" type veth peer name "$UPLINK" netns "$sw"
    run ip -n "$GW_NS" link set "$kport" address "$(port_mac "$index")"
    ns_sysctl "$GW_NS" "net/ipv6/conf/$kport/disable_ipv6" 1
    run ip -n "$GW_NS" link set "$kport" master "$BRIDGE" up
    run ip -n "$sw" link set "$UPLINK" master "$SWITCH_BR"
    port_sync_carrier "$port"
}

ports_create() {
    local i=1 port
    for port in "${PORTS[@]}"; do
        port_create "$port" "$i"
        i=$((i + 1))
    done
}

port_has_live_host() {
    local name
    for name in $(host_names); do
        if [[ "$(host_get "$name" port)" == "$1" && "$(host_get "$name" link)" == "up" ]]; then
            return 0
        fi
    done
    return 1
}

# Radios are always up; a wired port has carrier only while a host is plugged in.
port_sync_carrier() {
    local port="$1" state=down
    if is_wireless "$port" || port_has_live_host "$port"; then state=up; fi
    run ip -n "$(switch_ns "$port")" link set "$UPLINK" "$state"
}

# dnsmasq_config [SCRIPT]: SCRIPT runs on every lease event.
dnsmasq_config() {
    cat <<CONF
# Written by lab/lab up; DHCPv4 with host names and router advertisements only.
interface=$BRIDGE
bind-interfaces
port=0
no-resolv
no-hosts
user=root
group=root
dhcp-authoritative
# Offers go out at once instead of after a ping check of each address.
no-ping
dhcp-range=${V4_NET}.${LAB_DHCP_FIRST:-$DHCP_FIRST},${V4_NET}.${LAB_DHCP_LAST:-$DHCP_LAST},255.255.255.0,${LAB_LEASE_TIME:-1h}
dhcp-option=option:router,$GW_V4
enable-ra
dhcp-range=::,constructor:$BRIDGE,ra-only,64,1h
ra-param=$BRIDGE,10,600
dhcp-leasefile=$LAB_DIR/dnsmasq.leases
pid-file=$LAB_DIR/dnsmasq.pid
log-facility=$LAB_DIR/dnsmasq.log
log-dhcp
CONF
    if [[ -n "${1:-}" ]]; then
        printf '# Lease events go to the daemon (HOSTRIX_ROOT comes with the environment).\n'
        printf 'dhcp-script=%s\n' "$1"
    fi
}

# dnsmasq forks once it is set up, so its exit status tells whether it started.
# It passes its environment on to its lease script, which finds the daemon by HOSTRIX_ROOT.
dnsmasq_start() {
    local script=""
    if [[ "$LAB_PROFILE" == openwrt ]]; then script="$(hostrix_tool hostrix-dhcp-script)"; fi
    dnsmasq_config "$script" >"$LAB_DIR/dnsmasq.conf"
    : >"$LAB_DIR/dnsmasq.leases"
    if ! ip netns exec "$GW_NS" env HOSTRIX_ROOT="$LAB_DIR/root" dnsmasq --conf-file="$LAB_DIR/dnsmasq.conf" \
        </dev/null >>"$LAB_DIR/dnsmasq.out" 2>&1 9>&-; then
        die "dnsmasq did not start: $(tail -n 1 "$LAB_DIR/dnsmasq.out" 2>/dev/null)"
    fi
}

mib_file() { printf '%s/root/etc/hostrix/mib.conf' "$LAB_DIR"; }

mib_config() {
    cat <<CONF
# hostrix configuration for the virtual LAN lab (written by lab/lab up).
480 = 0x2          # dbg_level (debug flags)
481 = 20           # ARP interval s
482 = 60           # ageout s
483 = 3            # ARP retry
484 = 90           # FDB idle max s
485 = 90           # idle timeout s
478 = 256          # max LAN hosts
479 = 256          # max controlled hosts
474 = 1            # bandwidth enable
475 = 10           # bandwidth interval s
lan_ports = ${LAN_PORTS[*]}
wlan_roots = wlan0 wlan1
lease_file = $LAB_DIR/dnsmasq.leases
ssid.wlan0 = hx-home
ssid.wlan0-vap0 = hx-guest
ssid.wlan1 = hx-home-5g
phy.eth0.2 = 1
phy.eth0.3 = 2
phy.eth0.4 = 3
phy.eth0.5 = 4
logic.eth0.2 = 0
logic.eth0.3 = 1
logic.eth0.4 = 2
logic.eth0.5 = 3
stations = dir:$LAB_DIR/stations
counters = nftables
CONF
    mib_ifname_lines
}

# The kernel's names of the profile, for the daemon to translate.
mib_ifname_lines() {
    local pair
    for pair in $(lab_profile_ifnames "$LAB_PROFILE"); do
        printf 'ifname.%s = %s\n' "${pair%%=*}" "${pair#*=}"
    done
}

# Replaces the line of KEY (comment included) or appends it.
mib_set() {
    local key="$1" value="$2" file tmp
    file="$(mib_file)"
    tmp="$file.tmp"
    awk -v k="$key" -v v="$value" '
        { line = $0; sub(/[ \t]*=.*/, "", line); sub(/^[ \t]+/, "", line) }
        line == k && $0 !~ /^[ \t]*#/ { print k " = " v; done = 1; next }
        { print }
        END { if (!done) print k " = " v }' "$file" >"$tmp"
    mv "$tmp" "$file"
}

# LAB_MIB_OVERRIDES="482=30;485=20" lets a test shorten timeouts at `up`.
mib_apply_overrides() {
    local item key value
    local -a items
    IFS=';' read -r -a items <<<"${LAB_MIB_OVERRIDES:-}"
    for item in "${items[@]}"; do
        [[ -n "${item// /}" ]] || continue
        [[ "$item" == *=* ]] || die "LAB_MIB_OVERRIDES item '$item' is not KEY=VALUE; use e.g. LAB_MIB_OVERRIDES='482=30;485=20'"
        key="$(trim "${item%%=*}")"
        value="$(trim "${item#*=}")"
        mib_set "$key" "$value"
    done
}

trim() {
    local s="$1"
    s="${s#"${s%%[![:space:]]*}"}"
    printf '%s' "${s%"${s##*[![:space:]]}"}"
}

root_create() {
    mkdir -p "$LAB_DIR/root/etc/hostrix" "$LAB_DIR/root/var/run" "$LAB_DIR/root/tmp" \
        "$LAB_DIR/stations" "$LAB_DIR/hosts"
    mib_config >"$(mib_file)"
    mib_apply_overrides
}
