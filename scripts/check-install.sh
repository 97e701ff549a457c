#!/usr/bin/env bash
# Proves that a host can build against an installed Corvane: installs an optimised build of
# the library and tool into a temporary prefix, configures and builds tests/consumer (a host
# project that knows only `find_package(corvane)`) against it, and runs it.
#
#   scripts/check-install.sh [BUILD_DIR]
#
# Without BUILD_DIR it configures and builds the `package` preset (the libraries and the tool,
# without tests or benchmarks) in build/package; with one it installs that build as it is.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
build=${1:-}
if [ -z "$build" ]; then
  build=build/package
  cmake --preset package >/dev/null
  cmake --build --preset package -j "$jobs"
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/corvane-check-install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
test -x "$tmp/prefix/bin/corvane"

# The consumer is configured from a copy, so nothing of the source tree's layout can help it.
cp -r tests/consumer "$tmp/src"
cmake -S "$tmp/src" -B "$tmp/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/build" -j "$jobs"

# Defaults, recent documents and caches stay inside the temporary folder.
mkdir -p "$tmp/home" "$tmp/docs"
isolated=(env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u XDG_CACHE_HOME HOME="$tmp/home")
"${isolated[@]}" "$tmp/build/app" "$tmp/docs"
"${isolated[@]}" "$tmp/prefix/bin/corvane" info "$tmp/docs/Doc.corvane" >/dev/null
echo "check-install: the installed package builds and runs a host application"
