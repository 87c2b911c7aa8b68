#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the tools
# use, when they are missing, plus any named on the command line (suites
# that only CI runs name their own). Safe to run again.
# Usage: scripts/install-deps.sh [extra-package...]
set -euo pipefail

packages=(
  cmake g++ make pkg-config          # build
  protobuf-c-compiler libprotobuf-c-dev
  libhiredis-dev
  libcli11-dev nlohmann-json3-dev    # the qzcap tool
  redis-server                       # the Redis store's tests, qzcap store up
  libgtest-dev libgmock-dev          # tests
  g++-multilib                       # the 32-bit layout check
  clang-format                       # the format check
  "$@"
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
if ! $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; then
  echo "install-deps: could not install: ${missing[*]}" >&2
  exit 1
fi
