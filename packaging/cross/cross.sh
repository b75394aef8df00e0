#!/usr/bin/env bash
# Cross builds with Debian's cross compilers, and the unit tests under qemu-user.
#   cross.sh build ARCH   the five programs, as a router gets them (-Os, LTO), in build-ARCH
#   cross.sh check ARCH   the unit tests, built in build-ARCH-check, run under qemu
#   cross.sh sizes        stripped size of each program for x86-64 and every ARCH
# ARCH: arm64, armhf or mips (big-endian). Run from the top of the tree.
set -euo pipefail
cd "$(dirname "$0")/../.."
ARCHES=(arm64 armhf mips)
PROGRAMS=(hostrix hostrix-agent hostrixctl hostrix-dhcp-script hostrix-hostapd-action)
HOST_BUILD=${BUILD:-build}
GEN=(-G Ninja)

triple_of() {
    case $1 in
    arm64) echo aarch64-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    mips) echo mips-linux-gnu ;;
    *) echo "cross: ARCH must be one of: ${ARCHES[*]} (not '$1')" >&2; exit 2 ;;
    esac
}

qemu_of() {
    case $1 in arm64) echo qemu-aarch64-static ;; armhf) echo qemu-arm-static ;; mips) echo qemu-mips-static ;; esac
}

# The vendor file's converter, built for this machine.
host_converter() {
    cmake -S . -B "$HOST_BUILD" "${GEN[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$HOST_BUILD" --target oui_compile >/dev/null
    echo "$PWD/$HOST_BUILD/bin/oui_compile"
}

# configure ARCH DIR CMAKE_ARGS...: stubs, then the cross configuration in DIR.
configure() {
    local arch=$1 dir=$2
    shift 2
    packaging/cross/stub-libs.sh "$(triple_of "$arch")" "$dir/stubs" >/dev/null
    cmake -S . -B "$dir" "${GEN[@]}" -DCMAKE_TOOLCHAIN_FILE="packaging/cross/$arch.cmake" \
        -DHOSTRIX_CROSS_STUBS="$PWD/$dir/stubs" -DCMAKE_BUILD_TYPE=MinSizeRel \
        -DHOSTRIX_STATIC_CXX_RUNTIME=OFF -DHOSTRIX_OUI_COMPILER="$(host_converter)" "$@" >/dev/null
}

build() {
    local arch=$1 dir="build-$1"
    triple_of "$arch" >/dev/null
    configure "$arch" "$dir" -DHOSTRIX_TESTS=OFF -DHOSTRIX_SMALL=ON
    cmake --build "$dir" --target "${PROGRAMS[@]}" hostrix_oui_file
    echo "cross: $arch programs in $dir/bin"
}

# The unit tests: core against the fake platform, the client, the agent and the
# linux backend, but not what only a real SQLite or libnftnl can answer (they are
# link stubs here), and not the checks against the kernel in a private namespace.
check() {
    local arch=$1 dir="build-$1-check" triple qemu status=0
    triple=$(triple_of "$arch")
    qemu=$(qemu_of "$arch")
    command -v "$qemu" >/dev/null || { echo "cross: no $qemu (apt-get install qemu-user-static)" >&2; exit 2; }
    configure "$arch" "$dir" -DHOSTRIX_TESTS=ON
    local -A filters=([agent_unit_tests]="-HistoryTest.*" [test_linux_backend]="-NftDump.*")
    local -A why=([agent_unit_tests]="SQLite" [test_linux_backend]="libnftnl")
    cmake --build "$dir" --target "${!filters[@]}" hostrix_unit_tests hostrixctl_unit_tests
    for test in hostrix_unit_tests hostrixctl_unit_tests agent_unit_tests test_linux_backend; do
        echo "cross: $test on $arch under $qemu${filters[$test]:+ (not ${filters[$test]#-}: ${why[$test]} is a link stub here)}"
        "$qemu" -L "/usr/$triple" -E "LD_LIBRARY_PATH=$PWD/$dir/stubs/lib" -E HOSTRIX_NO_NETNS=1 "$dir/bin/$test" \
            --gtest_brief=1 ${filters[$test]:+--gtest_filter="${filters[$test]}"} || status=1
    done
    return $status
}

# size_of STRIP PROGRAM: its stripped size in KiB, rounded up.
size_of() {
    local stripped size
    stripped=$(mktemp)
    "$1" -o "$stripped" "$2"
    size=$(stat -c %s "$stripped")
    rm -f "$stripped"
    echo $(((size + 1023) / 1024))
}

sizes() {
    local arch program
    cmake -S . -B build-x86-64 "${GEN[@]}" -DCMAKE_BUILD_TYPE=MinSizeRel -DHOSTRIX_TESTS=OFF \
        -DHOSTRIX_SMALL=ON -DHOSTRIX_STATIC_CXX_RUNTIME=OFF >/dev/null
    cmake --build build-x86-64 --target "${PROGRAMS[@]}" >/dev/null
    for arch in "${ARCHES[@]}"; do build "$arch" >/dev/null; done
    printf '%-24s %8s' "stripped KiB" x86-64
    printf ' %8s' "${ARCHES[@]}"
    printf '\n'
    for program in "${PROGRAMS[@]}"; do
        printf '%-24s %8s' "$program" "$(size_of strip "build-x86-64/bin/$program")"
        for arch in "${ARCHES[@]}"; do
            printf ' %8s' "$(size_of "$(triple_of "$arch")-strip" "build-$arch/bin/$program")"
        done
        printf '\n'
    done
}

case ${1:-} in
build | check) "$1" "${2:?usage: cross.sh build|check ARCH}" ;;
sizes) sizes ;;
*) echo "usage: cross.sh build|check ARCH | sizes" >&2; exit 2 ;;
esac
