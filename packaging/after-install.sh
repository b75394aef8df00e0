#!/usr/bin/env bash
# After `make install`: into the running system (no DESTDIR) as root, create the
# agent's user and the sockets' group, and tell systemd about the new units.
set -euo pipefail
destdir=$1 prefix=$2
sysusers="$prefix/lib/sysusers.d/hostrix.conf"
if [[ -z "$destdir" && $(id -u) == 0 ]] && command -v systemd-sysusers >/dev/null; then
    systemd-sysusers "$sysusers"
    if [[ -d /run/systemd/system ]]; then systemctl daemon-reload; fi
    echo "installed; start with: systemctl enable --now hostrix hostrix-agent"
else
    echo "installed under ${destdir:-/}; the agent's user and group come from $sysusers"
fi
