#!/usr/bin/env python3
"""Side by side in one run: the tool, gdb and eu-stack on the same targets.

usage: bench.py BUILD_DIR [ROUNDS]

Each round runs every tool once on every target, so that what else the machine does hits all alike. Prints a table of
medians: wall and processor time of the whole dump, peak memory, and how long one thread was held (median, longest).
"""
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

NODE_PROGRAM = """
const { Worker, isMainThread } = require('worker_threads');
if (isMainThread) {
  let up = 0;
  for (let i = 0; i < 4; i++) new Worker(__filename).on('message', () => { if (++up == 4) process.stdout.write('r'); });
} else {
  require('worker_threads').parentPort.postMessage('up');
}
setInterval(() => {}, 1000);
"""


class Target:
    def __init__(self, title, argv):
        self.title = title
        self.process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        if argv[0] != 'sleep' and self.process.stdout.read(1) != b'r':
            self.end()
            raise RuntimeError(f'{title}: the target did not start')
        time.sleep(0.5)  # lets the last threads reach their wait; nothing depends on it

    def end(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()


def timed(argv, environment):
    """Milliseconds of wall and processor time."""
    start = time.monotonic()
    child = subprocess.Popen(argv, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        print(f'{" ".join(argv)}: exit status {child.returncode}', file=sys.stderr)
    return (time.monotonic() - start) * 1e3, (usage.ru_utime + usage.ru_stime) * 1e3


def run(argv, preload, holds_file):
    """Wall and processor time of a plain run; KiB of peak memory and hold times in milliseconds of a watched one."""
    environment = {**os.environ, 'DEBUGINFOD_URLS': ''}
    wall, processor = timed(argv, environment)
    if os.path.exists(holds_file):
        os.remove(holds_file)
    timed(argv, {**environment, 'LD_PRELOAD': preload, 'HOLD_TIMES': holds_file})
    holds = []
    peak = 0
    if os.path.exists(holds_file):
        with open(holds_file, encoding='ascii') as lines:
            fields = [line.split() for line in lines]
        holds = [float(f[1]) for f in fields if f[0] != 'VmHWM:']
        peak = max((int(f[1]) for f in fields if f[0] == 'VmHWM:'), default=0)
    return wall, processor, peak, holds


def median(values):
    return statistics.median(values) if values else float('nan')


def main():
    build = os.path.abspath(sys.argv[1])
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 7
    preload = f'{build}/bench/libhold_times.so'
    folder = tempfile.mkdtemp()
    holds_file = f'{folder}/holds'
    report = f'{folder}/report'
    chains = f'{build}/bench/call_chains'
    programs = {
        '1 thread (sleep)': ['sleep', '100000'],
        '20 threads': [chains, '19'],
        '200 threads': [chains, '199'],
        '200 threads, 50 chains': [chains, '199', '50'],
        '2000 threads': [chains, '1999'],
    }
    if shutil.which('node'):
        with open(f'{folder}/workers.js', 'w', encoding='ascii') as program:
            program.write(NODE_PROGRAM)
        programs['Node.js, 4 workers'] = ['node', f'{folder}/workers.js']
    targets = []
    try:
        for title, argv in programs.items():
            targets.append(Target(title, argv))
        print('| target | tool | wall ms | CPU ms | peak MB | hold median ms | hold longest ms | wall: times the tool |')
        print('|---|---|---|---|---|---|---|---|')
        for target in targets:
            pid = str(target.process.pid)
            tools = {
                'dump_server': [f'{build}/dump_server', '-p', pid, '-f', report],
                'dump_server -F': [f'{build}/dump_server', '-F', '-p', pid, '-f', report],
                'eu-stack': ['nice', '-n', '19', 'eu-stack', '-p', pid],
                'gdb': ['nice', '-n', '19', 'gdb', '-nx', '-batch', '-p', pid, '-ex', 'thread apply all bt'],
                'floor': [f'{build}/bench/floor', pid],
            }
            if target.title == '2000 threads':
                del tools['gdb']  # takes minutes
            runs = {name: [] for name in tools}
            for _ in range(rounds):
                for name, argv in tools.items():
                    runs[name].append(run(argv, preload, holds_file))
            own = median([r[0] for r in runs['dump_server']])
            for name, results in runs.items():
                wall = median([r[0] for r in results])
                print(f'| {target.title} | {name} | {wall:.1f} | {median([r[1] for r in results]):.1f} | '
                      f'{median([r[2] for r in results]) / 1024:.1f} | '
                      f'{median([median(r[3]) for r in results if r[3]]):.3f} | '
                      f'{median([max(r[3]) for r in results if r[3]]):.2f} | {wall / own:.2f} |', flush=True)
    finally:
        for target in targets:
            target.end()
        shutil.rmtree(folder)


main()
