#!/bin/sh
# device-fault.sh: the faults of a real network, injected into a running simulated device
# (run-device.sh). Each fault says what the device should do next.
#
#   device-fault.sh [--dir DIR] FAULT        (DIR: the device's folder, default build/device)
#
# Only the simulated device's own processes and interfaces are touched: the grandmasters and
# the device's ptp4l by the pids their pid files name, the link inside the bed's namespaces.

set -u

top=$(cd "$(dirname "$0")/.." && pwd)
BED_SCRIPT=$top/testbed/ptp4l-bed.sh
# priority1 of the first grandmaster: in charge, or below the second one (110) after a switch.
GM_IN_CHARGE=100
GM_STANDING_BACK=120

usage() {
    cat <<USAGE
usage: device-fault.sh [--dir DIR] FAULT

faults of the simulated device's network (DIR: its folder, default build/device):
  gm-stop       the grandmasters stop answering (SIGSTOP); the device should take the
                master role after its announce time-out
  gm-cont       they go on (SIGCONT); the device should follow the grandmaster again
  link-down     the device's link is cut; ptp4l's port should fault at once
  link-up       the link is back; the device should follow the grandmaster again
  ptp4l-kill    the device's ptp4l is killed (SIGKILL); after 10 silent status cycles the
                daemon should report that no PTP port is usable
  ptp4l-start   the device's ptp4l starts again through its init script
  ptp4l-stop    the device's ptp4l stops answering (SIGSTOP); each status cycle waits out
                its queries, and after 10 failed cycles the daemon reports no usable port
  ptp4l-cont    it goes on (SIGCONT)
  gm-switch     the grandmaster in charge gets a worse priority1, so that the second one
                wins (again: back to the first); the device should follow the new one
  status        what runs, which grandmaster is in charge, the link
USAGE
}

fail() {
    echo "device-fault: $*" >&2
    exit 1
}

# What the device should do next, from now on.
expect() {
    echo "device-fault: expect: $*"
}

is_number() {
    case "$1" in
    '' | *[!0-9]*) return 1 ;;
    *) return 0 ;;
    esac
}

env_value() {
    sed -n "s/^$2=//p" "$1" 2>/dev/null | tail -n 1
}

cfg_value() {
    awk -v key="$2" '$1 == key { value = $2 } END { print value }' "$1" 2>/dev/null
}

# The process state letter (R, S, T, ...) of a running ptp4l, nothing when it is not one.
ptp4l_state() {
    is_number "$1" || return 1
    [ "$(cat "/proc/$1/comm" 2>/dev/null)" = ptp4l ] || return 1
    state=$(sed -n 's/^.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ] && echo "$state"
}

load() {
    [ -f "$DIR/device.env" ] && [ -f "$DIR/bed/bed.env" ] ||
        fail "no simulated device runs in $DIR (start one with: sh scripts/run-device.sh)"
    BED=$DIR/bed
    ROOT=$DIR/root
    GM_NS=$(env_value "$BED/bed.env" GM_NS)
    GM2_NS=$(env_value "$BED/bed.env" GM2_NS)
    LINK_IF=$(env_value "$BED/bed.env" LINK_IF)
    case "$GM_NS" in ostpmc-*-gm) ;; *) fail "$BED/bed.env names no bed of ours" ;; esac
    [ -n "$LINK_IF" ] || fail "$BED/bed.env names no link"
    GUARD=$(env_value "$BED/bed.env" GUARD)
    PROFILE_CFG=$ROOT/etc/ptp/ptpProfile.cfg
}

# The clock identity ptp4l takes from an interface's MAC address, as the daemon prints it.
clock_id() {
    ip -n "$1" -o link show dev "$2" 2>/dev/null |
        sed -n 's/.*link\/ether \(..\):\(..\):\(..\):\(..\):\(..\):\(..\).*/\1-\2-\3-ff-fe-\4-\5-\6/p'
}

gm_id() { clock_id "$GM_NS" gm0; }
gm2_id() { clock_id "$GM2_NS" gm2; }

# The lower priority1 wins (the two never share one: 100 or 120 against 110).
first_in_charge() {
    [ -z "$GM2_NS" ] ||
        [ "$(cfg_value "$BED/gm.cfg" priority1)" -lt "$(cfg_value "$BED/gm2.cfg" priority1)" ]
}

# The device's announce time-out in seconds: announceReceiptTimeout announce intervals of
# the profile ptp4l runs with.
announce_timeout() {
    interval=$(cfg_value "$PROFILE_CFG" logAnnounceInterval)
    count=$(cfg_value "$PROFILE_CFG" announceReceiptTimeout)
    awk -v i="${interval:-1}" -v n="${count:-3}" 'BEGIN { printf "%g", n * 2 ^ i }'
}

device_ptp4l() {
    pid=$(cat "$ROOT/var/run/ptp4l.pid" 2>/dev/null)
    ptp4l_state "$pid" >/dev/null && echo "$pid"
}

signal_gms() {
    for role in gm gm2; do
        pid=$(cat "$BED/$role.pid" 2>/dev/null)
        ptp4l_state "$pid" >/dev/null && kill "-$1" "$pid"
    done
}

fault_gm_stop() {
    signal_gms STOP
    echo "device-fault: the grandmasters are stopped (SIGSTOP); 'gm-cont' lets them go on"
    expect "ptp4l's port takes the master role after the announce time-out, about" \
        "$(announce_timeout) s with this profile; the state machine goes to 'master'" \
        "(from slave-stable with action reset-rtp-ts)"
}

fault_gm_cont() {
    signal_gms CONT
    echo "device-fault: the grandmasters go on (SIGCONT)"
    expect "ptp4l follows the grandmaster again within a few seconds; the state machine" \
        "leaves 'master' with action mute-all (to 'slave-unstable', or to 'failure' when a" \
        "status cycle catches the port between roles), then reaches 'slave-stable' (action" \
        "resume-all)"
}

fault_link() {
    ip -n "$GM_NS" link set "$LINK_IF" "$1" || fail "cannot set the link $1"
    if [ "$1" = down ]; then
        echo "device-fault: the device's link is cut ('link-up' restores it)"
        expect "ptp4l's port goes FAULTY at once; within a second the state machine goes" \
            "to 'failure' (action mute-all)"
    else
        echo "device-fault: the device's link is back"
        expect "ptp4l follows the grandmaster again within a few seconds: 'slave-unstable'," \
            "then 'slave-stable' (action resume-all)"
    fi
}

fault_ptp4l_kill() {
    pid=$(device_ptp4l) || fail "the device's ptp4l does not run"
    kill -KILL "$pid"
    echo "device-fault: the device's ptp4l (pid $pid) is killed; 'ptp4l-start' starts it again"
    expect "every status cycle fails from now on; after 10 of them (10 s) the daemon tells" \
        "the state machine that no PTP port is usable: 'failure' (action mute-all)"
}

fault_ptp4l_signal() {
    pid=$(device_ptp4l) || fail "the device's ptp4l does not run"
    kill "-$1" "$pid"
    if [ "$1" = STOP ]; then
        echo "device-fault: the device's ptp4l (pid $pid) is stopped (SIGSTOP); 'ptp4l-cont' lets it go on"
        expect "every status cycle fails after waiting for its replies (about 2 s each); after" \
            "10 of them the state machine goes to 'failure' (action mute-all)"
    else
        echo "device-fault: the device's ptp4l (pid $pid) goes on (SIGCONT)"
        expect "the status cycle reads it again at once; after a 'failure' the state machine" \
            "goes 'slave-unstable', then 'slave-stable' (action resume-all)"
    fi
}

fault_ptp4l_start() {
    if pid=$(device_ptp4l); then
        fail "the device's ptp4l runs already (pid $pid)"
    fi
    OSTPMC_SYSROOT=$ROOT sh "$ROOT/etc/S60ptp4ld" start >/dev/null ||
        fail "the init script could not start ptp4l (log: $ROOT/var/log/ptp4l.log)"
    echo "device-fault: the device's ptp4l runs again (pid $(device_ptp4l)), started by its init script"
    expect "the status cycle reads it again within a few seconds: 'slave-unstable', then" \
        "'slave-stable' (action resume-all)"
}

fault_gm_switch() {
    [ -n "$GM2_NS" ] ||
        fail "this network has one grandmaster: a peer-to-peer profile (gPTP) has one neighbour per link"
    if first_in_charge; then
        value=$GM_STANDING_BACK
        winner="the second grandmaster ($(gm2_id), priority1 $(cfg_value "$BED/gm2.cfg" priority1))"
    else
        value=$GM_IN_CHARGE
        winner="the first grandmaster ($(gm_id), priority1 $GM_IN_CHARGE)"
    fi
    OSTPMC_CLOCKGUARD=$GUARD sh "$BED_SCRIPT" priority "$BED" gm "$value" >/dev/null ||
        fail "the first grandmaster did not restart"
    echo "device-fault: the first grandmaster's priority1 is now $value (its ptp4l restarted" \
        "with it); $winner wins"
    expect "ptp4l follows it within about 2 s; the state machine goes 'slave-unstable' with" \
        "the new gmid (no notification), then 'slave-stable' (action resume-all, the new" \
        "gmid). When a status cycle catches the port between roles, the way leads through" \
        "'failure' (mute-all), or through 'master' with an announce time-out under 2 s" \
        "(this profile: $(announce_timeout) s)"
}

describe_gm() {
    pid=$(cat "$BED/$1.pid" 2>/dev/null)
    case "$(ptp4l_state "$pid")" in
    '') what="not running" ;;
    T) what="stopped (pid $pid)" ;;
    *) what="running (pid $pid)" ;;
    esac
    echo "  $2  $3  priority1 $(cfg_value "$BED/$1.cfg" priority1)  $what"
}

fault_status() {
    echo "device-fault: the simulated device in $DIR"
    if [ -n "$GM2_NS" ]; then
        in_charge=second
        first_in_charge && in_charge=first
        describe_gm gm "first grandmaster " "$(gm_id)"
        describe_gm gm2 "second grandmaster" "$(gm2_id)"
        echo "  the $in_charge grandmaster is in charge (the lower priority1 wins)"
    else
        describe_gm gm "grandmaster" "$(gm_id)"
    fi
    if pid=$(device_ptp4l); then
        what=running
        [ "$(ptp4l_state "$pid")" != T ] || what=stopped
        echo "  device ptp4l  $what (pid $pid), log $ROOT/var/log/ptp4l.log"
    else
        echo "  device ptp4l  not running"
    fi
    if ip -n "$GM_NS" -o link show dev "$LINK_IF" 2>/dev/null | grep -q '[<,]UP[,>]'; then
        echo "  device link   up"
    else
        echo "  device link   down"
    fi
}

DIR=$top/build/device
fault=
while [ $# -gt 0 ]; do
    case "$1" in
    -h | --help)
        usage
        exit 0
        ;;
    --dir)
        [ $# -ge 2 ] || fail "--dir needs a folder; try --help"
        DIR=$2
        shift
        ;;
    -*) fail "unknown option '$1'; try --help" ;;
    *)
        [ -z "$fault" ] || fail "one fault at a time; try --help"
        fault=$1
        ;;
    esac
    shift
done
[ -n "$fault" ] || fail "no fault given; try --help"
[ ! -d "$DIR" ] || DIR=$(cd "$DIR" && pwd -P)

case "$fault" in
gm-stop | gm-cont | link-down | link-up | ptp4l-kill | ptp4l-start | ptp4l-stop | ptp4l-cont) ;;
gm-switch | status) ;;
*) fail "unknown fault '$fault'; try --help" ;;
esac
load
case "$fault" in
gm-stop) fault_gm_stop ;;
gm-cont) fault_gm_cont ;;
link-down) fault_link down ;;
link-up) fault_link up ;;
ptp4l-kill) fault_ptp4l_kill ;;
ptp4l-start) fault_ptp4l_start ;;
ptp4l-stop) fault_ptp4l_signal STOP ;;
ptp4l-cont) fault_ptp4l_signal CONT ;;
gm-switch) fault_gm_switch ;;
status) fault_status ;;
esac
