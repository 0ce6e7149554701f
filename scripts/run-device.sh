#!/bin/sh
# Builds ostPmc and runs it in the foreground on a simulated device: a network of two
# grandmaster ptp4l instances (test-bed namespaces), the device's ptp4l started by the daemon
# through the shipped init script inside the device's namespace, the clock-driver stand-in,
# the system defaults and the daemon itself. The device's first request follows once the
# daemon answers. Neither this machine's interfaces nor its clock are ever touched; Ctrl-C
# takes all of it down. The pieces are scripts/sim-device.sh; faults: scripts/device-fault.sh.
set -eu
cd "$(dirname "$0")/.."

usage() {
    cat <<USAGE
usage: sh scripts/run-device.sh [options]

Builds ostPmc and runs it on a simulated device of this machine (needs root). Ctrl-C stops
all of it.

options:
  --profile NAME   the profile of the device's first request and of the network's
                   grandmasters: aes67 (AES67:Media), default (IEEE1588:Default),
                   smpte (SMPTE:2059-2, domain 127) or gptp (GPTP:L2, peer to peer: one
                   grandmaster only). Default: the one in rootfs/etc/ost/ptp-running-config.json
  --board N        the board model of the system defaults (default 2):
                     2         one PTP port; the daemon drives ptp4l through the init script
                     4, 5      WREN, FINCH: the same, with a 1 s pause after each restart
                     0, 1, 6, 7, 10..15
                               a second PTP port (a second link, to no grandmaster: that
                               port takes the master role)
                     3, 9      KESTREL, HERON: a second PTP port, and statistics. Debian's
                               ptp4l has no statistics data set: from the 4th status cycle
                               on, every cycle stops at that query, and the state machine
                               stays where it was (slave-unstable)
                     8         EGRET: the daemon neither runs the init script nor the clock
                               driver; ptp4l is started once, before the daemon, with the
                               profile's file (a profile change then waits for a restart)
  -l, --log-level N
                   the daemon's log level: 2 ERR 3 WRN 4 NTF 5 INF 6 DBG 7 VERBOSE
                   (default 6)
  --no-config      send no first request: the daemon waits for one, as on a device
  -h, --help       this text

for tests and scripts:
  --dir DIR        the device's folder (default build/device)
  --build DIR      run the programs built in DIR; install and build nothing
USAGE
}

fail() {
    echo "run-device: $*" >&2
    exit 1
}

profile=
board=2
level=6
config=1
dir=build/device
build=
while [ $# -gt 0 ]; do
    case "$1" in
    --profile | --board | -l | --log-level | --dir | --build)
        [ $# -ge 2 ] || fail "$1 needs a value; try --help"
        case "$1" in
        --profile) profile=$2 ;;
        --board) board=$2 ;;
        -l | --log-level) level=$2 ;;
        --dir) dir=$2 ;;
        --build) build=$2 ;;
        esac
        shift
        ;;
    --no-config) config=0 ;;
    -h | --help)
        usage
        exit 0
        ;;
    *) fail "unknown option '$1'; try --help" ;;
    esac
    shift
done
case "$board" in
[0-9] | 1[0-5]) ;;
*) fail "board model '$board' is not 0..15; try --help" ;;
esac
case "$level" in
[0-7]) ;;
*) fail "log level '$level' is not 0..7; try --help" ;;
esac
[ "$(id -u)" -eq 0 ] || fail "the simulated device needs root (network namespaces, FUSE)"

if [ -z "$build" ]; then
    sh scripts/install-deps.sh
    cmake --preset dev >/dev/null
    cmake --build --preset dev -j "$(nproc 2>/dev/null || echo 2)" \
        --target ostPmc ostpmc-ctl ostpmc_clockguard ostpmc-phc-standin
    build=build/dev
fi
ctl=$build/tools/ostpmc-ctl
# The daemon's ports are fixed: a second one could not serve.
if "$ctl" -t 1000 status >/dev/null 2>&1; then
    fail "an ostPmc already answers on 127.0.0.1:5573: stop it first (an earlier" \
        "simulated device: sh scripts/sim-device.sh down --dir $dir)"
fi

daemon_pid=
config_pid=
ran_daemon=0
cleanup() {
    trap - EXIT INT TERM HUP
    set +e
    for pid in $config_pid $daemon_pid; do
        kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    sh scripts/sim-device.sh down --dir "$dir" >/dev/null 2>&1
    echo "run-device: stopped; nothing of the simulated device is left running"
    [ "$ran_daemon" = 0 ] ||
        echo "run-device: (the daemon's 'system call failed' lines after each restart and" \
            "at its stop are no fault: see README.md)"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

sh scripts/sim-device.sh up --dir "$dir" --build "$build" --board "$board" --owner $$ \
    ${profile:+--profile "$profile"}
bed=$dir/bed
ns() { sed -n "s/^$1=//p" "$bed/bed.env"; }
device_profile=$(sed -n 's/^PROFILE=//p' "$dir/device.env")
where=
[ "$dir" = build/device ] || where=" --dir $dir"

echo "run-device: the simulated device (board $board, profile $device_profile):"
if [ -n "$(ns GM2_NS)" ]; then
    echo "    grandmaster in charge  priority1 100, namespace $(ns GM_NS)"
    echo "    second grandmaster     priority1 110, namespace $(ns GM2_NS)"
else
    echo "    grandmaster            priority1 100, namespace $(ns GM_NS)"
fi
echo "    the device's ptp4l     namespace $(ns SL_NS), log $dir/root/var/log/ptp4l.log"
echo "    the device root        $dir/root"
if [ "$config" = 1 ]; then
    echo "run-device: once the daemon answers, the device's first request follows (the running"
    echo "    configuration in $dir/root/etc/ost/ptp-running-config.json); within a few seconds"
    echo "    the state machine reaches slave-stable."
else
    echo "run-device: no first request (--no-config): the daemon waits for one, as on a device:"
    echo "    $ctl apply $dir/root/etc/ost/ptp-running-config.json"
fi
echo "run-device: next, in another terminal in $PWD:"
next() { printf '    %-45s # %s\n' "$1" "$2"; }
next "$ctl status" "what the daemon last read from ptp4l"
next "$ctl watch" "the state machine's notifications"
next "sh scripts/device-fault.sh$where gm-stop" "a fault (--help lists them all)"
next "$ctl set priority1=90" "the device wins the election"
echo "run-device: Ctrl-C stops all of it. The daemon's log follows."

sh scripts/sim-device.sh daemon --dir "$dir" -l "$level" &
daemon_pid=$!
ran_daemon=1
if [ "$config" = 1 ]; then
    sh scripts/sim-device.sh first-config --dir "$dir" &
    config_pid=$!
fi
status=0
wait "$daemon_pid" || status=$?
daemon_pid=
echo "run-device: the daemon exited (status $status)"
exit "$status"
