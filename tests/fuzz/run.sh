#!/usr/bin/env bash
# Runs every fuzz target in BUILD_DIR for SECONDS each, from its seed corpus.
set -euo pipefail
build_dir=${1:?usage: run.sh BUILD_DIR SECONDS}
seconds=${2:?usage: run.sh BUILD_DIR SECONDS}
here=$(cd "$(dirname "$0")" && pwd)
status=0
for target in "$build_dir"/bin/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target" | sed 's/^fuzz_//')
  work=$(mktemp -d)
  seeds="$here/corpus/$name"
  [ -d "$seeds" ] || seeds=""
  echo "fuzz: $name for ${seconds}s"
  if ! "$target" -max_total_time="$seconds" -print_final_stats=0 -close_fd_mask=1 \
       -artifact_prefix="$work/" $work ${seeds:+"$seeds"} >"$work/log" 2>&1; then
    echo "fuzz: $name FAILED; the crashing input and log are in $work" >&2
    tail -n 40 "$work/log" >&2
    status=1
    continue
  fi
  grep -E '^Done|#[0-9]+.*DONE' "$work/log" | tail -n 1 || true
  rm -rf "$work"
done
exit $status
