#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, if missing;
# extra packages (name or name:arch) may be given as arguments.
set -euo pipefail
packages=(cmake ninja-build g++ gcc pkgconf binutils libgtest-dev libgmock-dev googletest libbenchmark-dev clang libclang-rt-14-dev python3 python3-numpy "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  # Packages of another architecture (name:arch) need it enabled first.
  for p in "${missing[@]}"; do
    arch=${p#*:}
    if [ "$arch" != "$p" ] && ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
      $sudo_cmd dpkg --add-architecture "$arch"
    fi
  done
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
