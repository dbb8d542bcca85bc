#!/usr/bin/env bash
# The shipped rsyslog configuration with real daemons: one rsyslogd behind /dev/log, a second one as the collector, reports
# followed into it. Everything runs in a private mount and network namespace with folders of its own; a log daemon of this
# machine sees none of it. Called by ./dev rsyslog. Ends non-zero when an entry or a line of a report did not arrive.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

die() {
    echo "rsyslog: $*" >&2
    exit 1
}

if [[ ${1-} != --inside ]]; then
    [[ $(id -u) == 0 ]] || die "run it as root"
    [[ -x build/dump_server && -x build/examples/crash_sample ]] || die "run ./dev build first"
    work=$(mktemp -d /var/tmp/dump_server_rsyslog.XXXXXX)
    status=0
    unshare --mount --net --propagation private scripts/rsyslog_check.sh --inside "$work" || status=$?
    rm -rf "$work" # its mounts have gone with the namespace
    exit "$status"
fi

work=$2
processes=()
clean_up() {
    ((!${#processes[@]})) || kill "${processes[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
}
trap clean_up EXIT

# Until COMMAND succeeds, at most 30 seconds.
await() {
    local deadline=$((SECONDS + 30))
    until "$@"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.05
    done
}

# A /dev with nothing but a place for the log socket, and /tmp, /var/log, /var/lib, /etc/rsyslog.d of its own: the shipped
# files are used as they are.
private_folders() {
    local node
    mkdir -p "$work"/{dev,tmp,log,lib,spool,etc,project}
    mount --bind . "$work/project" && cd "$work/project" # it may be below /tmp itself
    for node in null zero full random urandom tty; do
        : >"$work/dev/$node"
        mount --bind "/dev/$node" "$work/dev/$node"
    done
    ln -s /proc/self/fd "$work/dev/fd" # for the shell
    chmod 1777 "$work/tmp"
    cp packaging/rsyslog/*.conf "$work/etc"
    { cat /etc/hosts && echo '127.0.0.1 collector.example'; } >"$work/hosts"
    mount --rbind "$work/dev" /dev
    mount --bind "$work/tmp" /tmp
    mount --bind "$work/log" /var/log
    mount --bind "$work/lib" /var/lib
    mount --bind "$work/hosts" /etc/hosts
    reports=/var/lib/quorvineler/reports
    mkdir -p "$reports"
    chmod 1733 "$reports"
    ip link set lo up
}

# start_rsyslogd NAME INPUT FILE...: an instance with the shipped files and what a machine's rsyslog.conf has around them
start_rsyslogd() {
    local file
    mkdir "$work/spool/$1"
    {
        echo "global(workDirectory=\"$work/spool/$1\")"
        echo "$2"
        for file in "${@:3}"; do
            echo "include(file=\"$work/etc/$file\")"
        done
    } >"$work/$1.conf"
    rsyslogd -N1 -f "$work/$1.conf" 2>"$work/$1.check" || { cat "$work/$1.check" >&2 && die "bad configuration: $1"; }
    rsyslogd -n -f "$work/$1.conf" -i "$work/$1.pid" 2>"$work/$1.stderr" &
    processes+=($!)
}

collector_listens() { : 2>/dev/null </dev/tcp/127.0.0.1/10514; }

private_folders
start_rsyslogd client 'module(load="imuxsock" SysSock.Use="off") input(type="imuxsock" Socket="/dev/log")' \
    dump_server.conf report_forwarding.conf
await test -S /dev/log || die "rsyslogd made no /dev/log"

# Every priority, from the server and from clients: a status report, a crash report, a refusal, a process that is not there.
sleep 1000 &
sample=$!
processes+=("$sample")
(umask 0 && exec build/dump_server -s 2>"$work/stderr") &
server=$!
processes+=("$server")
await test -S /tmp/quorvineler.ipc || die "the server does not listen"
build/examples/request_status "$sample" "$reports" >/dev/null
# Only now: what came before has to wait for the collector.
start_rsyslogd collector '' report_collector.conf
await collector_listens || die "the collector does not listen"
install -m 755 build/examples/request_status /tmp/request_status
setpriv --reuid=65534 --regid=65534 --clear-groups /tmp/request_status "$sample" /tmp >/dev/null && die "served a stranger"
CRASH_REPORT_DIR=$reports LD_PRELOAD=build/examples/libcrash_reporter.so build/examples/crash_sample segv 2 >/dev/null 2>&1 || true
build/dump_server -p 0 2>>"$work/stderr" &
client=$!
wait "$client"

expected=(
    "daemon\.info DumpServer\[$server\]: Stack trace server start"
    "daemon\.info Dumper\[$server\]: Stack dump saving to $reports/$sample-dumpstat-"
    "daemon\.warning DumpServer\[$server\]: User 65534 may not ask for a dump of pid $sample"
    "daemon\.info Dumper\[$server\]: Fatal signal 11 \(SIGSEGV\), code 1, fault addr 0x10"
    "daemon\.info DumpServer\[$server\]: Handle_dump_req 0xae01 takes:"
    "daemon\.err DumpServer\[$client\]: Dumpstat init process map failed"
)
missing=0
for file in /var/log/dump_server.log "/var/log/dumps/$(hostname)/entries.log"; do
    echo "== $file"
    for entry in "${expected[@]}"; do
        if await grep -sqE "$entry" "$file"; then
            grep -m1 -E "$entry" "$file"
        else
            echo "MISSING: $entry"
            missing=$((missing + 1))
        fi
    done
done

# imfile sends no empty lines.
arrived() { cmp -s <(grep . "$1") "$2"; }
for report in "$reports"/*; do
    copy=/var/log/dumps/$(hostname)/${report##*/}
    if await arrived "$report" "$copy"; then
        echo "$(wc -l <"$copy") lines of ${report##*/} arrived"
    else
        echo "MISSING: $report"
        diff <(grep . "$report") "$copy" | head -n 5 || true
        missing=$((missing + 1))
    fi
done
if [[ -s $work/stderr ]]; then
    echo "MISSING in the log, on standard error:" && cat "$work/stderr" && missing=$((missing + 1))
fi
((!missing)) || die "$missing did not arrive"
