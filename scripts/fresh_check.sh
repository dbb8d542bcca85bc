#!/usr/bin/env bash
# Runs README's two commands as they stand there, from a fresh clone in a fresh Debian 12 and 13, and says how long they
# took with all that they install. Called by ./dev fresh-check [12|13]...
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

die() {
    echo "fresh-check: $*" >&2
    exit 1
}

# What runs inside.
inside() {
    apt-get -qq update
    git -c advice.detachedHead=false -c init.defaultBranch=main clone --quiet /quorvineler.bundle /root/quorvineler
    cd /root/quorvineler
    local command started
    sed -n 's/^    \(sudo \.\/dev [a-z]*\) .*/\1/p' README.md | head -n 2 | while read -r command; do
        started=$SECONDS
        $command </dev/null >/command.log 2>&1 || { cat /command.log && die "$command failed"; }
        echo "$command: $((SECONDS - started)) s: $(grep -vE '^$|Total Test time' /command.log | tail -n 1)"
    done
}

if [[ ${1-} == --inside ]]; then
    inside
    exit
fi

[[ $(id -u) == 0 ]] || die "run it as root"
. scripts/fresh_root.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git bundle create --quiet "$work/quorvineler.bundle" HEAD
(($#)) || set -- 12 13
for debian in "$@"; do
    codename=$(debian_codename "$debian")
    root=$work/$codename
    unpack_fresh_root "$codename" "$codename-user" "$root" sudo git
    cp "$work/quorvineler.bundle" "$root/"
    cp scripts/fresh_check.sh "$root/fresh_check"
    echo "== Debian $debian"
    run_in_root "$root" /bin/bash /fresh_check --inside || die "Debian $debian: failed"
done
