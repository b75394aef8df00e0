#!/usr/bin/env bash
# make install as a box gets it: the build installed into a scratch DESTDIR, the
# installed daemon, client and agent run in the lab from there, the example settings
# read without complaint, the systemd units verified, the OpenWrt package's files and
# library dependencies checked against the install, and uninstall leaves nothing.
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BUILD_DIR="$(cd "$(dirname "$HOSTRIX_BIN")/.." && pwd)"
PREFIX="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD_DIR/CMakeCache.txt")"
MIB="$ROOT/etc/hostrix/mib.conf"

install_tree() { DESTDIR="$DEST" cmake --install "$BUILD_DIR" >"$E2E_TMP/install.out" 2>&1; }
installed_files() { (cd "$DEST" && find . -type f | sort); }

check_installed() {
    local file missing=""
    for file in sbin/hostrix sbin/hostrix-agent sbin/hostrix-dhcp-script sbin/hostrix-hostapd-action \
        bin/hostrixctl share/hostrix/hostrix-oui.bin lib/systemd/system/hostrix.service \
        lib/systemd/system/hostrix-agent.service lib/sysusers.d/hostrix.conf \
        share/man/man8/hostrix.8 share/man/man8/hostrix-agent.8 share/man/man1/hostrixctl.1 \
        share/man/man8/hostrix-dhcp-script.8 share/man/man8/hostrix-hostapd-action.8; do
        [[ -e "$DEST$PREFIX/$file" ]] || missing+=" $file"
    done
    [[ -f "$DEST/etc/hostrix/mib.conf" && -f "$DEST/etc/hostrix/agent.conf" ]] || missing+=" etc/hostrix"
    [[ -z "$missing" ]] || ! echo "    missing:$missing"
}

# systemd-analyze checks the units' syntax, dependencies, man pages and that each
# ExecStart exists: the copies point into DESTDIR, the installed man pages are found.
units_verify() {
    local unit
    mkdir -p "$E2E_TMP/units"
    for unit in hostrix hostrix-agent; do
        sed "s|^ExecStart=|ExecStart=$DEST|" "$DEST$PREFIX/lib/systemd/system/$unit.service" >"$E2E_TMP/units/$unit.service"
    done
    MANPATH="$DEST$PREFIX/share/man" systemd-analyze verify "$E2E_TMP"/units/*.service
}

# The example's keys and the lab's own lines after them (later lines win).
example_settings_read() {
    { cat "$DEST/etc/hostrix/mib.conf"; cat "$E2E_TMP/lab-mib.conf"; } >"$MIB"
    : >"$DAEMON_LOG"
    kill -USR1 "$DAEMON_PID"
    sleep 1
    ! grep -F "mib.conf:" "$DAEMON_LOG" | grep -vF 'unknown group "hostrix"'
}

agent_found_its_files() {
    local found=1
    cp "$DEST/etc/hostrix/agent.conf" "$ROOT/etc/hostrix/agent.conf"
    agent_start
    wait_for 50 agent_logged "prefixes from $DEST$PREFIX/sbin/../share/hostrix/hostrix-oui.bin" &&
        ! grep -F "agent.conf" "$AGENT_LOG" | grep -vF "group" || found=0
    stop_pid "$AGENT_PID" || true
    ((found)) || ! sed 's/^/    /' "$AGENT_LOG" >&2
}

uninstall_leaves_nothing() {
    "$REPO_DIR/packaging/uninstall.sh" "$BUILD_DIR/install_manifest.txt" "$REPO_DIR/packaging/examples" \
        "$DEST" >/dev/null && [[ -z "$(installed_files)" ]]
}

main() {
    daemon_test_setup
    [[ -n "$PREFIX" ]] || skip "no CMAKE_INSTALL_PREFIX in $BUILD_DIR/CMakeCache.txt"
    DEST="$E2E_TMP/dest"
    check "cmake --install into a scratch DESTDIR" install_tree
    check "programs, vendor file, man pages, units and settings are installed" check_installed
    check "the OpenWrt package lints against what was installed" \
        python3 "$REPO_DIR/packaging/openwrt/lint.py" "$DEST" "$PREFIX"
    if command -v systemd-analyze >/dev/null; then check "systemd-analyze verify accepts both units" units_verify
    else echo 'skip - no systemd-analyze here: the units are not verified'; fi
    HOSTRIX_BIN="$DEST$PREFIX/sbin/hostrix" HOSTRIXCTL_BIN="$DEST$PREFIX/bin/hostrixctl" AGENT_BIN="$DEST$PREFIX/sbin/hostrix-agent"
    start_daemon_in_lab
    cp "$MIB" "$E2E_TMP/lab-mib.conf"
    check "the installed daemon and client report the lab's hosts" wait_for 150 lab_hosts_reported
    check "the example mib.conf is read without complaint" example_settings_read
    check "the installed agent finds its vendor file and reads the example agent.conf" agent_found_its_files
    check "the installed daemon stops cleanly" daemon_stop
    check "uninstall removes every installed file" uninstall_leaves_nothing
    finish
}

main "$@"
