#!/usr/bin/env bash
# Puts a fresh excerpt of a real report into README.md, between its two report markers. Called by ./dev readme.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

work=$(mktemp -d)
sample=
cleanup() {
    [ -z "$sample" ] || kill "$sample" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

mkfifo "$work/ready"
build/examples/sample_threads 5 >"$work/ready" &
sample=$!
read -r _ <"$work/ready"
build/dump_server -p "$sample" -f "$work/report" 2>/dev/null

# The block of one thread, without the directories of this machine.
awk -v RS='\n=== === === === === === === === === === === === === === === ===\n' \
    '/thread: counter 2/ {sub(/\n+$/, ""); print; exit}' "$work/report" |
    sed "s|$PWD/||g" >"$work/block"
[ -s "$work/block" ] || { echo "readme: the report has no block of the thread 'counter 2'" >&2; exit 1; }

awk -v block="$work/block" '
    /<!-- report -->/ {print; print "```"; while ((getline line < block) > 0) print line; print "```"; skip = 1}
    /<!-- end of report -->/ {skip = 0}
    !skip' README.md >"$work/README.md"
cat "$work/README.md" >README.md
