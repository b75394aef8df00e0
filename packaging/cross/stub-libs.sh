#!/usr/bin/env bash
# stub-libs.sh TRIPLE OUT: link stubs, with the real sonames, for the libraries Debian
# ships no build of for TRIPLE: a function of each name the library's headers
# declare, doing nothing, and pkg-config files that point at them. Programs link
# against them as against the real ones and use the box's libraries at run time.
# libmnl's calls that hostrix makes are real (libmnl_walk.c), so that the unit tests
# that walk netlink messages run under qemu.
set -euo pipefail
triple=${1:?usage: stub-libs.sh TRIPLE OUT}
out=${2:?usage: stub-libs.sh TRIPLE OUT}
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$out/lib" "$out/pkgconfig" "$out/src"

# stub NAME SONAME PREFIX HEADER... [-- REAL.c]
stub() {
    local name=$1 soname=$2 prefix=$3 real=""
    shift 3
    local -a headers=()
    while (($#)); do
        if [[ $1 == -- ]]; then real=$2; break; fi
        headers+=("$1"); shift
    done
    local defined=""
    [[ -z "$real" ]] || defined=$(grep -ohE "\b${prefix}[a-z0-9_]+\(" "$real" | tr -d '(' | sort -u)
    grep -ohE "\b${prefix}[a-z0-9_]+[[:space:]]*\(" "${headers[@]}" | tr -d '( \t' | sort -u |
        grep -vxF -f <(printf '%s\n' "$defined") |
        awk '{ print "void " $1 "(void) {}" }' >"$out/src/$name.c"
    "$triple-gcc" -shared -fPIC -O1 -o "$out/lib/$soname" -Wl,-soname,"$soname" \
        "$out/src/$name.c" ${real:+"$real"}
    ln -sf "$soname" "$out/lib/lib$name.so"
    printf 'Name: %s\nDescription: link stub\nVersion: 99\nLibs: -L%s -l%s\nCflags:\n' \
        "$name" "$out/lib" "$name" >"$out/pkgconfig/lib$name.pc"
}

stub mnl libmnl.so.0 mnl_ /usr/include/libmnl/libmnl.h -- "$here/libmnl_walk.c"
stub nftnl libnftnl.so.11 nftnl_ /usr/include/libnftnl/*.h
stub sqlite3 libsqlite3.so.0 sqlite3_ /usr/include/sqlite3.h
stub microhttpd libmicrohttpd.so.12 MHD_ /usr/include/microhttpd.h
stub mosquitto libmosquitto.so.1 mosquitto_ /usr/include/mosquitto.h
echo "stubs for $triple in $out"
