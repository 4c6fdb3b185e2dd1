#!/usr/bin/env python3
"""All figures of docs/benchmarks.md: the speed of the virtual headend under load, while settings change and in a
start-up of all slots, packets through router and multiplexer, instruction counts, a start-up timeline, times of the
calibration and of the front panel, SNMP requests. Called by bench/run, which builds what is measured.

Exit code: 0 when the figures are there and the ratios of instruction counts and the rates of the calibration keep
their limits, 1 when not. Goals of speed are reported and not judged: they depend on the machine and on what else it
does."""
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
import snmp

PATIENCE_SECONDS = 600
BUS_NS = (30, 100, 300)
STARTUP_SECONDS = 5  # virtual; enough at 300 ns per access

SLOTS = range(1, 7)
FULL_HOUSE_SECONDS = 3  # virtual; six cards share the processor and have all started after 2.3
FULL_HOUSE_GOAL = 1  # start-ups per real second

Load = collections.namedtuple('Load', 'name sample outputs seconds goal settings memory', defaults=(False, False))
LOADS = (
    Load('small PSI, no output', 'psi-small.ts', None, 3000, 1000),
    Load('small PSI, two outputs to /dev/null', 'psi-small.ts', 'null', 300, 50),
    Load('small PSI, two outputs to files', 'psi-small.ts', 'files', 20, None),
    Load('full PSI, no output', 'psi-full.ts', None, 1000, None),
    Load('full PSI, two outputs to /dev/null', 'psi-full.ts', 'null', 300, None),
    Load('full PSI, two outputs to files', 'psi-full.ts', 'files', 20, None),
    Load('settings, no output', None, None, 61, 50, settings=True),
    Load('settings, two outputs to files', None, 'files', 21, 50, settings=True),
    Load('settings, no output, all in memory', None, None, 61, 50, settings=True, memory=True),
)
MEMORY = '/dev/shm'  # a folder in memory

# Each routine of the modulator in turn. A card starts with the second value of each, so every setting is a change.
SETTINGS = (('rfreq', (666000, 554000)), ('rflevel', (1055, 1000)), ('qammode', (7, 5)), ('rfswitch', (1, 0)),
            ('power', (0, 15)), ('symbolrate', (6000, 6875)))
SETTINGS_A_SECOND = 10
FIRST_SETTING = 0.5  # virtual seconds; the card runs by then

ROUTED_SECONDS = 20  # virtual
ROUTED_GOAL = 2  # virtual seconds per second of the processor: half a core in real time

CALIBRATION = (('dac_load_ms', '`Ad9775Set`, virtual ms'), ('read_ms', 'one read, virtual ms'),
               ('write_ms', 'one write, virtual ms'), ('reads_per_second', 'reads a virtual second'),
               ('writes_per_second', 'writes a virtual second'))


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
    # A check of the module compares a slot's number with the bound of channels, at every start.
    known = sum(card['slot'] > 2 for card in result['cards'])
    if (any(card['state'] != 'running' for card in result['cards']) or result['protocol_violations']
            or len(result['assertion_failures']) != known):
        raise NoFigure(f'{" ".join(command)}: no clean run, so no figure')
    return result, real, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def channel_arguments(load, folder, samples):
    arguments = []
    for port in (1, 2):
        if load.sample:
            arguments += ['--psi', f'1.{port}={os.path.join(samples, load.sample)}']
        if load.outputs:
            target = '/dev/null' if load.outputs == 'null' else os.path.join(folder, f'out{port}.ts')
            arguments += ['--out', f'1.{port}={target}']
    return arguments


def setting_arguments(load):
    """Settings in all seconds of the load but one, which the start-up and the last setting share."""
    arguments = []
    for number in range((load.seconds - 1) * SETTINGS_A_SECOND if load.settings else 0):
        name, values = SETTINGS[number % len(SETTINGS)]
        value = values[number // len(SETTINGS) % len(values)]
        arguments += ['--set', f'1.{name}={value}@{FIRST_SETTING + number / SETTINGS_A_SECOND:.1f}']
    return arguments


def timed(name, amount, goal, repeat, run):
    """The best of some runs, as `amount` divided by what a run took."""
    real, processor = [], []
    for _ in range(repeat):
        took, used = run()
        real.append(took)
        processor.append(used)
    best = amount / min(real)
    return {'name': name, 'amount': amount, 'real_seconds': real, 'processor_seconds': processor,
            'per_real_second': best, 'per_processor_second': amount / min(processor),
            'goal': goal, 'kept': None if goal is None else best >= goal}


def speed(program, samples, load, repeat):
    """Virtual seconds a real second."""
    settings = setting_arguments(load)

    def run():
        with tempfile.TemporaryDirectory(dir=MEMORY if load.memory else None) as folder:
            report, took, used = headend(program, folder, '--seconds', str(load.seconds),
                                         *channel_arguments(load, folder, samples), *settings)
        card = report['cards'][0]
        if load.sample and not all(channel['packets']['psi'] for channel in card['channels']):
            raise NoFigure(f'{load.name}: no PSI on the air, so no figure')
        if card['saves'] <= len(settings) // 2:  # each setting is two arguments, and the default record is a save
            raise NoFigure(f'{load.name}: {card["saves"]} saves are not one a setting, so no figure')
        return took, used

    return timed(load.name, load.seconds, load.goal, repeat, run)


def full_house(program, repeat):
    """Start-ups of all slots together a real second, each with its FPGA configured bit by bit."""
    cards = [argument for slot in SLOTS for argument in ('--card', str(slot))]

    def run():
        with tempfile.TemporaryDirectory() as folder:
            _, took, used = headend(program, folder, '--seconds', str(FULL_HOUSE_SECONDS), *cards)
        return took, used

    return timed('six cards', 1, FULL_HOUSE_GOAL, repeat, run)


def routed(program, repeat):
    """The best of some runs each for a plain copy and for maps of several lengths, ten full outputs."""
    rows = []
    for entries in (0, *instructions.MAP_ENTRIES):
        runs = []
        for _ in range(repeat):
            run = subprocess.run([program, str(entries), str(ROUTED_SECONDS)], capture_output=True, text=True,
                                 timeout=PATIENCE_SECONDS)
            if run.returncode != 0:
                raise NoFigure(f'{program} {entries}: exit code {run.returncode}\n{run.stderr}')
            runs.append(json.loads(run.stdout))
        rows.append({**min(runs, key=lambda row: row['processor_seconds']),
                     'all_processor_seconds': [row['processor_seconds'] for row in runs]})
    return rows


def startup(program):
    timelines = []
    for bus_ns in BUS_NS:
        with tempfile.TemporaryDirectory() as folder:
            report, _, _ = headend(program, folder, '--seconds', str(STARTUP_SECONDS), '--bus-ns', str(bus_ns))
        card = report['cards'][0]
        timelines.append({'bus_ns': bus_ns, 'startup_ms': card['startup_ms'], 'phases': card['startup']})
    return timelines


def card_times(program, *arguments):
    run = subprocess.run([program, *arguments], capture_output=True, text=True, timeout=PATIENCE_SECONDS)
    if run.returncode != 0:
        raise NoFigure(f'{program} {arguments[0]}: exit code {run.returncode}\n{run.stdout}{run.stderr}')
    return [json.loads(line) for line in run.stdout.splitlines()]


def panel(program, samples):
    """From key to screen, for each kind of screen, without PSI and with much of it."""
    full = card_times(program, 'panel', os.path.join(samples, 'psi-full.ts'))
    return card_times(program, 'panel') + [{**row, 'screen': row['screen'] + ', full PSI'} for row in full]


def show_speed(title, rows):
    print(f'{title:38} {"best":>8} {"slowest":>8} {"a CPU second":>13} {"goal":>6}')
    for row in rows:
        best, processor = row['per_real_second'], row['per_processor_second']
        slowest = row['amount'] / max(row['real_seconds'])
        digits = 0 if best >= 20 else 1
        verdict = '' if row['goal'] is None else f'{row["goal"]:6} {"ok" if row["kept"] else "not reached"}'
        print(f'{row["name"]:38} {best:8,.{digits}f} {slowest:8,.{digits}f} {processor:13,.{digits}f} {verdict}')


def show_routed(rows):
    print(f'{"Ten outputs at 51.6 Mb/s, a CPU second":38} {"virtual s":>10} {"packets":>14} {"copy":>7} {"goal":>6}')
    copied = rows[0]['packets'] / rows[0]['processor_seconds']
    for row in rows:
        speed_of, packets = row['seconds'] / row['processor_seconds'], row['packets'] / row['processor_seconds']
        name = f'maps of {row["entries"]} entries' if row['entries'] else 'plain copy'
        verdict = f'{ROUTED_GOAL:6} {"ok" if speed_of >= ROUTED_GOAL else "not reached"}' if row['entries'] else ''
        print(f'{name:38} {speed_of:10,.1f} {packets:14,.0f} {copied / packets:7.1f} {verdict}')


def show_startup(timelines):
    print(f'{"":38} {"accesses":>10}')
    print(f'{"Start-up of a card, virtual ms":38} {f"at {BUS_NS[0]} ns":>10}' +
          ''.join(f'{t["bus_ns"]:>7} ns' for t in timelines) + '   a bus access')
    for phases in zip(*(t['phases'] for t in timelines)):
        print(f'{phases[0]["phase"]:38} {phases[0]["bus_accesses"]:10,}' +
              ''.join(f'{phase["ms"]:10,.3f}' for phase in phases))
    print(f'{"the whole of `init`":38} {"":10}' + ''.join(f'{t["startup_ms"]:10,.3f}' for t in timelines))


def show_calibration(rows):
    print(f'{"Calibration, EEPROM write cycle of":38}' + ''.join(f'{row["write_cycle_ms"]:>7} ms' for row in rows))
    for key, name in CALIBRATION:
        digits = 3 if key.endswith('_ms') else 2
        print(f'{name:38}' + ''.join(f'{row[key]:10.{digits}f}' for row in rows))


def show_panel(rows):
    kinds = ('virtual_ms', 'real_ms'), ('mean', 'median', 'worst')
    print(f'{"From key to screen, ms":38}' + ''.join(f'{kind[:-3] + " " + figure:>16}' for kind in kinds[0]
                                                   for figure in kinds[1]))
    for row in rows:
        print(f'{row["screen"]:38}' + ''.join(f'{row[kind][figure]:16.2f}' for kind in kinds[0] for figure in kinds[1]))


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
    parser.add_argument('--card-times', required=True, metavar='FILE')
    parser.add_argument('--multiplexer', required=True, metavar='FILE')
    parser.add_argument('--exchange', required=True, metavar='FILE')
    parser.add_argument('--json', metavar='FILE')
    parser.add_argument('--repeat', type=int, default=3, metavar='N')
    options = parser.parse_args()
    try:
        rows = [speed(options.headend, options.samples, load, options.repeat) for load in LOADS]
        show_speed('Virtual seconds a real second', rows)
        print(f'Each {options.repeat} times, start of the process, FPGA load and upload included.\n', flush=True)
        house = full_house(options.headend, options.repeat)
        show_speed('Start-ups a real second', [house])
        print(flush=True)
        packets = routed(options.multiplexer, options.repeat)
        show_routed(packets)
        print(flush=True)
        capture = os.path.join(options.samples, 'psi-full.ts')
        counts = {level: instructions.measured(program, capture)
                  for level, program in (module.split('=', 1) for module in options.module)}
        instructions.show(counts)
        routed_counts = instructions.routed_packets(options.multiplexer)
        instructions.show_routed(routed_counts)
        print(flush=True)
        timelines = startup(options.headend)
        show_startup(timelines)
        print(flush=True)
        calibrations = card_times(options.card_times, 'calibration')
        show_calibration(calibrations)
        print(flush=True)
        passes = card_times(options.card_times, 'status')[0]
        print(f'A status pass: {passes["accesses"]} register accesses, {passes["virtual_ms"]} virtual ms\n', flush=True)
        screens = panel(options.card_times, options.samples)
        show_panel(screens)
        print(flush=True)
        with tempfile.TemporaryDirectory() as folder:
            requests = snmp.measure(options.headend, options.exchange, folder)
        snmp.show(requests)
        if options.json:
            save(options.json, {'machine': f'{platform.machine()}, {os.cpu_count()} processors', 'speed': rows,
                                'full_house': house, 'routed': packets, 'instructions': counts,
                                'instructions_a_routed_packet': routed_counts, 'startup': timelines,
                                'calibration': calibrations, 'status_pass': passes, 'panel': screens, 'snmp': requests})
    except (NoFigure, instructions.CannotCount, RuntimeError, OSError, subprocess.SubprocessError) as error:
        print(error, file=sys.stderr)
        return 1
    return 0 if instructions.kept(counts) and instructions.flat(routed_counts) else 1


if __name__ == '__main__':
    sys.exit(main())
