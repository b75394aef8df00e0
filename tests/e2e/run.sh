#!/usr/bin/env bash
# Runs every tests/e2e/test_*.sh (or the ones named) and sums up.
# Exit 0: none failed; 1: a test failed; 77: every test skipped.
set -uo pipefail

E2E_DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
passed=0 failed=0 skipped=0

run_one() {
    local test="$1" rc=0
    printf '=== %s\n' "$(basename "$test")"
    bash "$test" || rc=$?
    case "$rc" in
        0) passed=$((passed + 1)); printf '=== PASS %s\n' "$(basename "$test")" ;;
        77) skipped=$((skipped + 1)); printf '=== SKIP %s\n' "$(basename "$test")" ;;
        *) failed=$((failed + 1)); printf '=== FAIL %s (exit %d)\n' "$(basename "$test")" "$rc" ;;
    esac
}

main() {
    local test
    local -a tests=("$@")
    if ((${#tests[@]} == 0)); then tests=("$E2E_DIR"/test_*.sh); fi
    for test in "${tests[@]}"; do run_one "$test"; done
    printf 'e2e: %d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
    if ((failed > 0)); then exit 1; fi
    if ((passed == 0 && skipped > 0)); then exit 77; fi
    exit 0
}

main "$@"
