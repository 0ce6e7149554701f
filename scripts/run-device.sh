#!/bin/sh
# Builds ostPmc and runs it in the foreground on a simulated device: a device root prepared
# from rootfs/ under build/device-root, selected with OSTPMC_SYSROOT. Ctrl-C stops it.
# Extra arguments go to ostPmc (default: -l 6).
set -eu
cd "$(dirname "$0")/.."

sh scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev --target ostPmc ostpmc-ctl -j "$(nproc 2>/dev/null || echo 2)"

root="$PWD/build/device-root"
rm -rf "$root"
mkdir -p "$root/var/run" "$root/dev"
cp -R rootfs/. "$root/"

echo "run-device: device root $root"
echo "run-device: ask it with: build/dev/tools/ostpmc-ctl status"
[ $# -gt 0 ] || set -- -l 6
OSTPMC_SYSROOT="$root" exec build/dev/app/ostPmc "$@"
