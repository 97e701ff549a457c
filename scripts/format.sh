#!/usr/bin/env bash
# Formats the project's C++ sources with clang-format and the root .clang-format.
#   scripts/format.sh          rewrites every tracked source in place
#   scripts/format.sh --check  changes nothing; lists each file that is not formatted and fails
# Only files tracked by git are touched, so build trees and scratch files are left alone.
set -euo pipefail
cd "$(dirname "$0")/.."

CLANG_FORMAT=${CLANG_FORMAT:-clang-format}
check=0
if [ "${1:-}" = "--check" ]; then check=1; fi

mapfile -t files < <(git ls-files -- 'src/*.cpp' 'src/*.h' 'include/*.cpp' 'include/*.h' 'tools/*.cpp' 'tools/*.h' \
  'tests/*.cpp' 'tests/*.h' 'fuzz/*.cpp' 'fuzz/*.h' 'examples/*.cpp' 'examples/*.h' 'bench/*.cpp' 'bench/*.h')
if [ ${#files[@]} -eq 0 ]; then
  echo "format: no sources found" >&2
  exit 1
fi

if [ $check -eq 0 ]; then
  printf '%s\0' "${files[@]}" | xargs -0 -n 50 "$CLANG_FORMAT" -i
  exit 0
fi

# One line per unformatted file (the first offending line), then a count.
unformatted=0
for f in "${files[@]}"; do
  if ! out=$("$CLANG_FORMAT" --dry-run --Werror "$f" 2>&1); then
    unformatted=$((unformatted + 1))
    echo "$out" | grep -m1 'error:' || echo "$f: not formatted"
  fi
done
if [ $unformatted -ne 0 ]; then
  echo "format-check: $unformatted of ${#files[@]} files are not formatted; run 'make format'" >&2
  exit 1
fi
echo "format-check: ${#files[@]} files formatted"
