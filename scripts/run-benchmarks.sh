#!/usr/bin/env bash
# Runs every benchmark binary in the given folder; each reports its own figures and ratios.
set -euo pipefail
dir=${1:-build/release/bench}
shopt -s nullglob
for b in "$dir"/*_bench; do
  echo "== $(basename "$b")"
  "$b" --benchmark_counters_tabular=true "${@:2}"
done
