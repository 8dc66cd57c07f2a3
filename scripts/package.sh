#!/usr/bin/env bash
# Builds the Debian packages libpelmor2, libpelmor-dev and pelmor-tools into
# build/packages/, for this machine or, with "aarch64", cross-built for arm64,
# and runs lintian on them (every tag shown, down to pedantic; errors and
# warnings fail).
#
#   scripts/package.sh            amd64 (the build machine's architecture)
#   scripts/package.sh aarch64    arm64
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:-native}
deps=(debhelper dpkg-dev fakeroot lintian dh-python python3)
arch_opts=()
if [ "$target" = aarch64 ]; then
  # The target's own C and C++ runtimes, where dpkg-shlibdeps looks for them.
  deps+=(crossbuild-essential-arm64 libc6:arm64 libstdc++6:arm64 libgcc-s1:arm64)
  arch_opts=(-a arm64)
elif [ "$target" != native ]; then
  echo "usage: scripts/package.sh [aarch64]" >&2
  exit 2
fi
bash scripts/install-deps.sh "${deps[@]}"

# dpkg-buildpackage writes next to the source tree; build from a copy so that
# neither the tree nor its parent collects build output.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/pelmor"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$work/pelmor"
(cd "$work/pelmor" && DEB_BUILD_OPTIONS="nocheck parallel=2" dpkg-buildpackage -b -us -uc "${arch_opts[@]}" >"$work/build.log" 2>&1) ||
  { tail -40 "$work/build.log" >&2; exit 1; }

mkdir -p build/packages
cp "$work"/*.deb build/packages/
ls -l "$work"/*.deb | awk '{print $5, $9}' | sed "s|$work/|build/packages/|"
changes=$(ls "$work"/*.changes)
lintian --allow-root --display-info --pedantic --fail-on error,warning "$changes" || {
  echo "lintian found errors" >&2
  exit 1
}
