#!/bin/sh
# sim-device.sh: the pieces of the simulated device that run-device.sh puts together, one
# command each, so that tests and other scripts can run them one at a time.
#
#   sim-device.sh up [--dir DIR] [--build DIR] [--profile NAME] [--board N] [--owner PID]
#       the network (test bed: two grandmasters, or one on a peer-to-peer profile), the device
#       root with its init-script settings and system defaults, the clock-driver stand-in
#   sim-device.sh daemon [--dir DIR] [ostPmc arguments]
#       runs ostPmc on the device root, in the foreground (exec: its pid is the caller's)
#   sim-device.sh first-config [--dir DIR]
#       waits for the daemon, then sends the device's first request: the running configuration
#       in DIR/root/etc/ost/ptp-running-config.json, as the device's configuration service does
#   sim-device.sh down [--dir DIR]
#       ends whatever of the device still runs (daemon, ptp4l, stand-in, network)
#
# DIR (default build/device) holds root/ (the device root, a copy of rootfs/), bed/ (the test
# bed) and device.env (what up made, for the other pieces). --build names the build folder
# whose programs run (default build/dev). Nothing is made outside DIR but the bed's network
# namespaces and the stand-in's mount on DIR/root/dev; down removes both.

set -u

top=$(cd "$(dirname "$0")/.." && pwd)
BED_SCRIPT=$top/testbed/ptp4l-bed.sh
ANSWER_WAIT_SECONDS=15 # the daemon answers well within this after its start
STOP_WAIT_TENTHS=50
THRESHOLD_NS=100000.0

say() { echo "sim-device: $*"; }
fail() {
    echo "sim-device: $*" >&2
    exit 1
}

usage() {
    cat >&2 <<USAGE
usage: $0 up [--dir DIR] [--build DIR] [--profile NAME] [--board N] [--owner PID]
       $0 daemon [--dir DIR] [ostPmc arguments]
       $0 first-config [--dir DIR]
       $0 down [--dir DIR]
USAGE
    exit 2
}

is_number() {
    case "$1" in
    '' | *[!0-9]*) return 1 ;;
    *) return 0 ;;
    esac
}

# A zombie counts as gone.
alive() {
    is_number "$1" || return 1
    state=$(sed -n 's/^.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}

# Only a pid that still runs the named program is ours to signal: pid files outlive processes.
runs() {
    alive "$1" && [ "$(cat "/proc/$1/comm" 2>/dev/null)" = "$2" ]
}

# Sends SIGTERM to pid $1 while it runs program $2, SIGKILL when it has not gone in 5 s.
end_program() {
    runs "$1" "$2" || return 0
    kill -TERM "$1" 2>/dev/null
    tenths=0
    while runs "$1" "$2"; do
        if [ $tenths -ge $STOP_WAIT_TENTHS ]; then
            kill -KILL "$1" 2>/dev/null
            sleep 0.1
            return 0
        fi
        sleep 0.1
        tenths=$((tenths + 1))
    done
}

absolute() {
    case "$1" in
    /*) echo "$1" ;;
    *) echo "$PWD/$1" ;;
    esac
}

# Values of a key=value file.
env_value() {
    sed -n "s/^$2=//p" "$1" 2>/dev/null | tail -n 1
}

# The last value of a setting in a ptp4l configuration file.
cfg_value() {
    awk -v key="$2" '$1 == key { value = $2 } END { print value }' "$1"
}

# The profile's canonical name and its file, from any name the daemon takes for it.
profile_file() {
    case "$1" in
    AES67:Media | aes67) echo "AES67:Media ptpAesProfile.cfg" ;;
    IEEE1588:Default | AES67:Default | default) echo "IEEE1588:Default ptpDefaultProfile.cfg" ;;
    SMPTE:2059-2 | smpte) echo "SMPTE:2059-2 ptpSmpteProfile.cfg" ;;
    GPTP:L2 | gptp) echo "GPTP:L2 ptpAvbProfile.cfg" ;;
    *) return 1 ;;
    esac
}

# The number of PTP ports the daemon reads on a board (its further interfaces plus the first),
# with redundancy off as the simulated defaults have it.
board_ports() {
    case "$1" in
    2 | 4 | 5 | 8) echo 1 ;;
    0 | 1 | 3 | 6 | 7 | 9 | 1[0-5]) echo 2 ;;
    *) return 1 ;;
    esac
}

board_name() {
    case "$1" in
    3) echo " (KESTREL)" ;;
    4) echo " (WREN)" ;;
    5) echo " (FINCH)" ;;
    8) echo " (EGRET)" ;;
    9) echo " (HERON)" ;;
    esac
}

parse_dir_only() {
    while [ $# -gt 0 ]; do
        case "$1" in
        --dir) DIR=${2:?--dir needs a folder}; shift ;;
        *) usage ;;
        esac
        shift
    done
}

# DIR as the kernel shows mount points: absolute, without symbolic links.
resolve_dir() {
    [ ! -d "$DIR" ] || DIR=$(cd "$DIR" && pwd -P)
}

load_device() {
    resolve_dir
    ENV=$DIR/device.env
    [ -f "$ENV" ] || fail "no simulated device in $DIR (start one with run-device.sh)"
    BUILD=$(env_value "$ENV" BUILD)
    ROOT=$DIR/root
    BED=$DIR/bed
    CTL=$BUILD/tools/ostpmc-ctl
}

# What a device of an earlier owner left: taken down when the owner is gone, refused if not.
clear_earlier() {
    [ -f "$DIR/device.env" ] || return 0
    owner=$(env_value "$DIR/device.env" OWNER)
    if alive "$owner" && [ "$owner" != "$OWNER" ]; then
        fail "a simulated device already runs in $DIR (owner pid $owner): stop it first"
    fi
    cmd_down >/dev/null 2>&1
}

# The profile the first request names: --profile replaces it in the root's copy.
choose_profile() {
    request=$ROOT/etc/ost/ptp-running-config.json
    [ -r "$request" ] || fail "$request is missing"
    named=$(sed -n 's/.*"profile"[[:space:]]*:[[:space:]]*"\([^"]*\)".*/\1/p' "$request" | head -n 1)
    if [ -n "$PROFILE" ]; then
        known=$(profile_file "$PROFILE") ||
            fail "unknown profile '$PROFILE' (aes67, default, smpte or gptp)"
        [ -n "$named" ] || fail "$request names no profile for --profile to replace"
        PROFILE=${known% *}
        sed -i "s/\"profile\"[[:space:]]*:[[:space:]]*\"[^\"]*\"/\"profile\": \"$PROFILE\"/" \
            "$request"
    else
        known=$(profile_file "$named") ||
            fail "$request names the profile '$named', which the simulated network does not know"
        PROFILE=${known% *}
    fi
    PROFILE_FILE=${known#* }
}

# The grandmasters speak the profile's transport: the lines of its file that decide how
# messages travel. Their timing stays the bed's own (fast, so that the device locks soon).
gm_options() {
    cfg=$ROOT/etc/ptp/$PROFILE_FILE
    awk '$1 ~ /^(network_transport|delay_mechanism|transportSpecific|ptp_dst_mac|p2p_dst_mac|follow_up_info|assume_two_step|gmCapable|path_trace_enabled)$/ {
             printf "--gm-extra\n%s %s\n", $1, $2 }' "$cfg"
}

# The system defaults: the board, and a stability threshold for software time stamps, whose
# offsets on veth wander by microseconds with spikes of tens (hardware stamps: nanoseconds).
write_root() {
    rm -rf "$ROOT"
    mkdir -p "$ROOT/var/run" "$ROOT/var/log" "$ROOT/dev" || fail "cannot create $ROOT"
    cp -R "$top/rootfs/." "$ROOT/" || fail "cannot copy rootfs/ to $ROOT"
    cat >"$ROOT/etc/ost/system-defaults.json" <<DEFAULTS
{"boardModel": $BOARD, "clockOffsetFromMasterThreshold": $THRESHOLD_NS, "redundancyEnable": false}
DEFAULTS
}

# The init script's settings: ptp4l on the device's links, inside the device's namespace,
# without CAP_SYS_TIME and with the clock guard; software time stamps (veth has no others),
# the bed's fast servo, and a neighbour delay limit that software stamps can meet (gPTP).
write_settings() {
    interfaces=$(env_value "$BED/bed.env" SL_IF)
    [ "$PORTS" = 1 ] || interfaces="$interfaces sl1"
    cat >"$ROOT/etc/default/ptp4ld" <<SETTINGS
# Written by sim-device.sh: ptp4l runs on the simulated device's links, inside its namespace.
PTP4L_INTERFACES="$interfaces"
PTP4L_PREFIX="ip netns exec $SL_NS setpriv --inh-caps=-sys_time --bounding-set=-sys_time env LD_PRELOAD=$GUARD"
PTP4L_OPTIONS="--time_stamping=software --pi_proportional_scale=0.7 --pi_integral_scale=0.3 --neighborPropDelayThresh=100000000 -m -q"
PTP4L_LOG="$ROOT/var/log/ptp4l.log"
SETTINGS
}

start_standin() {
    "$BUILD/testbed/ostpmc-phc-standin" "$ROOT/dev" --record "$ROOT/var/log/ostphc.log" \
        </dev/null >>"$ROOT/var/log/ostphc-standin.log" 2>&1 &
    echo "STANDIN_PID=$!" >>"$DIR/device.env"
    tries=0
    until [ -e "$ROOT/dev/ostphc" ]; do
        tries=$((tries + 1))
        if [ $tries -gt 50 ]; then
            cat "$ROOT/var/log/ostphc-standin.log" >&2
            fail "the clock-driver stand-in did not start"
        fi
        sleep 0.1
    done
}

cmd_up() {
    BUILD=$top/build/dev
    PROFILE=
    BOARD=2
    OWNER=$PPID
    while [ $# -gt 0 ]; do
        case "$1" in
        --dir) DIR=${2:?--dir needs a folder}; shift ;;
        --build) BUILD=${2:?--build needs a folder}; shift ;;
        --profile) PROFILE=${2:?--profile needs a name}; shift ;;
        --board) BOARD=${2:?--board needs a number}; shift ;;
        --owner) OWNER=${2:?--owner needs a pid}; shift ;;
        *) usage ;;
        esac
        shift
    done
    is_number "$OWNER" || fail "owner '$OWNER' is not a pid"
    PORTS=$(board_ports "$BOARD") || fail "board model '$BOARD' is not 0..15"
    BUILD=$(absolute "$BUILD")
    GUARD=$BUILD/testbed/libostpmc_clockguard.so
    for program in app/ostPmc tools/ostpmc-ctl testbed/ostpmc-phc-standin \
        testbed/libostpmc_clockguard.so; do
        [ -f "$BUILD/$program" ] || fail "$BUILD/$program is missing: build it first"
    done
    mkdir -p "$DIR" || fail "cannot create $DIR"
    resolve_dir
    clear_earlier
    ROOT=$DIR/root
    BED=$DIR/bed
    # Both are made afresh: never remove a folder that is not an earlier device's.
    [ ! -e "$ROOT" ] || [ -f "$ROOT/etc/S60ptp4ld" ] ||
        fail "$ROOT is not a device root of an earlier run: choose another --dir"
    [ ! -e "$BED" ] || [ -f "$BED/gm.cfg" ] ||
        fail "$BED is not a bed of an earlier run: choose another --dir"

    write_root
    choose_profile
    # A peer-to-peer link has one neighbour: no second grandmaster there.
    delay=$(cfg_value "$ROOT/etc/ptp/$PROFILE_FILE" delay_mechanism)
    second_gm=--second-gm
    [ "$delay" != P2P ] || second_gm=
    second_port=
    [ "$PORTS" = 1 ] || second_port=--second-port
    domain=$(cfg_value "$ROOT/etc/ptp/$PROFILE_FILE" domainNumber)

    {
        echo "OWNER=$OWNER"
        echo "BUILD=$BUILD"
        echo "PROFILE=$PROFILE"
        echo "BOARD=$BOARD"
    } >"$DIR/device.env"
    # From here on a failure takes down whatever was made.
    trap '[ -n "${DEVICE_UP:-}" ] || cmd_down >/dev/null 2>&1' EXIT

    rm -rf "$BED"
    old_ifs=$IFS
    IFS='
'
    set -f
    # shellcheck disable=SC2046 # one argument per line
    OSTPMC_CLOCKGUARD=$GUARD sh "$BED_SCRIPT" up "$BED" --no-slave --owner "$OWNER" \
        --domain "${domain:-0}" $second_gm $second_port $(gm_options) >/dev/null ||
        fail "the network did not come up"
    set +f
    IFS=$old_ifs
    SL_NS=$(env_value "$BED/bed.env" SL_NS)
    write_settings
    start_standin
    if [ "$BOARD" = 8 ]; then
        # EGRET: the daemon never runs the init script; the device's start-up runs ptp4l.
        cp "$ROOT/etc/ptp/$PROFILE_FILE" "$ROOT/etc/ptp/ptpProfile.cfg" &&
            OSTPMC_SYSROOT=$ROOT sh "$ROOT/etc/S60ptp4ld" start >/dev/null ||
            fail "ptp4l did not start (log: $ROOT/var/log/ptp4l.log)"
    fi
    DEVICE_UP=1
    ports="one PTP port"
    [ "$PORTS" = 1 ] || ports="two PTP ports"
    say "up: board $BOARD$(board_name "$BOARD") with $ports, profile $PROFILE, in $DIR"
    case "$BOARD" in
    3 | 9) say "note: this ptp4l has no statistics data set, which the daemon reads on this" \
        "board: from the 4th status cycle on, its cycles fail there" ;;
    8) say "note: on EGRET the device's start-up ran ptp4l (pid $(cat "$ROOT/var/run/ptp4l.pid"));" \
        "the daemon never restarts it" ;;
    esac
}

cmd_daemon() {
    if [ "${1:-}" = --dir ]; then
        DIR=${2:?--dir needs a folder}
        shift 2
    fi
    load_device
    echo $$ >"$DIR/daemon.pid"
    OSTPMC_SYSROOT=$ROOT
    export OSTPMC_SYSROOT
    exec "$BUILD/app/ostPmc" "$@"
}

cmd_first_config() {
    parse_dir_only "$@"
    load_device
    request=$ROOT/etc/ost/ptp-running-config.json
    waited=0
    until "$CTL" -t 1000 config >/dev/null 2>&1; do
        waited=$((waited + 1))
        [ $waited -lt $ANSWER_WAIT_SECONDS ] || fail "the daemon did not answer; no request sent"
        sleep 1
    done
    say "the device's first request: SET OstPmc running config from $request"
    exec "$CTL" apply "$request"
}

cmd_down() {
    resolve_dir
    ENV=$DIR/device.env
    [ -f "$ENV" ] || return 0
    # Always below DIR, whatever the file says: nothing else is ever unmounted or stopped.
    ROOT=$DIR/root
    BED=$DIR/bed
    # The daemon first: a caller of the clock-driver node must not outlive its stand-in.
    end_program "$(cat "$DIR/daemon.pid" 2>/dev/null)" ostPmc
    if [ -f "$ROOT/etc/S60ptp4ld" ]; then
        OSTPMC_SYSROOT=$ROOT sh "$ROOT/etc/S60ptp4ld" stop >/dev/null 2>&1
    fi
    # The kernel's name of the stand-in is cut to 15 characters.
    end_program "$(env_value "$ENV" STANDIN_PID)" ostpmc-phc-stan
    # Its mount goes with it; one that a stand-in killed hard left is removed, and only that.
    mount=" $ROOT/dev fuse.ostpmc-phc-standin "
    tenths=0
    while grep -q "$mount" /proc/mounts && [ $tenths -lt 30 ]; do
        sleep 0.1
        tenths=$((tenths + 1))
    done
    grep -q "$mount" /proc/mounts && umount -l "$ROOT/dev"
    [ ! -f "$BED/bed.env" ] || sh "$BED_SCRIPT" down "$BED" >/dev/null
    rm -f "$DIR/daemon.pid" "$ENV"
    say "down: nothing of the device runs"
}

DIR=$top/build/device
[ $# -ge 1 ] || usage
command=$1
shift
case "$command" in
up) cmd_up "$@" ;;
daemon) cmd_daemon "$@" ;;
first-config) cmd_first_config "$@" ;;
down)
    parse_dir_only "$@"
    cmd_down
    ;;
*) usage ;;
esac
