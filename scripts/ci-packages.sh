#!/usr/bin/env bash
# The packages on this machine: builds the amd64 packages, checks what each
# holds, installs them with dpkg, builds the README's minimal client against the
# installed copy with pkg-config and with find_package(pelmor), runs both on the
# virtual board, removes and purges the packages and checks the machine is as it
# was. Then builds the arm64 packages, checks what each holds and that every ELF
# file in them is arm64.
# Needs the default build (scripts/test.sh) for the virtual board.
set -euo pipefail
cd "$(dirname "$0")/.."
board=$(ls build/default/vboard/libpelmor_vboard.so* 2>/dev/null | head -n1)
[ -n "$board" ] || { echo "ci-packages: build the default preset first (scripts/test.sh)" >&2; exit 1; }

bash scripts/package.sh
arch=$(dpkg --print-architecture)
debs=(build/packages/libpelmor2_*_"$arch".deb build/packages/libpelmor-dev_*_"$arch".deb
      build/packages/pelmor-tools_*_"$arch".deb)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What each package must hold, by dpkg-deb -c.
check_contents() { # architecture
  local arch=$1 multiarch listing missing=()
  multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
  local -A expect=(
    [libpelmor2]="usr/lib/$multiarch/libpelmor.so.2 usr/lib/udev/rules.d/60-pelmor.rules"
    [libpelmor-dev]="usr/include/pelmor.h usr/lib/$multiarch/libpelmor.so usr/lib/$multiarch/pkgconfig/pelmor.pc
                     usr/lib/$multiarch/cmake/pelmor/pelmorConfig.cmake"
    [pelmor-tools]="usr/bin/pelmor-stream usr/bin/pelmor-timing-report usr/bin/pelmor-check
                    usr/lib/python3/dist-packages/pelmor/__init__.py
                    usr/share/doc/pelmor-tools/examples/pelmor-client.service usr/share/doc/pelmor-tools/DEPLOYMENT.md.gz"
  )
  for package in "${!expect[@]}"; do
    listing=$(dpkg-deb -c build/packages/"${package}"_*_"$arch".deb | awk '{print $6}')
    for path in ${expect[$package]}; do
      grep -qxF "./$path" <<<"$listing" || missing+=("$package: $path")
    done
  done
  [ ${#missing[@]} -eq 0 ] || { printf 'ci-packages: missing %s\n' "${missing[@]}" >&2; exit 1; }
}

machine_state() {
  dpkg-query -W -f='${Package} ${Status}\n' | grep -v ' not-installed$' | sort
  getent group pelmor || true
  find /usr/include /usr/lib /usr/bin -name '*pelmor*' 2>/dev/null | sort
}
check_contents "$arch"
machine_state >"$work/before"

dpkg -i "${debs[@]}" || DEBIAN_FRONTEND=noninteractive apt-get -f install -y -qq
getent group pelmor >/dev/null || { echo "ci-packages: the group pelmor was not created" >&2; exit 1; }
pelmor-stream --version >/dev/null

run_client() {
  local exe=$1 out
  out=$(tools/pelmor-vboard --board "$board" -- "$exe" 30 1 2>&1) || { echo "$out" >&2; exit 1; }
  grep -q '^#0 mapped=' <<<"$out" || { echo "client $exe delivered nothing:" >&2; echo "$out" >&2; exit 1; }
}
cc -std=c99 -Wall -Werror -o "$work/client_pc" examples/stream_samples.c $(pkg-config --cflags --libs pelmor)
run_client "$work/client_pc"
mkdir -p "$work/consumer"
cat >"$work/consumer/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(pelmor_consumer C)
find_package(pelmor 1.1 REQUIRED)
add_executable(client "$PWD/examples/stream_samples.c")
target_link_libraries(client PRIVATE pelmor::pelmor)
CM
cmake -S "$work/consumer" -B "$work/consumer/build" -G Ninja >/dev/null
cmake --build "$work/consumer/build" >/dev/null
run_client "$work/consumer/build/client"
# The installed board check passes on a healthy board (a run whose clock brackets
# a loaded machine stretched is tried again).
checked=no
for _ in 1 2 3; do
  tools/pelmor-vboard --board "$board" -- pelmor-check >"$work/check" || true
  # A machine that refuses real-time priority itself fails only that check.
  if ! grep -v '^FAIL realtime:' "$work/check" | grep -q '^FAIL'; then checked=yes; break; fi
done
[ $checked = yes ] || { cat "$work/check" >&2; echo "ci-packages: pelmor-check failed on the virtual board" >&2; exit 1; }
# The installed Python module, over the installed library.
tools/pelmor-vboard --board "$board" -- /usr/bin/python3 -c \
  'import pelmor
with pelmor.Driver(rate_hz=30) as imu:
    assert [s.sample_index for s in imu.samples(count=5)] == [0, 1, 2, 3, 4]' 2>"$work/py" ||
  { cat "$work/py" >&2; echo "ci-packages: the installed Python module failed" >&2; exit 1; }

dpkg -r pelmor-tools libpelmor-dev libpelmor2 >/dev/null
# Only the library keeps something after a removal: its group, which a purge takes.
dpkg -P libpelmor2 >/dev/null
machine_state >"$work/after"
diff -u "$work/before" "$work/after" || { echo "ci-packages: the machine is not as it was" >&2; exit 1; }
echo "packages: installed, used by pkg-config and find_package clients on the virtual board, removed"

bash scripts/package.sh aarch64
check_contents arm64
for deb in build/packages/*_arm64.deb; do
  mkdir "$work/x" && dpkg-deb -x "$deb" "$work/x"
  while IFS= read -r -d '' f; do
    if head -c 4 "$f" | grep -q $'^\x7fELF'; then
      machine=$(readelf -h "$f" 2>/dev/null | awk -F: '/Machine:/ {gsub(/^ +/, "", $2); print $2}')
      [ "$machine" = AArch64 ] || { echo "ci-packages: $deb: $f is $machine" >&2; exit 1; }
    fi
  done < <(find "$work/x" -type f -print0)
  rm -rf "$work/x"
done
echo "arm64 packages: the files each must hold, and every ELF file AArch64"
