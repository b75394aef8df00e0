# shellcheck shell=bash
# Shared constants and helpers of the lab: names, paths, messages, state files,
# process stopping and bounded waits. Sourced by lab/lab.
# shellcheck disable=SC2034 # the constants are used by the other lib files

readonly GW_NS="hx-gw"
# The gateway's bridge; BRIDGE is its kernel name in the lab's profile (profile_use).
readonly GW_BRIDGE="br0"
BRIDGE="$GW_BRIDGE"
LAB_PROFILE=default
readonly V4_NET="10.77.0"
readonly GW_V4="${V4_NET}.1"
readonly DHCP_FIRST=100 DHCP_LAST=199
readonly GW_V6="fd77::1"
readonly V6_PREFIX="fd77::"
readonly GW_MAC="0a:77:ff:00:00:01"
readonly SWITCH_BR="sw"
readonly UPLINK="uplink"
readonly HOST_IF="eth0"
# Gateway ports in bridge order; wired ones lose carrier when nothing is plugged in.
readonly PORTS=(eth0.2 eth0.3 eth0.4 eth0.5 wlan0 wlan0-vap0 wlan1 nas0_0)
readonly WIRELESS_PORTS=(wlan0 wlan0-vap0 wlan1)
readonly LAN_PORTS=(eth0.2 eth0.3 eth0.4 eth0.5)

LAB_DIR="${HOSTRIX_LAB_DIR:-/run/hostrix-lab}"
LAB_DIR="${LAB_DIR%/}"
readonly LAB_MARKER=".hostrix-lab"
CURRENT_STEP=""
# The daemon's helper programs are looked for beside the daemon.
HOSTRIX_TOOLS_DIR="$(dirname "${HOSTRIX_BIN:-$(dirname "$LAB_ROOT")/build/bin/hostrix}")"

say() { printf 'lab: %s\n' "$*"; }
warn() { printf 'lab: warning: %s\n' "$*" >&2; }
die() {
    printf 'lab: error: %s\n' "$*" >&2
    exit 1
}

# Runs a command and turns any failure into one readable line naming it.
run() {
    local out
    if ! out="$("$@" 2>&1)"; then
        die "'$*' failed: ${out//$'\n'/ }"
    fi
}

# Lets the e2e tests break `up` at a chosen step to prove the cleanup path.
fail_point() {
    if [[ "${HOSTRIX_LAB_FAIL_AT:-}" == "$1" ]]; then
        die "simulated failure at step '$1' (HOSTRIX_LAB_FAIL_AT)"
    fi
}

step() {
    CURRENT_STEP="$1"
    shift
    fail_point "$CURRENT_STEP"
    "$@"
}

check_lab_dir_path() {
    case "$LAB_DIR" in
        /?*) ;;
        *) die "HOSTRIX_LAB_DIR must be an absolute path other than / (got '${HOSTRIX_LAB_DIR:-}')" ;;
    esac
}

require_root() {
    if [[ "$(id -u)" -ne 0 ]]; then
        die "the lab needs root to create network namespaces; run it as root (e.g. sudo lab/lab $1)"
    fi
}

require_tool() {
    local tool="$1" package="$2"
    if ! command -v "$tool" >/dev/null 2>&1; then
        die "'$tool' not found; install it with: apt-get install -y $package"
    fi
}

require_tools() {
    require_tool ip iproute2
    require_tool bridge iproute2
    require_tool dnsmasq dnsmasq-base
    require_tool busybox busybox
    require_tool flock util-linux
    require_tool setsid util-linux
}

# One lab command at a time: the lock file sits beside LAB_DIR so it outlives `down`.
take_lock() {
    mkdir -p "$(dirname "$LAB_DIR")"
    exec 9>"${LAB_DIR}.lock"
    if ! flock -w 30 9; then
        die "another lab command still holds ${LAB_DIR}.lock after 30 s; wait for it or end it"
    fi
}

ns_exists() { [[ -e "/run/netns/$1" ]]; }
in_ns() {
    local ns="$1"
    shift
    ip netns exec "$ns" "$@"
}

# Writes /proc/sys inside a namespace (procps' sysctl may be absent, and
# interface names with dots need the path form anyway).
ns_sysctl() {
    local ns="$1" key="$2" value="$3"
    # shellcheck disable=SC2016 # expanded by the inner shell
    run ip netns exec "$ns" sh -c 'printf "%s\n" "$2" > "/proc/sys/$1"' _ "$key" "$value"
}

lab_namespaces() {
    ip netns list 2>/dev/null | awk '$1 ~ /^hx-/ { print $1 }'
}

switch_ns() { printf 'hx-sw-%s' "$1"; }
host_ns() { printf 'hx-%s' "$1"; }
host_port_if() { printf 'h-%s' "$1"; }

# True when WORD is one of the following arguments.
one_of() {
    local word="$1" item
    shift
    for item in "$@"; do
        if [[ "$item" == "$word" ]]; then return 0; fi
    done
    return 1
}

is_port() { one_of "$1" "${PORTS[@]}"; }
is_wireless() { one_of "$1" "${WIRELESS_PORTS[@]}"; }

require_port() {
    if ! is_port "$1"; then
        die "unknown port '$1'; use one of: ${PORTS[*]}"
    fi
}

# --- profile: default (gateway names in the kernel too) or openwrt (lab/lib/profile.sh) ---

profile_file() { printf '%s/profile' "$LAB_DIR"; }

profile_use() {
    lab_profile_known "$1" || die "unknown profile '$1'; use one of: ${LAB_PROFILE_NAMES[*]}"
    LAB_PROFILE="$1"
    BRIDGE="$(kif "$GW_BRIDGE")"
}

# The profile the running lab was built with.
profile_load() {
    local saved=default
    if [[ -r "$(profile_file)" ]]; then saved="$(<"$(profile_file)")"; fi
    profile_use "$saved"
}

# The kernel's name inside hx-gw for gateway interface NAME.
kif() { lab_kernel_ifname "$LAB_PROFILE" "$1"; }

# A helper program of the daemon's build (hostrix-dhcp-script, hostrix-hostapd-action).
hostrix_tool() {
    local tool="$HOSTRIX_TOOLS_DIR/$1"
    [[ -x "$tool" ]] || die "no $1 at $tool; build it (cmake --build build) or set HOSTRIX_BIN to a daemon built beside it"
    printf '%s' "$tool"
}

lab_is_up() { [[ -e "$LAB_DIR/up" ]] && ns_exists "$GW_NS"; }

require_up() {
    if ! lab_is_up; then
        die "the lab is not up; start it with: lab/lab up"
    fi
}

# Polls CMD every 0.2 s until it succeeds or LIMIT seconds have passed.
wait_until() {
    local limit="$1"
    shift
    local tries=$((limit * 5))
    while ((tries-- > 0)); do
        if "$@"; then return 0; fi
        sleep 0.2
    done
    "$@"
}

# --- per-host state: $LAB_DIR/hosts/NAME holds key=value lines ---

host_file() { printf '%s/hosts/%s' "$LAB_DIR" "$1"; }
host_exists() { [[ -f "$(host_file "$1")" ]]; }

host_get() {
    local file
    file="$(host_file "$1")"
    awk -F= -v k="$2" '$1 == k { sub(/^[^=]*=/, ""); print; exit }' "$file"
}

host_set() {
    local file tmp
    file="$(host_file "$1")"
    tmp="$file.tmp"
    awk -F= -v k="$2" -v v="$3" '
        $1 == k { print k "=" v; done = 1; next }
        { print }
        END { if (!done) print k "=" v }' "$file" >"$tmp"
    mv "$tmp" "$file"
}

host_names() {
    local f
    for f in "$LAB_DIR"/hosts/*; do
        if [[ -f "$f" && "$f" != *.tmp ]]; then basename "$f"; fi
    done
}

require_host() {
    if ! host_exists "$1"; then
        die "no host '$1' in the lab; see the host list with: lab/lab status"
    fi
}

# --- processes ---

pid_alive() {
    local state
    [[ -r "/proc/$1/stat" ]] || return 1
    state="$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null)" || return 1
    [[ -n "$state" && "$state" != "Z" ]]
}

any_alive() {
    local pid
    for pid in "$@"; do
        if pid_alive "$pid"; then return 0; fi
    done
    return 1
}

none_alive() { ! any_alive "$@"; }

# SIGTERM, up to 3 s of grace, then SIGKILL; the caller passes only lab pids.
stop_pids() {
    (($# > 0)) || return 0
    kill -TERM "$@" 2>/dev/null || true
    if wait_until 3 none_alive "$@"; then return 0; fi
    kill -KILL "$@" 2>/dev/null || true
    wait_until 2 none_alive "$@" || warn "processes still alive after SIGKILL: $*"
}

# A pid file is trusted only while its process still points at this LAB_DIR,
# so a recycled pid never gets killed.
pid_from_file() {
    local file="$1" pid
    [[ -r "$file" ]] || return 0
    pid="$(tr -dc '0-9' <"$file")"
    [[ -n "$pid" ]] && pid_alive "$pid" || return 0
    if { tr '\0' '\n' <"/proc/$pid/cmdline"; } 2>/dev/null | grep -qF "$LAB_DIR/" ||
        { tr '\0' '\n' <"/proc/$pid/environ"; } 2>/dev/null | grep -qF "$LAB_DIR/"; then
        printf '%s\n' "$pid"
    fi
}
