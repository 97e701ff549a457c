#!/usr/bin/env bash
# Line and branch coverage of the library (src/) by the fast tests: a GCC build with
# --coverage in build/coverage, `ctest -LE slow`, then gcovr's summary. Counters from an
# earlier run are cleared first, so the figures are this run's alone. A failing test fails
# the run, but the figures are still printed.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-2}
build=build/coverage

cmake --preset coverage
cmake --build --preset coverage -j "$JOBS"
find "$build" -name '*.gcda' -delete

status=0
ctest --preset coverage -LE slow || status=$?

# Only the library's own sources count; tests, fuzz targets, benchmarks, the tool, the
# examples and generated files are left out. Branches the compiler adds for exceptions
# are not ones a test could choose to take. Counters are updated atomically
# (-fprofile-update=atomic in the preset) because the library runs threads; should a count
# still come out torn, gcov prints it as negative and that line is skipped, not fatal.
gcovr --root . --object-directory "$build" --filter 'src/' \
  --exclude 'tests/' --exclude 'fuzz/' --exclude 'bench/' --exclude 'build/' \
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
  --print-summary --txt "$build/coverage.txt" -j "$JOBS"
echo "coverage: per-file table in $build/coverage.txt"
exit $status
