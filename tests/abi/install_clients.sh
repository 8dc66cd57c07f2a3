#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and builds the example client
# against it twice: with pkg-config and with find_package(pelmor). Each client must
# run and fail to start cleanly (no sensor here).
set -euo pipefail
# EMULATOR (optional): the command line that runs a cross-built program here.
build=$1 src=$2 cc=$3 cflags=${4:-}
read -ra emulator <<< "${5:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libpelmor.so.2 | head -n1)")
[ -L "$libdir/libpelmor.so" ] && [ -L "$libdir/libpelmor.so.2" ] || { echo "missing soname links" >&2; exit 1; }
[ -f "$prefix/include/pelmor.h" ] || { echo "missing header" >&2; exit 1; }

check_client() {
  local exe=$1 out rc=0
  out=$(env -u LD_PRELOAD LD_LIBRARY_PATH="$libdir" "${emulator[@]}" "$exe" 30 1 2>&1) || rc=$?
  if [ "$rc" -ne 2 ] || ! grep -q '^ICM-42688 start failed: failed to open SPI device /dev/spidev2.0, errno=2' <<<"$out"; then
    echo "client $exe: rc=$rc output:" >&2; echo "$out" >&2; exit 1
  fi
}

# pkg-config
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
"$cc" $cflags -std=c99 -o "$work/client_pc" "$src/examples/stream_samples.c" $(pkg-config --cflags --libs pelmor)
check_client "$work/client_pc"

# find_package
mkdir -p "$work/consumer"
cat >"$work/consumer/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(pelmor_consumer C)
find_package(pelmor 1.1 REQUIRED)
add_executable(client "$src/examples/stream_samples.c")
target_link_libraries(client PRIVATE pelmor::pelmor)
CM
cmake -S "$work/consumer" -B "$work/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" -DCMAKE_EXE_LINKER_FLAGS="$cflags" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
check_client "$work/consumer/build/client"
echo "install ok: pkg-config and find_package clients built and ran"
