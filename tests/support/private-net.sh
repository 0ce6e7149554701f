#!/bin/sh
# Runs a test program in network and mount namespaces of its own, so that it may bind the
# daemon's fixed ports and mount what it needs while other tests run in parallel. Nothing it
# binds or mounts is seen outside, and the namespaces go when its last process ends.
# Without root, a user namespace maps the caller to root inside.
if [ "$(id -u)" -eq 0 ]; then
    isolate="unshare --net --mount --propagation private"
else
    isolate="unshare --user --map-root-user --net --mount --propagation private"
fi
# shellcheck disable=SC2016 # expanded by the inner shell
exec $isolate -- sh -c 'ip link set lo up && exec "$@"' private-net "$@"
