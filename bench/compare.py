#!/usr/bin/env python3
"""Compares the call stack of every thread of a process with what gdb shows, frame by frame.

usage: compare.py BUILD_DIR PID

The two look one after the other, so the threads should be waiting. Frames that gdb makes up of inlined and tail calls are left out.
Names count as equal when they differ in template arguments, parameters or clone suffixes only, or when both are names of
the same address. Ends with status 1 when something differs.
"""
import json
import re
import subprocess
import tempfile
import sys

GDB_SCRIPT = r"""
import gdb, json, re
with open(OWN_STACKS) as file:
    own = json.load(file)

def is_at(name, address):
    try:
        found = re.search(r' at (?:address )?(0x[0-9a-f]+)', gdb.execute("info address %s" % name, to_string=True))
        return found is not None and int(found[1], 16) == address
    except gdb.error:
        return False

for thread in gdb.selected_inferior().threads():
    thread.switch()
    frame = gdb.newest_frame()
    level = 0
    while frame is not None and level < 1024:
        if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME):
            kind = 'signal' if frame.type() == gdb.SIGTRAMP_FRAME else 'normal'
            pc = frame.pc()
            back = 0 if level == 0 or kind == 'signal' else 1
            symbol = gdb.execute('info symbol %#x' % (pc - back), to_string=True).split(' in section ')[0].strip()
            mine = own.get(str(thread.ptid[1]), [])
            alias = level < len(mine) and mine[level][1] != '' and is_at(mine[level][1], mine[level][2])
            print('FRAME|%d|%x|%s|%s|%d|%s' % (thread.ptid[1], pc, kind, frame.name() or '', alias, symbol))
            level += 1
        try:
            frame = frame.older()
        except gdb.error as error:
            print('END|%d|%s' % (thread.ptid[1], error))
            break
"""

FRAME_LINE = re.compile(r'#[ 0-9]\d* pc 0x([0-9a-f]+) +(.*?)(?: \((.*) \+ 0x([0-9a-f]+)\))?$')


def simple(name):
    name = re.sub(r' \+ \d+$', '', name)
    name = name.replace('(anonymous namespace)', 'anonymous')
    while (shorter := re.sub(r'<[^<>]*>', '', name)) != name:
        name = shorter
    name = re.sub(r'\[abi:\w+\]', '', name)
    name = name.split('(')[0].split('@')[0].split('.')[0].strip()
    return name.split(' ')[-1]


def own_stacks(build, pid):
    report = subprocess.run([f'{build}/dump_server', '-p', pid], capture_output=True, text=True, errors='replace',
                            check=False).stdout
    stacks = {}
    tid = None
    in_backtrace = False
    for line in report.splitlines():
        if found := re.match(r'pid: \d+, tid: (\d+),', line):
            tid = int(found[1])
            stacks[tid] = []
        elif line == 'Backtrace:':
            in_backtrace = True
        elif line == 'Kernel Trace:':
            in_backtrace = False
        elif in_backtrace and (found := FRAME_LINE.match(line)):
            pc = int(found[1], 16)
            stacks[tid].append((pc, found[3] or '', pc - int(found[4] or '0', 16)))
    return stacks


def gdb_stacks(pid, own):
    with tempfile.NamedTemporaryFile('w', suffix='.json') as file:
        json.dump(own, file)
        file.flush()
        return run_gdb(pid, f'OWN_STACKS = {file.name!r}\n' + GDB_SCRIPT)


def run_gdb(pid, script):
    output = subprocess.run(['gdb', '-nx', '-batch', '-ex', 'set debuginfod enabled off', '-ex', f'attach {pid}', '-ex',
                             'set backtrace limit 1100', '-ex', 'set backtrace past-main on', '-ex',
                             'set backtrace past-entry on', '-ex', 'python\n' + script],
                            capture_output=True, text=True, errors='replace', check=False, stdin=subprocess.DEVNULL).stdout
    stacks = {}
    for line in output.splitlines():
        if line.startswith('FRAME|'):
            _, tid, pc, kind, name, alias, symbol = line.split('|', 6)
            stacks.setdefault(int(tid), []).append((int(pc, 16), kind, name, alias == '1', symbol))
    return stacks


def same_name(own, kind, name, alias, symbol):
    if alias or kind == 'signal' or simple(own) in (simple(name), simple(symbol)):
        return True
    return own == '' and (name == '' or symbol.startswith('No symbol'))


def main():
    build, pid = sys.argv[1:3]
    own = own_stacks(build, pid)
    others = gdb_stacks(pid, own)
    frames = same = 0
    for tid in sorted(set(own) | set(others)):
        mine, theirs = own.get(tid, []), others.get(tid, [])
        for level in range(max(len(mine), len(theirs))):
            frames += 1
            if level < len(mine) and level < len(theirs) and mine[level][0] == theirs[level][0] and same_name(
                    mine[level][1], *theirs[level][1:]):
                same += 1
                continue
            left = '%#x %s' % mine[level][:2] if level < len(mine) else '-'
            right = '%#x %s [%s; %s]' % (theirs[level][0], theirs[level][2], theirs[level][1],
                                         theirs[level][4]) if level < len(theirs) else '-'
            print(f'thread {tid} frame {level}: {left}   gdb: {right}')
    print(f'{len(own)} threads, {frames} frames, {same} the same, {frames - same} different')
    sys.exit(frames != same or frames == 0)


main()
