#!/usr/bin/env bash
# Steady state starts no process: with the default mib.conf (counters on) the daemon
# runs with a PATH whose every tool only notes that it was started, and none is, over
# ten discovery cycles and three sampling passes once the lab's hosts have arrived,
# with its traffic counters working.
# shellcheck disable=SC2317 # predicates are called through check()
# shellcheck source-path=SCRIPTDIR
set -euo pipefail
# shellcheck source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

WATCH_S=30
TOOLS=(ip arp bridge iwpriv nft cat grep awk sed tail ls sh bash)

make_trap() {
    local dir="$1" tool
    mkdir -p "$dir"
    for tool in "${TOOLS[@]}"; do
        printf '#!/bin/sh\necho "%s $*" >>%s/started\nexit 1\n' "$tool" "$dir" >"$dir/$tool"
        chmod +x "$dir/$tool"
    done
}

all_hosts_arrived() { (($(ctl get hosts 2>/dev/null || echo 0) >= 6)); }

main() {
    lab_test_setup
    require_daemon_bin
    require_client_bin
    local trap="$E2E_TMP/trap"
    make_trap "$trap"
    check "lab up" lab_run up
    daemon_start_env HOSTRIX_ROOT="$LAB_DIR/root" PATH="$trap"
    check "control socket is listening" wait_for 50 socket_up
    check "the six hosts are listed" wait_for 100 all_hosts_arrived
    check "traffic counters work without nft" sh -c "! grep -q 'counters are not available' '$LAB_DIR/hostrix.log'"
    rm -f "$trap/started"
    sleep "$WATCH_S"
    check "no program was started in $WATCH_S s" test ! -e "$trap/started"
    if [[ -e "$trap/started" ]]; then sed 's/^/    started: /' "$trap/started" | sort | uniq -c | head; fi
    check "the daemon is still running" kill -0 "$DAEMON_PID"
    daemon_stop || true
    finish
}

main "$@"
