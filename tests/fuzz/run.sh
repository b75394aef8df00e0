#!/usr/bin/env bash
# Runs every fuzz target in BUILD_DIR from its seed corpus for at most SECONDS each,
# stopping earlier once it has made RUNS executions (0: no such bound), and prints
# the executions of each. With KEEP=1 the inputs that found new coverage are merged
# into the seed corpus, as long as it stays under KEEP_MAX_KB.
set -euo pipefail
usage="usage: run.sh BUILD_DIR SECONDS [RUNS] [KEEP]"
build_dir=${1:?$usage} seconds=${2:?$usage} runs=${3:-0} keep=${4:-0} keep_max_kb=${KEEP_MAX_KB:-256}
here=$(cd "$(dirname "$0")" && pwd) status=0

# Adds to SEEDS the inputs of FOUND that reach coverage SEEDS does not.
keep_new_coverage() {
  local target=$1 seeds=$2 found=$3 size before after
  size=$(du -s --apparent-size -k "$seeds" | cut -f1)
  if ((size >= keep_max_kb)); then
    echo "fuzz: $(basename "$seeds") corpus is ${size} KiB already; nothing added"
    return 0
  fi
  before=$(find "$seeds" -type f | wc -l)
  "$target" -merge=1 -close_fd_mask=1 "$seeds" "$found" >/dev/null 2>&1 || true
  after=$(find "$seeds" -type f | wc -l)
  echo "fuzz: $(basename "$seeds") corpus: $((after - before)) inputs added"
}

for target in "$build_dir"/bin/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target") && name=${name#fuzz_}
  work=$(mktemp -d) && mkdir -p "$work/found"
  seeds="$here/corpus/$name" && { [ -d "$seeds" ] || seeds=""; }
  bound="-max_total_time=$seconds" limit="${seconds}s"
  if ((runs > 0)); then bound="$bound -runs=$runs" limit="$limit or $runs runs"; fi
  echo "fuzz: $name for at most $limit"
  # shellcheck disable=SC2086 # two options in one word on purpose
  if ! "$target" $bound -print_final_stats=1 -close_fd_mask=1 \
       -artifact_prefix="$work/" "$work/found" ${seeds:+"$seeds"} >"$work/log" 2>&1; then
    echo "fuzz: $name FAILED; the crashing input and log are in $work" >&2
    tail -n 40 "$work/log" >&2
    status=1
    continue
  fi
  executed=$(awk '/stat::number_of_executed_units/ {print $2}' "$work/log")
  rate=$(awk '/stat::average_exec_per_sec/ {print $2}' "$work/log")
  echo "fuzz: $name: ${executed:-?} executions (${rate:-?} per second)"
  if [[ "$keep" == 1 && -n "$seeds" ]]; then keep_new_coverage "$target" "$seeds" "$work/found"; fi
  rm -rf "$work"
done
exit $status
