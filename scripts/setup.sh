#!/usr/bin/env bash
# Installs, with apt-get, whatever a fresh Debian 12 machine lacks to build
# Quillon32 and run its tests. Safe to run again: it installs only what is
# missing and does nothing when everything is there.
set -euo pipefail

packages=(
  # build tools
  build-essential cmake ninja-build pkg-config git
  # libraries the library links
  libssl-dev libcurl4-openssl-dev libxml2-dev
  # tests, benchmarks, fuzzing
  googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev clang libclang-rt-14-dev
  # servers and tools the tests start on 127.0.0.1
  openssl curl nginx libnginx-mod-http-echo faketime python3 iproute2 procps
  slapd ldap-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
# slapd's package would otherwise build a default database; the tests run
# their own instances with their own configuration.
echo "slapd slapd/no_configuration boolean true" | $SUDO debconf-set-selections
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
