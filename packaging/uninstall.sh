#!/usr/bin/env bash
# Removes every file of an install manifest (paths without DESTDIR), then the
# folders of ours that are left empty. A settings file that differs from its
# example was changed on the box: it stays, and is named.
set -euo pipefail
usage="usage: uninstall.sh MANIFEST EXAMPLES_DIR [DESTDIR]"
manifest=${1:?$usage}
examples=${2:?$usage}
destdir=${3:-}
if [[ ! -f "$manifest" ]]; then
    echo "uninstall: no $manifest; nothing was installed from this tree" >&2
    exit 1
fi
while IFS= read -r file || [[ -n "$file" ]]; do
    file=$destdir$file
    [[ -e "$file" || -L "$file" ]] || continue
    if [[ "$file" == */etc/hostrix/*.conf ]] && ! cmp -s "$file" "$examples/${file##*/}"; then
        echo "uninstall: kept $file (changed since it was installed)"
        continue
    fi
    rm -f -- "$file"
    dir=${file%/*}
    # Only folders named for hostrix (share/hostrix, etc/hostrix, doc/hostrix/...).
    while [[ "$dir" == *hostrix* ]] && rmdir -- "$dir" 2>/dev/null; do dir=${dir%/*}; done
done <"$manifest"
echo "uninstall: done"
