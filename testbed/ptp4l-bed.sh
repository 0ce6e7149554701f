#!/bin/sh
# ptp4l-bed.sh: a grandmaster and a slave ptp4l, each in a network namespace of its own, joined
# by a veth pair. Nothing is created outside those namespaces except the files under DIR, and
# no ptp4l of the bed can move this machine's clock: each runs without CAP_SYS_TIME and with
# the clockguard library preloaded.
#
#   ptp4l-bed.sh up DIR [options]   create the namespaces and start the instances
#   ptp4l-bed.sh down DIR           stop the bed's instances and remove its namespaces
#   ptp4l-bed.sh status DIR         print the bed's state; exit 0 only if all of it is running
#   ptp4l-bed.sh cleanup            remove leftovers of beds whose owner process is gone
#   ptp4l-bed.sh priority DIR ROLE N
#                                   give instance ROLE (gm, gm2 or sl) priority1 N: its
#                                   configuration changes and it restarts with it, as after an
#                                   operator's change (a restart takes well under a second)
#
# Options of up:
#   --guard PATH         clockguard library to preload (default: $OSTPMC_CLOCKGUARD)
#   --owner PID          process the bed belongs to (default: the caller); when it is gone,
#                        the next cleanup removes whatever the bed left behind
#   --domain N           domainNumber of both instances (default 0)
#   --asymmetry NS       the slave's delayAsymmetry (its offset then reads about -NS)
#   --second-port        give the slave a second port, making it a boundary clock
#   --free-running       the slave never adjusts its clock (stays UNCALIBRATED)
#   --no-slave           start only the grandmaster; the slave namespace is left empty for a
#                        ptp4l started by other means (its interface is named in bed.env)
#   --second-gm          a second grandmaster (gm2) on the slave's first link, in a namespace
#                        of its own, with a worse priority1 (110 against 100): it takes over
#                        only when the first one goes or lets it. The link then runs through a
#                        bridge in the grandmaster's namespace; its port to the slave (LINK_IF
#                        in bed.env) cuts the slave off from both.
#   --extra LINE         a [global] line for both instances (repeatable)
#   --gm-extra LINE      a [global] line for the grandmaster(s) only (repeatable)
#   --slave-extra LINE   a [global] line for the slave only (repeatable)
#                        (--gm-extra and --slave-extra lines come last: a line "[gm0]" or
#                        "[sl0]" starts that interface's own section for the lines after it)
#
# Files under DIR: bed.env (names for down/status and for callers), gm.cfg, sl.cfg, gm.pid,
# sl.pid, gm.log, sl.log and the management sockets gm.sock, sl.sock; with a second
# grandmaster also gm2.cfg, gm2.pid, gm2.log and gm2.sock.

set -u

PREFIX=ostpmc
PTP4L=${PTP4L:-/usr/sbin/ptp4l}
CAP_SYS_TIME_BIT=25
START_WAIT_TENTHS=50 # a ptp4l that has not opened its management socket by then failed
STOP_WAIT_TENTHS=30

GM_IF=gm0
SL_IF=sl0
GM_IF2=gm1
SL_IF2=sl1
# Documentation ranges: never routed anywhere, and only ever assigned inside the bed.
GM_ADDR=192.0.2.1/24
SL_ADDR=192.0.2.2/24
GM_ADDR2=198.51.100.1/24
SL_ADDR2=198.51.100.2/24
# The second grandmaster and the bridge that joins it to the first link.
GM2_IF=gm2
GM2_ADDR=192.0.2.3/24
BRIDGE=br0
SW_SL=sw0
SW_GM=sw1
SW_GM2=sw2
# Grandmaster priority1: the first wins, the second is the standby.
GM_PRIORITY1=100
GM2_PRIORITY1=110

say() { echo "ptp4l-bed: $*"; }
fail() {
    echo "ptp4l-bed: $*" >&2
    exit 1
}

usage() {
    echo "usage: $0 up DIR [--guard PATH] [--owner PID] [--domain N] [--asymmetry NS]" >&2
    echo "          [--second-port] [--free-running] [--no-slave] [--extra LINE]" >&2
    echo "          [--second-gm] [--gm-extra LINE] [--slave-extra LINE]" >&2
    echo "       $0 down DIR | status DIR | cleanup | priority DIR gm|gm2|sl N" >&2
    exit 2
}

is_number() {
    case "$1" in
    '' | *[!0-9]*) return 1 ;;
    *) return 0 ;;
    esac
}

is_signed_number() {
    case "$1" in
    -*) is_number "${1#-}" ;;
    *) is_number "$1" ;;
    esac
}

# A zombie still answers kill -0; it counts as gone.
pid_alive() {
    is_number "$1" && kill -0 "$1" 2>/dev/null || return 1
    state=$(sed -n 's/^.*) \(.\).*/\1/p' "/proc/$1/stat" 2>/dev/null)
    [ -n "$state" ] && [ "$state" != Z ]
}

# Only a pid that still runs ptp4l is ours to signal: a pid file can outlive its process.
is_ptp4l() {
    pid_alive "$1" && [ "$(cat "/proc/$1/comm" 2>/dev/null)" = ptp4l ]
}

ns_exists() {
    ip netns list 2>/dev/null | cut -d' ' -f1 | grep -qx "$1"
}

# Ends every process inside one of the bed's own namespaces, by pid, then the namespace.
remove_namespace() {
    ns=$1
    ns_exists "$ns" || return 0
    for pid in $(ip netns pids "$ns" 2>/dev/null); do
        kill -TERM "$pid" 2>/dev/null
    done
    tenths=0
    while [ -n "$(ip netns pids "$ns" 2>/dev/null)" ] && [ $tenths -lt $STOP_WAIT_TENTHS ]; do
        sleep 0.1
        tenths=$((tenths + 1))
    done
    for pid in $(ip netns pids "$ns" 2>/dev/null); do
        kill -KILL "$pid" 2>/dev/null
    done
    ip netns del "$ns" 2>/dev/null || say "could not delete namespace $ns"
}

cmd_cleanup() {
    for ns in $(ip netns list 2>/dev/null | cut -d' ' -f1); do
        case "$ns" in
        "$PREFIX"-*) ;;
        *) continue ;;
        esac
        owner=${ns#"$PREFIX"-}
        owner=${owner%%-*}
        is_number "$owner" || continue
        if ! pid_alive "$owner"; then
            say "removing stale namespace $ns (owner $owner is gone)"
            remove_namespace "$ns"
        fi
    done
    # Directories that Ptp4lBed made for beds of dead owners (a killed test never took
    # them down): their sockets, configurations and logs go too.
    for dir in /tmp/ostpmc-bed-*; do
        [ -f "$dir/bed.env" ] || continue
        owner=$(sed -n 's/^OWNER=//p' "$dir/bed.env")
        is_number "$owner" || continue
        if ! pid_alive "$owner"; then
            say "removing stale bed directory $dir (owner $owner is gone)"
            rm -rf "$dir"
        fi
    done
}

write_config() {
    file=$1
    sock=$2
    shift 2
    {
        echo "# written by ptp4l-bed.sh"
        echo "[global]"
        echo "domainNumber $DOMAIN"
        echo "time_stamping software"
        echo "logAnnounceInterval -2"
        echo "logSyncInterval -3"
        echo "logMinDelayReqInterval -3"
        echo "uds_address $sock"
        for line in "$@"; do
            echo "$line"
        done
    } >"$file"
}

# Starts one ptp4l in namespace $1 with config $2, log $3, pid file $4, socket $5 and the
# interfaces that follow; fails unless it runs without CAP_SYS_TIME and opens its socket.
start_ptp4l() {
    ns=$1
    cfg=$2
    log=$3
    pidfile=$4
    sock=$5
    shift 5
    ifargs=
    for ifname in "$@"; do
        ifargs="$ifargs -i $ifname"
    done
    rm -f "$sock"
    # shellcheck disable=SC2086 # ifargs is a list of words on purpose
    ip netns exec "$ns" setpriv --inh-caps=-sys_time --bounding-set=-sys_time \
        env LD_PRELOAD="$GUARD" "$PTP4L" -f "$cfg" $ifargs -m -q </dev/null >>"$log" 2>&1 &
    pid=$!
    echo "$pid" >"$pidfile"

    # ip netns exec, setpriv and env each exec the next, so the pid becomes ptp4l's own.
    tenths=0
    until [ -S "$sock" ] && is_ptp4l "$pid"; do
        if ! pid_alive "$pid"; then
            tail -n 20 "$log" >&2
            fail "ptp4l in $ns exited during start-up (log: $log)"
        fi
        if [ $tenths -ge $START_WAIT_TENTHS ]; then
            tail -n 20 "$log" >&2
            fail "ptp4l in $ns did not open $sock"
        fi
        sleep 0.1
        tenths=$((tenths + 1))
    done

    for field in CapEff CapPrm CapBnd; do
        caps=$(sed -n "s/^$field:[[:space:]]*//p" "/proc/$pid/status")
        if [ -z "$caps" ] || [ $(((0x$caps >> CAP_SYS_TIME_BIT) & 1)) -ne 0 ]; then
            kill -KILL "$pid" 2>/dev/null
            fail "ptp4l in $ns still holds CAP_SYS_TIME ($field $caps)"
        fi
    done
}

cmd_up() {
    DIR=$1
    shift
    GUARD=${OSTPMC_CLOCKGUARD:-}
    OWNER=$PPID
    DOMAIN=0
    ASYMMETRY=
    SECOND_PORT=0
    FREE_RUNNING=0
    START_SLAVE=1
    SECOND_GM=0
    EXTRA_FILE=$(mktemp) || fail "mktemp failed"
    GM_EXTRA_FILE=$(mktemp) || fail "mktemp failed"
    SL_EXTRA_FILE=$(mktemp) || fail "mktemp failed"
    trap 'rm -f "$EXTRA_FILE" "$GM_EXTRA_FILE" "$SL_EXTRA_FILE"' EXIT

    while [ $# -gt 0 ]; do
        case "$1" in
        --guard) GUARD=${2:?--guard needs a path}; shift ;;
        --owner) OWNER=${2:?--owner needs a pid}; shift ;;
        --domain) DOMAIN=${2:?--domain needs a number}; shift ;;
        --asymmetry) ASYMMETRY=${2:?--asymmetry needs nanoseconds}; shift ;;
        --second-port) SECOND_PORT=1 ;;
        --free-running) FREE_RUNNING=1 ;;
        --no-slave) START_SLAVE=0 ;;
        --second-gm) SECOND_GM=1 ;;
        --extra) echo "${2:?--extra needs a line}" >>"$EXTRA_FILE"; shift ;;
        --gm-extra) echo "${2:?--gm-extra needs a line}" >>"$GM_EXTRA_FILE"; shift ;;
        --slave-extra) echo "${2:?--slave-extra needs a line}" >>"$SL_EXTRA_FILE"; shift ;;
        *) usage ;;
        esac
        shift
    done

    is_number "$OWNER" || fail "owner '$OWNER' is not a pid"
    if ! is_number "$DOMAIN" || [ "$DOMAIN" -gt 255 ]; then
        fail "domain '$DOMAIN' is not 0..255"
    fi
    [ -z "$ASYMMETRY" ] || is_signed_number "$ASYMMETRY" ||
        fail "asymmetry '$ASYMMETRY' is not a number of nanoseconds"
    [ -f "$GUARD" ] || fail "clockguard library not found ('$GUARD')"
    [ -x "$PTP4L" ] || fail "$PTP4L not found"
    mkdir -p "$DIR" || fail "cannot create $DIR"
    DIR=$(cd "$DIR" && pwd) || fail "cannot enter $DIR"
    [ ! -e "$DIR/bed.env" ] || fail "$DIR already holds a bed; take it down first"

    cmd_cleanup

    # The script's own pid keeps two beds of one owner apart.
    GM_NS=$PREFIX-$OWNER-$$-gm
    SL_NS=$PREFIX-$OWNER-$$-sl
    GM2_NS=
    [ "$SECOND_GM" = 0 ] || GM2_NS=$PREFIX-$OWNER-$$-gm2
    link_if=$GM_IF
    [ "$SECOND_GM" = 0 ] || link_if=$SW_SL
    {
        echo "OWNER=$OWNER"
        echo "GM_NS=$GM_NS"
        echo "SL_NS=$SL_NS"
        echo "GM_IF=$GM_IF"
        echo "SL_IF=$SL_IF"
        echo "SECOND_PORT=$SECOND_PORT"
        echo "START_SLAVE=$START_SLAVE"
        echo "DOMAIN=$DOMAIN"
        echo "GM_SOCK=$DIR/gm.sock"
        echo "SL_SOCK=$DIR/sl.sock"
        echo "GUARD=$GUARD"
        echo "LINK_IF=$link_if"
        echo "SECOND_GM=$SECOND_GM"
        if [ "$SECOND_GM" = 1 ]; then
            echo "GM2_NS=$GM2_NS"
            echo "GM2_IF=$GM2_IF"
            echo "GM2_SOCK=$DIR/gm2.sock"
        fi
    } >"$DIR/bed.env"

    # From here on a failure takes down whatever was made.
    trap 'rm -f "$EXTRA_FILE" "$GM_EXTRA_FILE" "$SL_EXTRA_FILE"; [ -z "${BED_UP:-}" ] && cmd_down "$DIR" >/dev/null 2>&1' EXIT

    ip netns add "$GM_NS" || fail "cannot create namespace $GM_NS"
    ip netns add "$SL_NS" || fail "cannot create namespace $SL_NS"
    ip -n "$GM_NS" link set lo up
    ip -n "$SL_NS" link set lo up
    # Made inside the namespaces: no interface of this machine is ever touched.
    if [ "$SECOND_GM" = 1 ]; then
        make_shared_link
    else
        ip -n "$GM_NS" link add "$GM_IF" type veth peer name "$SL_IF" netns "$SL_NS" ||
            fail "cannot create the veth pair"
    fi
    ip -n "$GM_NS" addr add "$GM_ADDR" dev "$GM_IF"
    ip -n "$SL_NS" addr add "$SL_ADDR" dev "$SL_IF"
    ip -n "$GM_NS" link set "$GM_IF" up
    ip -n "$SL_NS" link set "$SL_IF" up
    if [ "$SECOND_PORT" = 1 ]; then
        ip -n "$GM_NS" link add "$GM_IF2" type veth peer name "$SL_IF2" netns "$SL_NS" ||
            fail "cannot create the second veth pair"
        ip -n "$GM_NS" addr add "$GM_ADDR2" dev "$GM_IF2"
        ip -n "$SL_NS" addr add "$SL_ADDR2" dev "$SL_IF2"
        ip -n "$GM_NS" link set "$GM_IF2" up
        ip -n "$SL_NS" link set "$SL_IF2" up
    fi

    # The grandmaster wins the election on priority1; the slave keeps the defaults.
    gm_lines="priority1 $GM_PRIORITY1
priority2 100"
    gm2_lines="priority1 $GM2_PRIORITY1
priority2 100"
    sl_lines="priority1 128
priority2 128
pi_proportional_scale 0.7
pi_integral_scale 0.3"
    [ -z "$ASYMMETRY" ] || sl_lines="$sl_lines
delayAsymmetry $ASYMMETRY"
    [ "$FREE_RUNNING" = 0 ] || sl_lines="$sl_lines
free_running 1"

    old_ifs=$IFS
    IFS='
'
    set -f
    # shellcheck disable=SC2046,SC2086 # one argument per line
    write_config "$DIR/gm.cfg" "$DIR/gm.sock" $gm_lines $(cat "$EXTRA_FILE" "$GM_EXTRA_FILE")
    # shellcheck disable=SC2046,SC2086
    [ "$SECOND_GM" = 0 ] || write_config "$DIR/gm2.cfg" "$DIR/gm2.sock" $gm2_lines \
        $(cat "$EXTRA_FILE" "$GM_EXTRA_FILE")
    # shellcheck disable=SC2046,SC2086
    write_config "$DIR/sl.cfg" "$DIR/sl.sock" $sl_lines $(cat "$EXTRA_FILE" "$SL_EXTRA_FILE")
    IFS=$old_ifs
    set +f

    start_ptp4l "$GM_NS" "$DIR/gm.cfg" "$DIR/gm.log" "$DIR/gm.pid" "$DIR/gm.sock" "$GM_IF"
    [ "$SECOND_GM" = 0 ] ||
        start_ptp4l "$GM2_NS" "$DIR/gm2.cfg" "$DIR/gm2.log" "$DIR/gm2.pid" "$DIR/gm2.sock" "$GM2_IF"
    if [ "$START_SLAVE" = 1 ]; then
        if [ "$SECOND_PORT" = 1 ]; then
            start_ptp4l "$SL_NS" "$DIR/sl.cfg" "$DIR/sl.log" "$DIR/sl.pid" "$DIR/sl.sock" \
                "$SL_IF" "$SL_IF2"
        else
            start_ptp4l "$SL_NS" "$DIR/sl.cfg" "$DIR/sl.log" "$DIR/sl.pid" "$DIR/sl.sock" "$SL_IF"
        fi
    fi
    BED_UP=1
    say "up: $GM_NS $SL_NS${GM2_NS:+ $GM2_NS}"
}

# The slave's first link as a segment shared with a second grandmaster: a bridge in the
# grandmaster's namespace with a port to each of the three. Snooping is off so that PTP's
# multicast reaches every port whoever joined it.
make_shared_link() {
    ip netns add "$GM2_NS" || fail "cannot create namespace $GM2_NS"
    ip -n "$GM2_NS" link set lo up
    ip -n "$GM_NS" link add "$BRIDGE" type bridge mcast_snooping 0 ||
        fail "cannot create the bridge"
    ip -n "$GM_NS" link add "$SW_SL" type veth peer name "$SL_IF" netns "$SL_NS" &&
        ip -n "$GM_NS" link add "$SW_GM" type veth peer name "$GM_IF" &&
        ip -n "$GM_NS" link add "$SW_GM2" type veth peer name "$GM2_IF" netns "$GM2_NS" ||
        fail "cannot create the veth pairs"
    for port in "$SW_SL" "$SW_GM" "$SW_GM2"; do
        ip -n "$GM_NS" link set "$port" master "$BRIDGE"
        ip -n "$GM_NS" link set "$port" up
    done
    ip -n "$GM_NS" link set "$BRIDGE" up
    ip -n "$GM2_NS" addr add "$GM2_ADDR" dev "$GM2_IF"
    ip -n "$GM2_NS" link set "$GM2_IF" up
}

load_env() {
    DIR=$1
    [ -f "$DIR/bed.env" ] || return 1
    GM_NS=''
    SL_NS=''
    GM2_NS=''
    START_SLAVE=1
    SECOND_PORT=0
    GUARD=${OSTPMC_CLOCKGUARD:-}
    while IFS='=' read -r key value; do
        case "$key" in
        GM_NS) GM_NS=$value ;;
        SL_NS) SL_NS=$value ;;
        GM2_NS) GM2_NS=$value ;;
        START_SLAVE) START_SLAVE=$value ;;
        SECOND_PORT) SECOND_PORT=$value ;;
        GUARD) [ -z "$value" ] || GUARD=$value ;;
        esac
    done <"$DIR/bed.env"
    # Never act on a namespace that is not one of ours, whatever the file says.
    case "$GM_NS" in "$PREFIX"-*-gm) ;; *) return 1 ;; esac
    case "$SL_NS" in "$PREFIX"-*-sl) ;; *) return 1 ;; esac
    case "$GM2_NS" in '' | "$PREFIX"-*-gm2) ;; *) return 1 ;; esac
}

stop_pidfile() {
    pidfile=$1
    [ -f "$pidfile" ] || return 0
    pid=$(cat "$pidfile")
    if is_ptp4l "$pid"; then
        kill -CONT "$pid" 2>/dev/null # a stopped process would not act on TERM
        kill -TERM "$pid" 2>/dev/null
        tenths=0
        while pid_alive "$pid" && [ $tenths -lt $STOP_WAIT_TENTHS ]; do
            sleep 0.1
            tenths=$((tenths + 1))
        done
        pid_alive "$pid" && kill -KILL "$pid" 2>/dev/null
    fi
    rm -f "$pidfile"
}

cmd_down() {
    load_env "$1" || fail "no bed in $1"
    stop_pidfile "$DIR/gm.pid"
    stop_pidfile "$DIR/gm2.pid"
    stop_pidfile "$DIR/sl.pid"
    # Whatever else a test started inside the bed goes with it.
    remove_namespace "$GM_NS"
    [ -z "$GM2_NS" ] || remove_namespace "$GM2_NS"
    remove_namespace "$SL_NS"
    rm -f "$DIR/gm.sock" "$DIR/gm2.sock" "$DIR/sl.sock" "$DIR/bed.env"
    say "down: $GM_NS $SL_NS${GM2_NS:+ $GM2_NS}"
}

cmd_status() {
    load_env "$1" || fail "no bed in $1"
    rc=0
    for ns in "$GM_NS" "$SL_NS" $GM2_NS; do
        if ns_exists "$ns"; then
            echo "namespace $ns: present"
        else
            echo "namespace $ns: missing"
            rc=1
        fi
    done
    for role in gm gm2 sl; do
        [ "$role" = sl ] && [ "$START_SLAVE" = 0 ] && continue
        [ "$role" = gm2 ] && [ -z "$GM2_NS" ] && continue
        pid=$(cat "$DIR/$role.pid" 2>/dev/null)
        if is_ptp4l "$pid"; then
            echo "$role ptp4l: running (pid $pid)"
        else
            echo "$role ptp4l: not running"
            rc=1
        fi
    done
    return $rc
}

cmd_priority() {
    load_env "$1" || fail "no bed in $1"
    role=$2
    value=$3
    if ! is_number "$value" || [ "$value" -gt 255 ]; then
        fail "priority1 '$value' is not 0..255"
    fi
    case "$role" in
    gm) set -- "$GM_NS" "$GM_IF" ;;
    gm2)
        [ -n "$GM2_NS" ] || fail "this bed has no second grandmaster"
        set -- "$GM2_NS" "$GM2_IF"
        ;;
    sl)
        [ "$START_SLAVE" = 1 ] || fail "this bed's slave is not the bed's own"
        set -- "$SL_NS" "$SL_IF"
        [ "$SECOND_PORT" = 0 ] || set -- "$@" "$SL_IF2"
        ;;
    *) usage ;;
    esac
    [ -f "$GUARD" ] || fail "clockguard library not found ('$GUARD')"
    sed -i "s/^priority1 .*/priority1 $value/" "$DIR/$role.cfg" || fail "cannot change $role.cfg"
    stop_pidfile "$DIR/$role.pid"
    ns=$1
    shift
    start_ptp4l "$ns" "$DIR/$role.cfg" "$DIR/$role.log" "$DIR/$role.pid" "$DIR/$role.sock" "$@"
    say "$role: priority1 $value"
}

[ $# -ge 1 ] || usage
command=$1
shift
case "$command" in
up) [ $# -ge 1 ] || usage; cmd_up "$@" ;;
down) [ $# -eq 1 ] || usage; cmd_down "$1" ;;
status) [ $# -eq 1 ] || usage; cmd_status "$1" ;;
cleanup) [ $# -eq 0 ] || usage; cmd_cleanup ;;
priority) [ $# -eq 3 ] || usage; cmd_priority "$@" ;;
*) usage ;;
esac
