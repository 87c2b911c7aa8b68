#!/usr/bin/env bash
# What an integrator does with the project, checked end to end:
#   1. build the "device" preset and install it into a temporary prefix;
#   2. build examples/consumer against that prefix only, once with CMake's
#      find_package and once with a plain compiler command from pkg-config,
#      and run both (no path into the build tree anywhere);
#   3. a consumer that asks for a newer version is refused by both tools;
#   4. installing over an older version in the same prefix replaces it;
#   5. build the Debian packages, list them, run lintian (no errors), and
#      build and run the consumer against the packages' contents.
# Usage: scripts/package-test.sh [work-dir]   (default: a fresh temporary directory)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" lintian dpkg-dev file
work=${1:-$(mktemp -d /tmp/qzcap-package.XXXXXX)}
mkdir -p "$work"
build="$root/build/device"
fail() { echo "package-test: $*" >&2; exit 1; }
step() { echo "== package-test: $*"; }

step "device build"
cd "$root"
cmake --preset device >/dev/null
cmake --build --preset device -j"$(nproc)"
multiarch=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")

step "install into $work/prefix"
prefix="$work/prefix"
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir="$prefix/$multiarch"

# Nothing installed may point back into the source or build tree.
for f in "$libdir"/*.so.* "$prefix"/bin/*; do
  [ -L "$f" ] && continue
  if readelf -d "$f" | grep -Eq 'RPATH|RUNPATH'; then
    fail "$f carries a run path: $(readelf -d "$f" | grep -E 'RPATH|RUNPATH')"
  fi
done
if grep -rlF "$root" "$prefix" >/dev/null; then
  fail "installed files name the source tree: $(grep -rlF "$root" "$prefix" | head -3)"
fi

# Runs a consumer (with its arguments) with only the prefix's libraries, and checks that every
# library of ours came from there.
run_consumer() {
  local exe=$1
  shift
  local libs
  libs=$(LD_LIBRARY_PATH="$libdir" ldd "$exe" | grep -E 'libqz|libkril' || true)
  [ -n "$libs" ] || fail "$exe links none of our libraries"
  if echo "$libs" | grep -v -F "$libdir" | grep -q .; then
    fail "$exe resolves libraries outside $libdir: $libs"
  fi
  (cd "$work" && LD_LIBRARY_PATH="$libdir" KRIL_RUN_DIR="$work/kril" "$exe" "$@") ||
    fail "$exe failed"
}

step "consumer with find_package"
rm -rf "$work/consumer-cmake"
cmake -S "$root/examples/consumer" -B "$work/consumer-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/consumer-cmake" >/dev/null
run_consumer "$work/consumer-cmake/qzcap_consumer"

step "consumer with pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -o "$work/consumer-pc" "$root/examples/consumer/consumer.c" \
  $(pkg-config --cflags --libs libqz_cap libqz_cap-platform) -pthread
run_consumer "$work/consumer-pc"

step "consumer on a private redis-server"
redis-server --port 0 --unixsocket "$work/redis.sock" --unixsocketperm 700 --save '' \
  --appendonly no --dir "$work" --logfile "$work/redis.log" &
redis_pid=$!
trap 'kill $redis_pid 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -S "$work/redis.sock" ] && break; sleep 0.05; done
[ -S "$work/redis.sock" ] || fail "redis-server did not start: $(tail -3 "$work/redis.log")"
run_consumer "$work/consumer-pc" "unix:$work/redis.sock"
kill "$redis_pid"; wait "$redis_pid" 2>/dev/null || true; trap - EXIT

step "a newer version than installed is refused"
if pkg-config --print-errors --exists 'libqz_cap >= 99.0' 2>"$work/pc-error"; then
  fail "pkg-config accepted libqz_cap >= 99.0"
fi
grep -q "libqz_cap" "$work/pc-error" || fail "pkg-config said nothing useful: $(cat "$work/pc-error")"
echo "pkg-config: $(head -1 "$work/pc-error")"
mkdir -p "$work/newer"
cat > "$work/newer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(newer LANGUAGES C)
find_package(libqz_cap 99.0 CONFIG REQUIRED)
CMAKE
if cmake -S "$work/newer" -B "$work/newer/build" -DCMAKE_PREFIX_PATH="$prefix" \
  >"$work/newer.log" 2>&1; then
  fail "find_package accepted libqz_cap 99.0"
fi
grep -q 'version: 1\.' "$work/newer.log" || fail "CMake said nothing useful: $(cat "$work/newer.log")"
echo "cmake: $(grep -m1 -A0 'not compatible\|version:' "$work/newer.log" | sed 's/^ *//')"

step "install over an older version"
# An older 1.x release: its real file and the links to it.
(cd "$libdir" && cp libqz_cap.so.1 libqz_cap.so.1.0.0-old && rm libqz_cap.so.1 &&
  mv libqz_cap.so.1.0.0-old libqz_cap.so.0.9.0 && ln -sf libqz_cap.so.0.9.0 libqz_cap.so.1)
cmake --install "$build" --prefix "$prefix" >/dev/null
[ "$(readlink "$libdir/libqz_cap.so.1")" = "libqz_cap.so.$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")" ] ||
  fail "libqz_cap.so.1 still points at $(readlink "$libdir/libqz_cap.so.1")"
rm "$libdir/libqz_cap.so.0.9.0"
run_consumer "$work/consumer-pc"

step "Debian packages"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/*.deb)
[ ${#debs[@]} -eq 3 ] || fail "expected 3 packages, got ${#debs[@]}"
for deb in "${debs[@]}"; do
  echo "--- $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Depends
  dpkg-deb -c "$deb" | awk '{ print $6, $7, $8 }'
done
expect() {  # package, path that must be in it
  dpkg-deb -c "$build/$1"_*.deb | awk '{ print $6 }' | grep -qx "./$2" || fail "$1 lacks $2"
}
expect libqz-cap1 "usr/$multiarch/libqz_cap.so.1"
expect libqz-cap1 "usr/$multiarch/libqz_mom.so.1"
expect libqz-cap1 "usr/$multiarch/libqz_proto.so.1"
expect libqz-cap-dev "usr/include/libqz_cap.h"
expect libqz-cap-dev "usr/include/libqz_cap_version.h"
expect libqz-cap-dev "usr/$multiarch/libqz_cap.so"
expect libqz-cap-dev "usr/$multiarch/pkgconfig/libqz_cap.pc"
expect libqz-cap-dev "usr/$multiarch/cmake/libqz_cap/libqz_capConfig.cmake"
expect libqz-cap-dev "usr/share/libqz_cap/proto/p_libpub.proto"
expect qzcap-tools "usr/bin/krilsh"
dpkg-deb -f "$build"/libqz-cap1_*.deb Depends | grep -q 'libhiredis' ||
  fail "libqz-cap1 does not depend on hiredis's runtime package"

step "lintian"
lintian "${debs[@]}" 2>&1 | grep -v '^running with root' | tee "$work/lintian.log" || true
if grep -q '^E:' "$work/lintian.log"; then
  fail "lintian reports errors"
fi
echo "lintian: $(grep -c '^E:' "$work/lintian.log") errors, $(grep -c '^W:' "$work/lintian.log") warnings"

step "consumer against the packages' contents"
rm -rf "$work/debroot"
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$work/debroot"; done
export PKG_CONFIG_PATH="$work/debroot/usr/$multiarch/pkgconfig"
cc -o "$work/consumer-deb" "$root/examples/consumer/consumer.c" \
  $(pkg-config --cflags --libs libqz_cap libqz_cap-platform) -pthread
libdir="$work/debroot/usr/$multiarch"
run_consumer "$work/consumer-deb"

echo "package-test: passed"
