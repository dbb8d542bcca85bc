#!/usr/bin/env bash
# The main jobs, shown once: a running program dumped from the command line, a crashed one reported by the
# server, and a status report on request. Called by ./dev demo after the build. The server gets a /tmp of its
# own; the reports stay in build/.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
[ "${1:-}" = in_private_tmp ] || exec scripts/with_private_tmp.sh scripts/demo.sh in_private_tmp

say() { printf '\n== %s\n' "$*"; }

work=$(mktemp -d)
sample='' server=''
cleanup() {
    [ -z "$sample" ] || kill "$sample" 2>/dev/null || true
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

start_sample() {
    mkfifo "$work/ready"
    build/examples/sample_threads 5 >"$work/ready" &
    sample=$!
    read -r _ <"$work/ready"
}

start_server() {
    build/dump_server -s 2>"$work/server.log" &
    server=$!
    for _ in $(seq 1000); do
        [ ! -S /tmp/quorvineler.ipc ] || return 0
        sleep 0.01
    done
    echo "the server does not listen" >&2
    exit 1
}

start_sample
report=build/demo-report.txt
say "build/dump_server -p $sample -f $report"
build/dump_server -p "$sample" -f "$report"
cat "$report"
say "the sample runs on: state $(awk '/^State/ {print $2}' "/proc/$sample/status")"

say "build/dump_server -s &"
start_server
say "LD_PRELOAD=build/examples/libcrash_reporter.so build/examples/crash_sample segv 2 thread"
status=0
CRASH_REPORT_DIR=$work LD_PRELOAD=build/examples/libcrash_reporter.so build/examples/crash_sample segv 2 thread ||
    status=$?
cp "$work"/crashdump-* build/demo-crash-report.txt
head -n 40 build/demo-crash-report.txt
say "exit status $status, as without the library: 128 + SIGSEGV"

say "build/examples/request_status $sample $work"
build/examples/request_status "$sample" "$work"
cp "$work/$sample"-dumpstat-* build/demo-status-report.txt
say "the sample runs on: state $(awk '/^State/ {print $2}' "/proc/$sample/status")"

say "whole reports: $report build/demo-crash-report.txt build/demo-status-report.txt"
