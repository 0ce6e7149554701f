#!/bin/sh
# Installs, from Debian's packages only, what building and testing ostPmc needs.
# Does nothing when everything is already there.
set -eu

PACKAGES="g++ cmake ninja-build pkg-config libzmq3-dev cppzmq-dev libjsoncpp-dev \
libgtest-dev libgmock-dev libbenchmark-dev linuxptp iproute2 util-linux \
clang libclang-rt-14-dev clang-format fuse3 libfuse3-dev"

missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
        missing="$missing $p"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages:$missing (run as root to install them)" >&2
    exit 1
fi
echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing >/dev/null
