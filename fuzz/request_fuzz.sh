#!/bin/sh
# Runs request_fuzz (the first argument; the rest are libFuzzer's) on a device root in a
# directory of its own, removed afterwards whatever the outcome. The server binds the fixed
# ports and the clock-driver stand-in mounts: run this inside tests/support/private-net.sh.
#
# The run's working directory is that directory, so give the corpus and -artifact_prefix as
# absolute paths. It holds a profile file with shell syntax in its name, which the starting corpus
# names, so that the quoting of a file named by a request is fuzzed on a file that exists.
set -u
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d "${TMPDIR:-/tmp}/ostpmc-request-fuzz-XXXXXX") || exit 1
# A crashed run cannot remove the clock-driver stand-in's directory itself; like the stand-in,
# remove those whose owner is gone.
cleanup() {
    # The stand-in may not have unmounted yet; this mount namespace is the run's own.
    umount -l "$dir/root/dev" 2>/dev/null
    rm -rf "$dir"
    for standin in /tmp/ostpmc-phc-*; do
        owner=${standin#/tmp/ostpmc-phc-}
        owner=${owner%%-*}
        case $owner in
            '' | *[!0-9]*) continue ;;
        esac
        kill -0 "$owner" 2>/dev/null || rm -rf "$standin"
    done
}
trap cleanup EXIT
trap 'exit 130' INT TERM
cp "$here/../rootfs/etc/ptp/ptpAesProfile.cfg" "$dir/-my 'odd' \$(touch owned) \`x\`;\\.cfg" || exit 1
cd "$dir" || exit 1
OSTPMC_SYSROOT="$dir/root" "$@"
