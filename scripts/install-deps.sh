#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the benchmarks
# need, when they are missing. Safe to run again.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  protobuf-c-compiler libprotobuf-c-dev
  libhiredis-dev redis-server
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  g++-multilib clang-format
  clang libclang-rt-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
