#!/usr/bin/env bash
# Runs every fuzz target in the given folder for a bounded time, starting from its seed corpus.
set -euo pipefail
dir=${1:-build/fuzz/fuzz}
seconds=${2:-60}
here=$(cd "$(dirname "$0")/.." && pwd)
shopt -s nullglob
for f in "$dir"/*_fuzz; do
  name=$(basename "$f")
  corpus=$(mktemp -d)
  if [ -d "$here/fuzz/corpus/$name" ]; then cp -r "$here/fuzz/corpus/$name/." "$corpus/"; fi
  echo "== $name for ${seconds}s"
  "$f" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$corpus"
  rm -rf "$corpus"
done
