#!/usr/bin/env bash
# usage: with_private_tmp.sh COMMAND [ARGUMENT...]   runs it in a mount namespace with a /tmp of its own, where
# the server's socket has its fixed place: a server in service on this machine keeps its own. The current
# directory stays in sight when it lies below /tmp.
set -euo pipefail

if [ "${PRIVATE_TMP:-}" != entered ]; then
    PRIVATE_TMP=entered exec unshare --mount --propagation private "$0" "$@"
fi
unset PRIVATE_TMP
here=$(pwd -P)
exec 3<"$here"
mount -t tmpfs -o mode=1777 tmpfs /tmp
case "$here" in
    /tmp/*)
        mkdir -p "$here"
        mount --no-canonicalize --bind /proc/self/fd/3 "$here"
        cd "$here"
        ;;
esac
exec 3<&-
# Entries of the tool come out on its standard error.
[ ! -e /dev/log ] || mount --bind /dev/null /dev/log
exec "$@"
