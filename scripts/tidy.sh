#!/usr/bin/env bash
# clang-tidy over the library and the tool, with the checks of the root .clang-tidy; any
# finding fails the run (WarningsAsErrors there). clang-tidy needs only the compile
# database, so build/tidy is configured and never built. The debug flags are the same for
# clang as for GCC, so the GCC configuration serves.
#   scripts/tidy.sh                    src/ and tools/
#   scripts/tidy.sh src/foundation/    only the sources under the given folders
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-2}
RUN_CLANG_TIDY=${RUN_CLANG_TIDY:-run-clang-tidy}

cmake --preset tidy >/dev/null
folders=("$@")
if [ ${#folders[@]} -eq 0 ]; then folders=(src/ tools/); fi
# run-clang-tidy takes regular expressions over the database's absolute paths.
regex="^$(pwd)/($(IFS='|'; echo "${folders[*]}"))"

log=build/tidy/tidy.log
status=0
"$RUN_CLANG_TIDY" -p build/tidy -j "$JOBS" -quiet "$regex" >"$log" 2>&1 || status=$?
# The findings themselves, without clang-tidy's "N warnings generated" chatter.
grep -E '(warning|error):' "$log" | sort -u || true
if [ $status -ne 0 ]; then
  echo "tidy: findings above (full output in $log)" >&2
  exit 1
fi
echo "tidy: no findings"
