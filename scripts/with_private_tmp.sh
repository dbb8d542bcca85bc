#!/usr/bin/env bash
# usage: with_private_tmp.sh COMMAND [ARGUMENT...]   runs it in a mount namespace with a /tmp of its own, where
# the server's socket has its fixed place: a server in service on this machine keeps its own. So does the log:
# /dev is its own too, without /dev/log, and entries of the tool come out on its standard error. The current
# directory stays in sight when it lies below /tmp.
set -euo pipefail

if [ "${PRIVATE_TMP:-}" != entered ]; then
    PRIVATE_TMP=entered exec unshare --mount --propagation private "$0" "$@"
fi
unset PRIVATE_TMP
here=$(pwd -P)
exec 3<"$here" 4</dev
mount -t tmpfs -o mode=1777 tmpfs /tmp
case "$here" in
    /tmp/*)
        mkdir -p "$here"
        mount --no-canonicalize --bind /proc/self/fd/3 "$here"
        cd "$here"
        ;;
esac

mount -t tmpfs -o mode=755 tmpfs /dev
for node in null zero full random urandom tty ptmx; do
    touch /dev/$node
    mount --no-canonicalize --bind /proc/self/fd/4/$node /dev/$node
done
for directory in pts shm; do
    mkdir /dev/$directory
    mount --no-canonicalize --bind /proc/self/fd/4/$directory /dev/$directory
done
ln -s /proc/self/fd /dev/fd
exec 3<&- 4<&-
exec "$@"
