#!/usr/bin/env bash
# The main job, shown once: a program of several threads, dumped while it runs. Called by ./dev demo after the build.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

say() { printf '\n== %s\n' "$*"; }

work=$(mktemp -d)
sample=
cleanup() {
    [ -z "$sample" ] || kill "$sample" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

start_sample() {
    mkfifo "$work/ready"
    build/examples/sample_threads 5 >"$work/ready" &
    sample=$!
    read -r _ <"$work/ready"
}

start_sample
report=build/demo-report.txt
say "build/dump_server -p $sample -f $report"
build/dump_server -p "$sample" -f "$report"
cat "$report"
say "the sample runs on: state $(awk '/^State/ {print $2}' "/proc/$sample/status")"
say "the report above is in $report"
