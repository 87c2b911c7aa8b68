#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the tools
# use, when they are missing, plus any named on the command line (suites
# that only CI runs name their own). Safe to run again.
# Usage: scripts/install-deps.sh [i386|armhf] [extra-package...]
# With a 32-bit target it also adds that foreign architecture and installs
# its toolchain, its :<arch> libraries and the emulator its tests run under.
set -euo pipefail

packages=(
  cmake g++ make pkg-config ccache   # build
  protobuf-c-compiler libprotobuf-c-dev
  libhiredis-dev
  libcli11-dev nlohmann-json3-dev    # the qzcap tool
  redis-server                       # the Redis store's tests, qzcap store up
  libgtest-dev libgmock-dev          # tests
  g++-multilib                       # the 32-bit layout check
  clang-format clang-tidy            # the format check, scripts/tidy.sh
)

target=""
case "${1:-}" in
  i386 | armhf) target=$1; shift ;;
esac
packages+=("$@")
# protoc-c stays the host's; the target needs the libraries it links and,
# to run its tests, libstdc++ itself.
target_libs=(libprotobuf-c-dev libhiredis-dev libgtest-dev libgmock-dev libstdc++6)
case "$target" in
  "") ;;
  i386)
    packages+=(qemu-user "${target_libs[@]/%/:i386}")
    ;;
  armhf)
    # Debian's gcc cross compiler conflicts with g++-multilib: clang and lld
    # with the cross libc, libstdc++ and libgcc instead.
    packages+=(clang lld qemu-user libc6-dev-armhf-cross libstdc++-12-dev-armhf-cross
               libgcc-12-dev-armhf-cross "${target_libs[@]/%/:armhf}")
    ;;
esac

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

if [ -n "$target" ] && ! dpkg --print-foreign-architectures | grep -qx "$target"; then
  echo "install-deps: adding the foreign architecture $target (dpkg --add-architecture $target)"
  $sudo dpkg --add-architecture "$target"
fi

# The security archive's indexes for foreign architectures fail to download
# on this distribution, and one failed index fails the whole update: keep
# that source to the host's architecture (the main archive serves the others).
restrict_security_sources() {
  local host file tmp
  host=$(dpkg --print-architecture)
  shopt -s nullglob
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$file" ] || continue
    grep -Eq '^[[:space:]]*deb[[:space:]].*security' "$file" || continue
    tmp=$(mktemp)
    # One-line form: add arch= to the options, or add the options.
    sed -E "/^[[:space:]]*deb[[:space:]].*security/{/arch=/b
            s/^([[:space:]]*deb[[:space:]]+)\[/\1[arch=$host /;t
            s/^([[:space:]]*deb)[[:space:]]+/\1 [arch=$host] /}" "$file" >"$tmp"
    if ! cmp -s "$file" "$tmp"; then
      $sudo cp "$tmp" "$file"
      echo "install-deps: restricted the security source in $file to $host ([arch=$host])"
    fi
    rm -f "$tmp"
  done
  for file in /etc/apt/sources.list.d/*.sources; do
    grep -q 'security' "$file" || continue
    tmp=$(mktemp)
    # deb822 form: a stanza naming a security archive and no Architectures.
    awk -v arch="$host" 'BEGIN { RS = ""; ORS = "\n\n" }
      { if ($0 ~ /(URIs|Suites):[^\n]*security/ && $0 !~ /(^|\n)Architectures:/)
          $0 = $0 "\nArchitectures: " arch
        print }' "$file" >"$tmp"
    if ! cmp -s <(grep -v '^$' "$file") <(grep -v '^$' "$tmp"); then
      $sudo cp "$tmp" "$file"
      echo "install-deps: restricted the security source in $file to $host (Architectures: $host)"
    fi
    rm -f "$tmp"
  done
  shopt -u nullglob
}
[ -n "$target" ] && restrict_security_sources

echo "install-deps: installing ${missing[*]}"
$sudo apt-get update -qq
unknown=()
for p in "${missing[@]}"; do
  apt-cache show --no-all-versions "$p" >/dev/null 2>&1 || unknown+=("$p")
done
if [ ${#unknown[@]} -gt 0 ]; then
  echo "install-deps: no such package in the configured sources: ${unknown[*]}" >&2
  exit 1
fi
if ! $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; then
  failed=()
  for p in "${missing[@]}"; do
    installed "$p" || failed+=("$p")
  done
  [ ${#failed[@]} -gt 0 ] || failed=("(see the errors above)")
  echo "install-deps: could not install ${failed[*]}" >&2
  exit 1
fi
