#!/usr/bin/env bash
# Runs every tests/e2e/test_*.sh (or the ones named) and sums up; a script with a
# line "# e2e-profiles: default openwrt" runs once per lab profile (LAB_PROFILE).
# Exit 0: none failed; 1: a test failed; 77: every test skipped.
set -uo pipefail

E2E_DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
passed=0 failed=0 skipped=0

run_one() {
    local test="$1" profile="$2" rc=0 label started="$SECONDS"
    label="$(basename "$test") ($profile)"
    printf '=== %s\n' "$label"
    LAB_PROFILE="$profile" bash "$test" || rc=$?
    label="$label in $((SECONDS - started)) s"
    case "$rc" in
        0) passed=$((passed + 1)); printf '=== PASS %s\n' "$label" ;;
        77) skipped=$((skipped + 1)); printf '=== SKIP %s\n' "$label" ;;
        *) failed=$((failed + 1)); printf '=== FAIL %s (exit %d)\n' "$label" "$rc" ;;
    esac
}

profiles_of() { local line; line="$(sed -n 's/^# e2e-profiles://p' "$1" | head -n 1)"; printf '%s\n' "${line:-default}"; }

main() {
    local test profile
    local -a tests=("$@")
    if ((${#tests[@]} == 0)); then tests=("$E2E_DIR"/test_*.sh); fi
    for test in "${tests[@]}"; do
        for profile in $(profiles_of "$test"); do run_one "$test" "$profile"; done
    done
    printf 'e2e: %d passed, %d failed, %d skipped in %d s\n' "$passed" "$failed" "$skipped" "$SECONDS"
    if ((failed > 0)); then exit 1; fi
    if ((passed == 0 && skipped > 0)); then exit 77; fi
    exit 0
}

main "$@"
