# shellcheck shell=bash
# Client hosts: one namespace hx-NAME each, its eth0 a veth into the switch of
# its gateway port. Modes: dhcp (udhcpc + SLAAC), static (+ SLAAC), v6only (SLAAC).

readonly FIRST_EXTRA_MAC_INDEX=16

valid_host_name() { [[ "$1" =~ ^[a-z][a-z0-9-]{0,12}$ && "$1" != gw && "$1" != sw-* ]]; }
# Unicast only: the kernel refuses a multicast MAC on an interface.
valid_mac() { [[ "$1" =~ ^[0-9a-f][02468ace](:[0-9a-f]{2}){5}$ ]]; }

valid_static_ip() {
    local last="${1#"$V4_NET".}"
    [[ "$1" == "$V4_NET".* && "$last" =~ ^[0-9]{1,3}$ ]] && ((last >= 2 && last <= 254))
}

# True when some host's state has KEY=VALUE.
any_host_has() {
    local key="$1" value="$2" name
    for name in $(host_names); do
        if [[ "$(host_get "$name" "$key")" == "$value" ]]; then return 0; fi
    done
    return 1
}

static_ip_free() { ! any_host_has ip "$1"; }

in_dhcp_range() {
    local last="${1##*.}"
    ((last >= DHCP_FIRST && last <= DHCP_LAST))
}

mac_in_use() { any_host_has mac "$1"; }

# Hosts added after `up` get 0a:77:00:00:00:10 onwards unless they ask for a MAC.
next_free_mac() {
    local i mac
    for ((i = FIRST_EXTRA_MAC_INDEX; i < 65536; i++)); do
        mac="$(printf '0a:77:00:00:%02x:%02x' $((i >> 8)) $((i & 255)))"
        if ! mac_in_use "$mac"; then
            printf '%s' "$mac"
            return 0
        fi
    done
    die "no free host MAC left"
}

host_state_write() {
    local name="$1" port="$2" mode="$3" ip="$4" mac="$5" hostname="$6"
    printf 'port=%s\nmode=%s\nip=%s\nmac=%s\nhostname=%s\nlink=up\n' \
        "$port" "$mode" "$ip" "$mac" "$hostname" >"$(host_file "$name")"
}

host_ns_create() {
    local ns="$1"
    run ip netns add "$ns"
    run ip -n "$ns" link set lo up
    # Explicit, so SLAAC does not depend on how the machine's defaults are set.
    ns_sysctl "$ns" net/ipv6/conf/all/disable_ipv6 0
    ns_sysctl "$ns" net/ipv6/conf/default/disable_ipv6 0
    ns_sysctl "$ns" net/ipv6/conf/default/accept_ra 1
    ns_sysctl "$ns" net/ipv6/conf/default/autoconf 1
    ns_sysctl "$ns" net/ipv6/conf/default/use_tempaddr 0
}

host_plug_into() {
    local name="$1" port="$2" mac="$3" ns
    ns="$(host_ns "$name")"
    run ip -n "$(switch_ns "$port")" link add "$(host_port_if "$name")" type veth peer name "$HOST_IF" netns "$ns"
    run ip -n "$ns" link set "$HOST_IF" address "$mac"
    run ip -n "$(switch_ns "$port")" link set "$(host_port_if "$name")" master "$SWITCH_BR" up
    run ip -n "$ns" link set "$HOST_IF" up
}

host_configure_static() {
    local ns
    ns="$(host_ns "$1")"
    run ip -n "$ns" addr add "$2/24" dev "$HOST_IF"
    run ip -n "$ns" route add default via "$GW_V4" dev "$HOST_IF"
}

# The hook is copied into LAB_DIR so a checkout without exec bits still works.
udhcpc_script() {
    local script="$LAB_DIR/udhcpc.script"
    if [[ ! -x "$script" ]]; then
        install -m 0755 "$LAB_ROOT/udhcpc.script" "$script"
    fi
    printf '%s' "$script"
}

udhcpc_start() {
    local name="$1" hostname script
    hostname="$(host_get "$name" hostname)"
    script="$(udhcpc_script)"
    setsid ip netns exec "$(host_ns "$name")" busybox udhcpc -f -i "$HOST_IF" \
        -x "hostname:$hostname" -s "$script" -p "$LAB_DIR/udhcpc.$name.pid" -t 5 -T 2 -A 3 \
        </dev/null >>"$LAB_DIR/udhcpc.$name.log" 2>&1 9>&- &
}

# host_create NAME PORT MODE IP MAC HOSTNAME
host_create() {
    local name="$1" port="$2" mode="$3" ip="$4" mac="$5" hostname="$6"
    host_state_write "$name" "$port" "$mode" "$ip" "$mac" "$hostname"
    host_ns_create "$(host_ns "$name")"
    host_plug_into "$name" "$port" "$mac"
    port_sync_carrier "$port"
    stations_sync
    # A first DISCOVER sent before carrier settles is lost and costs a retry.
    wait_until 3 host_path_up "$name" "$port" || true
    case "$mode" in
        static) host_configure_static "$name" "$ip" ;;
        dhcp) udhcpc_start "$name" ;;
        v6only) ;;
        *) die "internal: unknown host mode '$mode'" ;;
    esac
}

bridge_port_forwarding() {
    bridge -n "$1" link show dev "$2" 2>/dev/null | grep -q 'state forwarding'
}

# Host link up and every bridge port between it and br0 forwarding.
host_path_up() {
    local sw
    sw="$(switch_ns "$2")"
    ip -n "$(host_ns "$1")" link show dev "$HOST_IF" 2>/dev/null | grep -q 'state UP' &&
        bridge_port_forwarding "$sw" "$(host_port_if "$1")" &&
        bridge_port_forwarding "$sw" "$UPLINK" &&
        bridge_port_forwarding "$GW_NS" "$(kif "$2")"
}

host_pids() {
    local name="$1"
    if ns_exists "$(host_ns "$name")"; then ip netns pids "$(host_ns "$name")" 2>/dev/null || true; fi
    pid_from_file "$LAB_DIR/udhcpc.$name.pid"
}

# Deleting the namespace destroys the veth pair, switch end included.
host_destroy() {
    local name="$1" port
    port="$(host_get "$name" port)"
    # shellcheck disable=SC2046 # one pid per word
    stop_pids $(host_pids "$name" | sort -u)
    if ns_exists "$(host_ns "$name")"; then run ip netns del "$(host_ns "$name")"; fi
    rm -f "$(host_file "$name")" "$LAB_DIR/udhcpc.$name.pid" "$LAB_DIR/udhcpc.$name.log"
    port_sync_carrier "$port"
    stations_sync
}

# Unplugging takes the switch end down: the host sees no carrier but keeps its
# addresses, like a pulled cable or a station out of range.
host_set_link() {
    local name="$1" state="$2" port
    port="$(host_get "$name" port)"
    run ip -n "$(switch_ns "$port")" link set "$(host_port_if "$name")" "$state"
    host_set "$name" link "$state"
    port_sync_carrier "$port"
    stations_sync
}

host_move() {
    local name="$1" to="$2" from link pif
    from="$(host_get "$name" port)"
    link="$(host_get "$name" link)"
    pif="$(host_port_if "$name")"
    run ip -n "$(switch_ns "$from")" link set "$pif" netns "$(switch_ns "$to")"
    run ip -n "$(switch_ns "$to")" link set "$pif" master "$SWITCH_BR" "$link"
    host_set "$name" port "$to"
    port_sync_carrier "$from"
    port_sync_carrier "$to"
    stations_sync
}

# One frame from the host after it moved or came back, as a real device sends
# on association, so br0 learns the MAC on its new port without waiting. Tried
# again if unanswered: a link just brought up may drop the first one.
host_announce() {
    local name="$1" ns family=-4 target="$GW_V4" tries=3
    ns="$(host_ns "$name")"
    if [[ "$(host_get "$name" mode)" == v6only ]]; then family=-6 target="$GW_V6"; fi
    while ((tries-- > 0)); do
        in_ns "$ns" busybox ping "$family" -c 1 -W 1 "$target" >/dev/null 2>&1 && return 0
    done
    return 0
}

host_has_lease() { grep -qi " $(host_get "$1" mac) " "$LAB_DIR/dnsmasq.leases" 2>/dev/null; }
host_has_v4() { ip -n "$(host_ns "$1")" -4 addr show dev "$HOST_IF" 2>/dev/null | grep -q "inet $V4_NET\."; }
# Usable only once duplicate address detection is over: a tentative address sends nothing.
host_has_v6() { ip -n "$(host_ns "$1")" -6 addr show dev "$HOST_IF" scope global -tentative 2>/dev/null | grep -q "inet6 $V6_PREFIX"; }

# What a host lacks, as words (empty once it is fully configured).
host_missing() {
    local name="$1" mode
    mode="$(host_get "$name" mode)"
    if [[ "$mode" == dhcp ]] && ! host_has_lease "$name"; then printf '%s ' "$name:no-dhcp-lease"; fi
    if [[ "$mode" != v6only ]] && ! host_has_v4 "$name"; then printf '%s ' "$name:no-ipv4"; fi
    if ! host_has_v6 "$name"; then printf '%s ' "$name:no-${V6_PREFIX}-address"; fi
}

hosts_missing() {
    local name
    for name in "$@"; do host_missing "$name"; done
}

hosts_ready() { [[ -z "$(hosts_missing "$@")" ]]; }

# wait_for_hosts SECONDS NAME...: every host has the addresses of its mode (and
# a DHCP host its lease), or a one-line report of who lacks what.
wait_for_hosts() {
    local limit="$1" missing
    shift
    wait_until "$limit" hosts_ready "$@" || true
    missing="$(hosts_missing "$@")"
    if [[ -n "$missing" ]]; then
        die "hosts not configured after ${limit} s: ${missing% } (see $LAB_DIR/dnsmasq.log)"
    fi
}

# --- Wi-Fi station lists, one file per radio interface, rewritten from state ---

station_line() {
    local name="$1" port="$2" mac last rate mode
    mac="$(host_get "$name" mac)"
    last=$((16#${mac##*:}))
    rate=144 mode=n
    if [[ "$port" == wlan1 ]]; then rate=866 mode=ac; fi
    printf '%s %d %d %d %s\n' "$mac" "$((-40 - (last % 8) * 4))" "$rate" "$rate" "$mode"
}

stations_sync() {
    local port name tmp
    mkdir -p "$LAB_DIR/stations"
    for port in "${WIRELESS_PORTS[@]}"; do
        tmp="$LAB_DIR/stations/.$port.tmp"
        : >"$tmp"
        for name in $(host_names); do
            if [[ "$(host_get "$name" port)" == "$port" && "$(host_get "$name" link)" == up ]]; then
                station_line "$name" "$port" >>"$tmp"
            fi
        done
        mv "$tmp" "$LAB_DIR/stations/$port"
    done
}

# --- authenticator event to the daemon ---

event_socket() { printf '%s/root/var/run/.hostapd_action_sock' "$LAB_DIR"; }

require_event_socket() {
    [[ -S "$(event_socket)" ]] || die "no event socket at $(event_socket); start the daemon first (lab/demo.sh starts it)"
}

# send_station_left IFNAME MAC: what the profile's authenticator tells the daemon when
# a station leaves IFNAME (a gateway name); prints what was sent. On OpenWrt,
# hostapd_cli -a runs an action program with the kernel's name, and that speaks to
# the daemon.
send_station_left() {
    local ifname="$1" mac="$2" tool kernel
    if [[ "$LAB_PROFILE" != openwrt ]]; then
        send_event_line "$ifname: AP-STA-DISCONNECTED $mac"
        printf '"%s: AP-STA-DISCONNECTED %s"' "$ifname" "$mac"
        return 0
    fi
    require_event_socket
    tool="$(hostrix_tool hostrix-hostapd-action)"
    kernel="$(kif "$ifname")"
    timeout 5 env HOSTRIX_ROOT="$LAB_DIR/root" "$tool" "$kernel" AP-STA-DISCONNECTED "$mac" >/dev/null ||
        die "'$tool $kernel AP-STA-DISCONNECTED $mac' failed (is the daemon listening?)"
    printf '"%s %s AP-STA-DISCONNECTED %s"' "$(basename "$tool")" "$kernel" "$mac"
}

send_event_line() {
    local line="$1" sock
    sock="$(event_socket)"
    require_event_socket
    if command -v socat >/dev/null 2>&1; then
        printf '%s\n' "$line" | timeout 5 socat -t 1 - "UNIX-CONNECT:$sock" >/dev/null ||
            die "could not send the event line to $sock (is the daemon listening?)"
    elif command -v python3 >/dev/null 2>&1; then
        timeout 5 python3 -c 'import socket,sys
s=socket.socket(socket.AF_UNIX,socket.SOCK_STREAM); s.connect(sys.argv[1]); s.sendall(sys.argv[2].encode()+b"\n"); s.close()' \
            "$sock" "$line" || die "could not send the event line to $sock (is the daemon listening?)"
    else
        die "sending an event line needs socat; install it with: apt-get install -y socat"
    fi
}
