#!/bin/sh
# Builds ostPmc and runs it in the foreground on a simulated device. The device root is
# build/device-root (a copy of rootfs/, selected with OSTPMC_SYSROOT); its init script runs
# ptp4l inside a network namespace of the test bed (build/device-bed), linked to a grandmaster
# in another one, without CAP_SYS_TIME and with the clock guard, so that neither this
# machine's interfaces nor its clock are ever touched. The clock-driver stand-in serves the
# device's /dev/ostphc. Ctrl-C stops the daemon (which stops its ptp4l) and takes the rest
# down. Extra arguments go to ostPmc (default: -l 6).
set -eu
cd "$(dirname "$0")/.."
top=$PWD

sh scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$(nproc 2>/dev/null || echo 2)" \
    --target ostPmc ostpmc-ctl ostpmc_clockguard ostpmc-phc-standin

root=$top/build/device-root
bed=$top/build/device-bed
guard=$top/build/dev/testbed/libostpmc_clockguard.so
standin=$top/build/dev/testbed/ostpmc-phc-standin
export OSTPMC_CLOCKGUARD="$guard"

# What an earlier run left behind.
[ -f "$bed/bed.env" ] && sh testbed/ptp4l-bed.sh down "$bed" >/dev/null 2>&1
rm -rf "$root" "$bed"
mkdir -p "$root/var/run" "$root/var/log" "$root/dev"
cp -R rootfs/. "$root/"
# A board with one PTP port: the device's ptp4l has the one link to the grandmaster.
cat >"$root/etc/ost/system-defaults.json" <<DEFAULTS
{"boardModel": 2, "clockOffsetFromMasterThreshold": 1500.0, "redundancyEnable": false}
DEFAULTS

standin_pid=
daemon_pid=
cleanup() {
    trap - EXIT INT TERM
    [ -z "$daemon_pid" ] || { kill -TERM "$daemon_pid" 2>/dev/null; wait "$daemon_pid" 2>/dev/null; }
    [ -z "$standin_pid" ] || { kill -TERM "$standin_pid" 2>/dev/null; wait "$standin_pid" 2>/dev/null; }
    sh testbed/ptp4l-bed.sh down "$bed" >/dev/null 2>&1 || true
    echo "run-device: stopped; nothing left running"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

sh testbed/ptp4l-bed.sh up "$bed" --no-slave --owner $$ >/dev/null
sl_ns=$(sed -n 's/^SL_NS=//p' "$bed/bed.env")
sl_if=$(sed -n 's/^SL_IF=//p' "$bed/bed.env")
cat >"$root/etc/default/ptp4ld" <<SETTINGS
# Written by run-device.sh: ptp4l runs on the simulated device's link, inside its namespace.
PTP4L_INTERFACES="$sl_if"
PTP4L_PREFIX="ip netns exec $sl_ns setpriv --inh-caps=-sys_time --bounding-set=-sys_time env LD_PRELOAD=$guard"
PTP4L_OPTIONS="--time_stamping=software --pi_proportional_scale=0.7 --pi_integral_scale=0.3 -m -q"
PTP4L_LOG="$root/var/log/ptp4l.log"
SETTINGS

"$standin" "$root/dev" --record "$root/var/log/ostphc.log" &
standin_pid=$!
tries=0
until [ -e "$root/dev/ostphc" ]; do
    tries=$((tries + 1))
    [ $tries -le 50 ] || { echo "run-device: the clock-driver stand-in did not start" >&2; exit 1; }
    sleep 0.1
done

echo "run-device: device root $root; grandmaster in namespace ${sl_ns%-sl}-gm"
echo "run-device: ask it with: build/dev/tools/ostpmc-ctl status"
[ $# -gt 0 ] || set -- -l 6
OSTPMC_SYSROOT="$root" build/dev/app/ostPmc "$@" &
daemon_pid=$!
wait "$daemon_pid" || true
daemon_pid=
