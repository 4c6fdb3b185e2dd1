#!/usr/bin/env python3
# Tables of real captures on the air, as tscheck sees them: whole and on time, on two cards at once, after a restart
# from the flash alone, on a slow machine, and while others replace them.
import json
import os

import harness
from harness import PACKET, RATE, TYPES

# Exact to the tick: nothing else uses the processor meanwhile, as a status check does for some milliseconds.
ALONE = ['--status-period', '0']


def words(prefix, intervals):
    return [word for table, ticks in intervals.items() for word in ('--interval', f'{prefix}{table}={ticks}')]


def judged(case, channel, capture, intervals, *flags):
    flags = [*RATE, *words('', intervals), *flags]
    return case.tscheck(case.path(channel), '--psi', case.sample(capture), '--no-limits', *flags)


# What the headend reports of a channel is what tscheck has seen.
def compare_report(case, told, seen, intervals, size):
    packets = told['packets']
    case.equal((packets['total'], packets['psi'], packets['psi'] + packets['routed'] + packets['null']),
               (size // PACKET, seen['packets_not_null'], packets['total']), 'packets in the report')
    case.check(abs(told['bit_rate'] - harness.RATE_NUM / harness.RATE_DEN) < 1, f'bit rate {told["bit_rate"]}')
    for table in TYPES:
        entry, due = told['tables'].get(table, {}), seen['psi']['types'].get(table)
        if due is None:
            case.equal(entry.get('posted', 0), 0, f'{table} packets posted')
            continue
        case.equal(entry['set_ticks'], intervals.get(table, 300), f'{table} interval in the report')
        for key, ticks in due['interval_ticks'].items():
            case.check(abs(entry['interval_ticks'][key] - ticks) < 1, f'{table} {key}: report {entry}, tscheck {due}')


# The JSON that a command of the run has printed.
def output_of(run, command):
    return next(json.loads(each['output']) for each in run.report['commands'] if each['command'] == command)


# The groups that the card began in the last seconds have the stream's intervals; none of them was late.
def compare_ticks(case, told, seen):
    for table in told['tables']:
        due = seen['psi']['types'].get(table['table'])
        groups = table['groups']
        case.equal([table['overdue_ticks']] + [group['late_ticks'] for group in groups], [0] * (1 + len(groups)), table['table'])
        if due is not None and len(groups) > 1:
            found = [group['interval_ticks'] for group in groups]
            case.check(due['interval_ticks']['min'] - 1 < min(found) and max(found) < due['interval_ticks']['max'] + 1, f'{table} {due}')


OUTPUTS = {  # channel: capture, intervals other than the default
    '1.1': ('two-programmes.ts', {'PAT': 1, 'PMT': 2, 'SDT_C': 500}),
    '1.2': ('psi-many.ts', {'PMT': 40, 'SDT_O': 6, 'SDT_C': 25, 'BAT': 70, 'NIT_C': 11, 'NIT_O': 12}),
    '5.1': ('psi-small.ts', {'CAT': 999, 'NIT_C': 0}),
    '5.2': ('psi-full.ts', {'PMT': 250, 'SDT_O': 10, 'SDT_C': 33, 'BAT': 100, 'NIT_C': 40, 'NIT_O': 61}),
}


def tables_are_whole_and_on_time_also_after_a_restart(case):
    flash, flags, uploads, ask = case.flash(), ['--card', '1', '--card', '5'], [], '@11.5 psi ticks {} --seconds 3 --json'
    for channel, (capture, intervals) in OUTPUTS.items():
        flags += ['--out', f'{channel}={case.path(channel)}', '--do', ask.format(channel)]
        uploads += ['--psi', f'{channel}={case.sample(capture)}', *words(channel + '.', intervals)]
    for start in (uploads, []):
        run = case.fast(flash, 12, *ALONE, *flags, *start)
        case.clean(run, assertions=1)  # the card in slot 5 fails a check meant for channels, at every start
        case.equal([(f['unit'], f['line'], f['text']) for f in run.report['assertion_failures']],
                   [('qamVar', 196, 'slotNo<MAX_QAM_OUT_NUM')], 'failed checks')
        for channel, (capture, intervals) in OUTPUTS.items():
            seen = judged(case, channel, capture, intervals)
            told = case.card(run, int(channel[0]))['channels'][int(channel[2]) - 1]
            compare_report(case, told, seen, intervals, os.path.getsize(case.path(channel)))
            compare_ticks(case, output_of(run, ask[6:].format(channel)), seen)
            os.remove(case.path(channel))
    case.tidy(flash)


SMALL = {'PAT': 10, 'PMT': 12}
MACHINES = {  # name: flags, {channel: capture}, intervals, flags of tscheck
    '60 Hz': (['--aux-hz', '60', '--tick-hz', '60'], {'1.1': 'psi-small.ts'}, SMALL, ['--aux-hz', '60']),
    # More packets are due than the bus can carry: the queues are always full, and packets are only delayed.
    'slow bus': (['--bus-ns', '800'], {'1.1': 'psi-many.ts', '1.2': 'two-programmes.ts'}, dict.fromkeys(TYPES, 1),
                 ['--untimed']),
}


def tables_are_whole_at_other_clocks_and_on_a_slow_bus(case):
    for name, (flags, captures, intervals, how) in MACHINES.items():
        for channel, capture in captures.items():
            flags = flags + ['--psi', f'{channel}={case.sample(capture)}', '--out', f'{channel}={case.path(channel)}',
                             *words(channel + '.', intervals)]
        case.clean(case.fast(case.flash(name), 12, *ALONE, *flags))
        types = [judged(case, channel, capture, intervals, *how)['psi']['types'] for channel, capture in captures.items()]
        if '--untimed' not in how:  # and no section here is long enough to delay another
            begin = types[0]['PAT']['first_tick']
            case.equal({table: round(seen['first_tick'] - begin) for table, seen in types[0].items()},
                       {table: TYPES[table][0] for table in types[0]}, f'{name}: ticks from the first PAT on')
    many = types[0]['PMT']
    case.check(many['interval_ticks']['mean'] > 1.1 * many['sections'], f'no overload: {many}')


# First and second capture, interval of all tables, nanoseconds per bus access: the longer the write of a packet, the
# fuller the queues. 8 packets per tick of 204 writes at 500 ns leave little of the tick.
UPLOADS = [('psi-many.ts', 'psi-full.ts', 1, 30), ('psi-many.ts', 'psi-small.ts', 1, 150),
           ('psi-many.ts', 'psi-many.ts', 1, 500), ('psi-full.ts', 'two-programmes.ts', 3, 300)]
LOADED = 4.5  # the second capture is loaded; the start takes up to 2 s


def an_upload_while_the_card_sends_damages_nothing(case):
    for first, second, ticks, bus_ns in UPLOADS:
        cut, intervals = 0, dict.fromkeys(TYPES, ticks)
        for offset in ('3.00037', '3.0109'):
            run = case.fast(case.flash(f'{second} {bus_ns} {offset}'), 7.5, '--bus-ns', str(bus_ns),
                            '--out', f'1.1={case.path("out")}', *words('1.1.', intervals),
                            '--psi', f'1.1={case.sample(first)}', '--psi', f'1.1={case.sample(second)}@{offset}')
            case.clean(run)
            case.card(run, 1)
            seen = case.tscheck(case.path('out'), '--allow-cut', '--every-pid')
            cut += seen['cut_sections']
            case.check(seen['packets_not_null'] > 20, f'hardly anything on the air: {seen}')
            judged(case, 'out', second, intervals, '--untimed', '--from', str(LOADED))
        case.check(cut > 0 or ticks > 1, f'{first}, {second}: no section was ever cut short, so the row shows nothing')


harness.main(__name__)
