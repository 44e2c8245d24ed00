#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a bounded time on a copy of its seed corpus.
#   scripts/fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]
set -euo pipefail
build=${1:-build/fuzz}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for target in "$build"/fuzz/fuzz_*; do
    [[ -x "$target" && -f "$target" ]] || continue
    name=$(basename "$target")
    seeds="$root/fuzz/corpus/${name#fuzz_}"
    work="$root/fuzz-out/$name"
    mkdir -p "$work/corpus"
    [[ -d "$seeds" ]] && cp -n "$seeds"/* "$work/corpus/" 2>/dev/null || true
    echo "== $name for ${seconds}s"
    if ! "$target" -max_total_time="$seconds" -artifact_prefix="$work/" -print_final_stats=1 \
        "$work/corpus" 2>"$work/log.txt"; then
        echo "!! $name found a problem; see $work/log.txt"
        status=1
    fi
    grep -E 'stat::number_of_executed_units|Done' "$work/log.txt" | tail -2 || true
done
exit $status
