# shellcheck shell=bash
# The lab's profiles: which kernel names the gateway's interfaces carry inside hx-gw.
# Everything else (verbs, host state, station files, the daemon's records) speaks the
# gateway's names (br0, eth0.2, wlan0); only hx-gw's own interfaces are renamed.
# Sourced by lab/lab and by tests/e2e/lib.sh, so it defines functions and plain data only.

LAB_PROFILE_NAMES=(default openwrt)
# GATEWAY=KERNEL pairs of an OpenWrt box: DSA LAN ports, one bridge, phyN-apM radios.
LAB_OPENWRT_IFNAMES=(br0=br-lan eth0.2=lan1 eth0.3=lan2 eth0.4=lan3 eth0.5=lan4
    wlan0=phy0-ap0 wlan0-vap0=phy0-ap1 wlan1=phy1-ap0)

lab_profile_known() {
    local name
    for name in "${LAB_PROFILE_NAMES[@]}"; do
        if [[ "$name" == "$1" ]]; then return 0; fi
    done
    return 1
}

# The GATEWAY=KERNEL pairs of PROFILE, one a line; none where the names agree.
lab_profile_ifnames() {
    if [[ "$1" == openwrt ]]; then printf '%s\n' "${LAB_OPENWRT_IFNAMES[@]}"; fi
}

# lab_kernel_ifname PROFILE NAME: the kernel's name for gateway interface NAME.
lab_kernel_ifname() { lab_ifname_pair "$1" "$2" gateway; }
# lab_gateway_ifname PROFILE NAME: the gateway's name for kernel interface NAME.
lab_gateway_ifname() { lab_ifname_pair "$1" "$2" kernel; }

# lab_ifname_pair PROFILE NAME SIDE: the other side of the pair whose SIDE (gateway or
# kernel) is NAME; NAME itself when no pair has it.
lab_ifname_pair() {
    local pair gateway kernel
    for pair in $(lab_profile_ifnames "$1"); do
        gateway="${pair%%=*}" kernel="${pair#*=}"
        if [[ "$3" == gateway && "$gateway" == "$2" ]]; then printf '%s' "$kernel"; return 0; fi
        if [[ "$3" == kernel && "$kernel" == "$2" ]]; then printf '%s' "$gateway"; return 0; fi
    done
    printf '%s' "$2"
}
