#!/usr/bin/env bash
# Installs this machine's package in a fresh, minimal Debian 12 and 13, and looks whether client, server, crash report and
# manual work there. Called by ./dev package-check [12|13]... after ./dev package.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

die() {
    echo "package-check: $*" >&2
    exit 1
}

# What runs inside; every line of its output is a finding, and it ends at the first failure.
inside() {
    export DEBIAN_FRONTEND=noninteractive
    apt-get -qq update
    apt-get -qq install --no-install-recommends /package.deb man-db >/apt.log 2>&1 || { cat /apt.log && return 1; }
    dpkg-query -W quorvineler libunwind8 'libelf1*' liblzma5 libstdc++6 libc6
    stat -c '%A %U %n' /var/lib/quorvineler/reports

    sleep 1000 &
    local target=$!
    dump_server -p "$target" -f /report
    grep -E '^# 0 pc' /report
    grep -q 'Kernel Trace' /report # shows that the report came to its end
    [ "$(awk '/^State/ {print $2}' "/proc/$target/status")" = S ]

    dump_server -s &
    local server=$! tries=0
    until [ -S /tmp/quorvineler.ipc ] || [ $((tries += 1)) -gt 1000 ]; do
        sleep 0.01
    done
    request_status "$target" /var/lib/quorvineler/reports
    CRASH_REPORT_DIR=/var/lib/quorvineler/reports LD_PRELOAD=$(dpkg -L quorvineler | grep 'libcrash_reporter\.so$') \
        sh -c 'kill -SEGV $$' || [ $? -eq 139 ]
    grep -h '^Fatal signal' /var/lib/quorvineler/reports/crashdump-*
    kill "$target" "$server"

    MANWIDTH=100 man dump_server >/manual
    grep -A2 '^SYNOPSIS' /manual
    echo "manual: $(wc -l </manual) lines"
    apt-get -qq purge quorvineler >/dev/null 2>&1
    [ ! -e /usr/bin/dump_server ] && [ ! -e /var/lib/quorvineler ]
    echo "purged"
}

if [[ ${1-} == --inside ]]; then
    inside
    exit
fi

[[ $(id -u) == 0 ]] || die "run it as root"
machine=$(dpkg --print-architecture)
. scripts/fresh_root.sh

# A package suits the release it was built on (libunwind): builds one in a root of that release.
build_for_other_release() {
    unpack_fresh_root "$codename" "$codename-build" "$root-build" g++ cmake ninja-build pkg-config libunwind-dev libelf-dev liblzma-dev libiberty-dev \
        dpkg-dev file lintian
    mkdir "$root-build/source"
    git ls-files -z -co --exclude-standard | tar -c --null -T - | tar -x -C "$root-build/source"
    run_in_root "$root-build" /source/scripts/package.sh "$machine" || die "Debian $debian: could not build"
    cp "$root-build/source/build-package/"*.deb build-package/
    package=$(echo "build-package/quorvineler_"*"+deb${debian}_$machine.deb")
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(($#)) || set -- 12 13
for debian in "$@"; do
    codename=$(debian_codename "$debian")
    root=$work/$codename
    package=$(echo "build-package/quorvineler_"*"+deb${debian}_$machine.deb")
    [[ $codename == "$(own_codename)" ]] || build_for_other_release
    [[ -e $package ]] || die "no $package: run ./dev package first"
    unpack_fresh_root "$codename" "$codename" "$root"
    cp "$package" "$root/package.deb"
    cp scripts/package_check.sh "$root/package_check"
    echo "== Debian $debian"
    run_in_root "$root" /bin/bash /package_check --inside || die "Debian $debian: failed"
done
