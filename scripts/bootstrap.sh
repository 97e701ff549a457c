#!/usr/bin/env bash
# Installs every Debian package that building, testing and benchmarking Corvane needs.
# Idempotent: packages already installed are skipped, and nothing is fetched from
# anywhere but the machine's own apt sources.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config git
  clang libclang-rt-14-dev libfuzzer-14-dev
  libssl-dev rapidjson-dev libplist-dev libfmt-dev libspdlog-dev libcli11-dev
  libsecret-1-dev libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev
  libmsgpack-cxx-dev openssl python3 xxd
  clang-format clang-tidy gcovr
  dbus-daemon gnome-keyring syncthing libcpp-httplib-dev curl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
echo "bootstrap: installing ${missing[*]}"
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
