#!/usr/bin/env python3
"""All figures of docs/benchmarks.md: the speed of the virtual headend, instruction counts, a start-up timeline.
Called by bench/run, which builds what is measured.

Exit code: 0 when the figures are there and all ratios of instruction counts keep the limit, 1 when not. Goals of
speed are reported and not judged: they depend on the machine and on what else it does."""
import argparse
import collections
import json
import os
import platform
import resource
import subprocess
import sys
import tempfile
import time

import instructions

PATIENCE_SECONDS = 600
BUS_NS = (30, 100, 300)
STARTUP_SECONDS = 5  # virtual; enough at 300 ns an access

Load = collections.namedtuple('Load', 'name sample outputs seconds goal')
LOADS = (
    Load('small PSI, no output', 'psi-small.ts', None, 3000, 1000),
    Load('small PSI, two outputs to /dev/null', 'psi-small.ts', 'null', 300, 50),
    Load('small PSI, two outputs to files', 'psi-small.ts', 'files', 20, None),
    Load('full PSI, no output', 'psi-full.ts', None, 1000, None),
    Load('full PSI, two outputs to /dev/null', 'psi-full.ts', 'null', 300, None),
    Load('full PSI, two outputs to files', 'psi-full.ts', 'files', 20, None),
)


class NoFigure(Exception):
    pass


def headend(program, folder, *arguments):
    """Runs the headend from a new flash folder. Its report, seconds on the clock and seconds of processor time."""
    flash, report = os.path.join(folder, 'flash'), os.path.join(folder, 'report.json')
    subprocess.run([program, '--init-flash', '--flash', flash], check=True, capture_output=True, timeout=60)
    command = [program, '--fast', '--flash', flash, '--report', report, '--log', os.path.join(folder, 'log'),
               *arguments]
    before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    run = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_SECONDS)
    real, after = time.monotonic() - start, resource.getrusage(resource.RUSAGE_CHILDREN)
    if run.returncode != 0:
        raise NoFigure(f'{" ".join(command)}: exit code {run.returncode}\n{run.stderr}')
    with open(report, encoding='utf-8') as file:
        result = json.load(file)
    if result['cards'][0]['state'] != 'running' or result['protocol_violations'] or result['assertion_failures']:
        raise NoFigure(f'{" ".join(command)}: no clean run, so no figure')
    return result, real, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def channel_arguments(load, folder, samples):
    arguments = []
    for port in (1, 2):
        arguments += ['--psi', f'1.{port}={os.path.join(samples, load.sample)}']
        if load.outputs:
            target = '/dev/null' if load.outputs == 'null' else os.path.join(folder, f'out{port}.ts')
            arguments += ['--out', f'1.{port}={target}']
    return arguments


def speed(program, samples, load, repeat):
    real, processor = [], []
    for _ in range(repeat):
        with tempfile.TemporaryDirectory() as folder:
            report, took, used = headend(program, folder, '--seconds', str(load.seconds),
                                         *channel_arguments(load, folder, samples))
            if not all(channel['packets']['psi'] for channel in report['cards'][0]['channels']):
                raise NoFigure(f'{load.name}: no PSI on the air, so no figure')
        real.append(took)
        processor.append(used)
    best = load.seconds / min(real)
    return {'load': load.name, 'virtual_seconds': load.seconds, 'real_seconds': real, 'processor_seconds': processor,
            'virtual_per_real': best, 'virtual_per_processor_second': load.seconds / min(processor),
            'goal': load.goal, 'kept': None if load.goal is None else best >= load.goal}


def startup(program):
    timelines = []
    for bus_ns in BUS_NS:
        with tempfile.TemporaryDirectory() as folder:
            report, _, _ = headend(program, folder, '--seconds', str(STARTUP_SECONDS), '--bus-ns', str(bus_ns))
        card = report['cards'][0]
        timelines.append({'bus_ns': bus_ns, 'startup_ms': card['startup_ms'], 'phases': card['startup']})
    return timelines


def show_speed(rows):
    print(f'{"Virtual seconds a real second":38} {"best":>8} {"slowest":>8} {"a CPU second":>13} {"goal":>6}')
    for row in rows:
        slowest = row['virtual_seconds'] / max(row['real_seconds'])
        verdict = '' if row['goal'] is None else f'{row["goal"]:6} {"ok" if row["kept"] else "not reached"}'
        print(f'{row["load"]:38} {row["virtual_per_real"]:8,.0f} {slowest:8,.0f} '
              f'{row["virtual_per_processor_second"]:13,.0f} {verdict}')


def show_startup(timelines):
    print(f'{"":38} {"accesses":>10}')
    print(f'{"Start-up of a card, virtual ms":38} {f"at {BUS_NS[0]} ns":>10}' +
          ''.join(f'{t["bus_ns"]:>7} ns' for t in timelines) + '   a bus access')
    for phases in zip(*(t['phases'] for t in timelines)):
        print(f'{phases[0]["phase"]:38} {phases[0]["bus_accesses"]:10,}' +
              ''.join(f'{phase["ms"]:10,.3f}' for phase in phases))
    print(f'{"the whole of `init`":38} {"":10}' + ''.join(f'{t["startup_ms"]:10,.3f}' for t in timelines))


def save(path, results):
    aside = f'{path}.new'
    with open(aside, 'w', encoding='utf-8') as file:
        json.dump(results, file, indent=2)
        file.write('\n')
    os.replace(aside, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--headend', required=True, metavar='FILE')
    parser.add_argument('--samples', required=True, metavar='DIR')
    parser.add_argument('--module', action='append', required=True, metavar='LEVEL=FILE')
    parser.add_argument('--json', metavar='FILE')
    parser.add_argument('--repeat', type=int, default=3, metavar='N')
    options = parser.parse_args()
    try:
        rows = [speed(options.headend, options.samples, load, options.repeat) for load in LOADS]
        show_speed(rows)
        print(f'Each {options.repeat} times, start of the process, FPGA load and upload included.\n', flush=True)
        counts = instructions.measure(dict(module.split('=', 1) for module in options.module),
                                      os.path.join(options.samples, 'psi-full.ts'))
        instructions.show(counts)
        print(flush=True)
        timelines = startup(options.headend)
        show_startup(timelines)
        if options.json:
            save(options.json, {'machine': f'{platform.machine()}, {os.cpu_count()} processors', 'speed': rows,
                                'instructions': counts, 'startup': timelines})
    except (NoFigure, instructions.CannotCount, OSError, subprocess.SubprocessError) as error:
        print(error, file=sys.stderr)
        return 1
    return 0 if instructions.kept(counts) else 1


if __name__ == '__main__':
    sys.exit(main())
