#!/usr/bin/env python3
"""Tables of real captures on the air: whole, unaltered and on time, also after a restart from the flash alone and
from two cards at once, as psi_judge and ffprobe see them."""
import json
import os
import shutil

import harness
from harness import PACKET, RATE, TYPES


def services(case, path):
    """Services as ffprobe names them."""
    run = case.execute(['ffprobe', '-v', 'error', '-probesize', '400M', '-analyzeduration', '100M', '-show_programs',
                        '-print_format', 'json', path])
    programmes = json.loads(run.text[run.text.index('{'):])['programs']
    return sorted((p['program_id'], p['pmt_pid'], p.get('tags', {}).get('service_name')) for p in programmes)


def judge_output(case, card, channel, sample, out, intervals):
    """The output is right by itself, and the report says of it what the judge sees."""
    args = [word for table, ticks in intervals.items() for word in ('--interval', f'{table}={ticks}')]
    seen = case.judge('--source', case.sample(sample), '--out', out, *RATE, *args)
    if not seen or not card:
        return {}
    said = card['channels'][channel - 1]
    packets = said['packets']
    case.equal(packets['total'], os.path.getsize(out) // PACKET, 'packets in the report')
    case.equal(packets['psi'], seen['table_packets'], 'table packets in the report')
    case.equal(packets['psi'] + packets['routed'] + packets['null'], packets['total'], 'sum of packets in the report')
    case.check(abs(said['bit_rate'] - harness.RATE_NUM / harness.RATE_DEN) < 1, f'bit rate {said["bit_rate"]}')
    for table in TYPES:
        sent = seen['types'].get(table)
        told = said['tables'].get(table, {})
        if not sent:
            case.equal(told.get('posted', 0), 0, f'{table} packets posted')
            continue
        case.equal(told['set_ticks'], intervals.get(table, 300), f'{table} interval in the report')
        for key in ('min', 'mean', 'max'):
            difference = abs(told['interval_ticks'][key] - sent['interval_ticks'][key])
            case.check(difference < 1, f'{table} {key} interval: report {told}, judge {sent}')
    return seen['types']


def one_capture(sample):
    def run_case(case):
        flash, out = case.flash(), case.path('out.ts')
        for start in (['--psi', f'1.1={case.sample(sample)}'], []):
            run = case.fast(flash, 60, *ALONE, '--out', f'1.1={out}', *start)
            case.clean(run)
            types = judge_output(case, case.card(run, 1), 1, sample, out, {})
            if types and sample == 'psi-small.ts':  # no section here is long enough to hold up another
                offsets = {t: round(types[t]['first_tick'] - types['PAT']['first_tick']) for t in types}
                case.equal(offsets, {t: TYPES[t][0] for t in types}, 'ticks from the first PAT to the first of each')
            if shutil.which('ffprobe'):
                case.equal(services(case, out), services(case, case.sample(sample)), 'services')
            os.remove(out)
        case.tidy(flash)
        if not shutil.which('ffprobe'):
            raise harness.Skip('ffprobe is not installed, so nobody has named the services')
    return run_case


# To the tick: nothing else holds the processor meanwhile, as a status check does for some milliseconds.
ALONE = ['--status-period', '0']

OUTPUTS = {
    (1, 1): ('two-programmes.ts', {'PAT': 100, 'PMT': 2, 'SDT_C': 500}),
    (1, 2): ('psi-many.ts', {'PMT': 40, 'SDT_O': 6, 'SDT_C': 25, 'BAT': 70, 'NIT_C': 11, 'NIT_O': 12}),
    (5, 1): ('psi-small.ts', {'PAT': 1, 'CAT': 999, 'NIT_C': 0}),
    (5, 2): ('psi-full.ts', {'PMT': 250, 'SDT_O': 10, 'SDT_C': 33, 'BAT': 100, 'NIT_C': 40, 'NIT_O': 61}),
}


def two_cards(case):
    flash = case.flash()
    flags, uploads, outs = ['--card', '1', '--card', '5'], [], {}
    for (slot, channel), (sample, intervals) in OUTPUTS.items():
        place = f'{slot}.{channel}'
        outs[slot, channel] = case.path(f'{place}.ts')
        flags += ['--out', f'{place}={outs[slot, channel]}']
        uploads += ['--psi', f'{place}={case.sample(sample)}']
        uploads += [word for t, n in intervals.items() for word in ('--interval', f'{place}.{t}={n}')]
    for start in (uploads, []):
        run = case.fast(flash, 12, *ALONE, *flags, *start)
        case.clean(run, assertions=1)  # the card in slot 5 trips a bound that is meant for channels, at every start
        if run.report and run.report['assertion_failures']:
            failure = run.report['assertion_failures'][0]
            case.equal((failure['unit'], failure['line'], failure['text']), ('qamVar', 196, 'slotNo<MAX_QAM_OUT_NUM'),
                       'the failed check')
        for (slot, channel), (sample, intervals) in OUTPUTS.items():
            judge_output(case, case.card(run, slot), channel, sample, outs[slot, channel], intervals)
            os.remove(outs[slot, channel])
    case.tidy(flash)


def other_clocks(case):
    """The interval counts auxiliary ticks, whatever they last; a system clock below 100 Hz has no 10 ms to wait."""
    out = case.path('out.ts')
    for aux_hz, tick_hz in ((60, 60), (250, 1000)):
        case.fast(case.flash(str(aux_hz)), 12, '--aux-hz', str(aux_hz), '--tick-hz', str(tick_hz), '--psi',
                  f'1.1={case.sample("psi-small.ts")}', '--interval', '1.1.PAT=10', '--interval', '1.1.PMT=12',
                  '--out', f'1.1={out}')
        case.judge('--source', case.sample('psi-small.ts'), '--out', out, *RATE, '--aux-hz', str(aux_hz),
                   '--interval', 'PAT=10', '--interval', 'PMT=12')


def overload(case):
    """More is due than the bus can carry: the queues are full all the time, and nothing is lost but time."""
    flash, samples = case.flash(), {1: 'psi-many.ts', 2: 'two-programmes.ts'}
    flags = ['--bus-ns', '800']
    for channel, sample in samples.items():
        flags += ['--psi', f'1.{channel}={case.sample(sample)}', '--out', f'1.{channel}={case.path(sample)}']
        flags += [word for table in TYPES for word in ('--interval', f'1.{channel}.{table}=1')]
    case.clean(case.fast(flash, 12, *flags))
    for sample in samples.values():
        seen = case.judge('--source', case.sample(sample), '--out', case.path(sample), *RATE, '--untimed')
        ticks = seen['types']['PMT']['interval_ticks']['mean'] if seen else 0
        due = seen['types']['PMT']['sections'] if seen else 0
        case.check(sample != 'psi-many.ts' or ticks > 1.1 * due, f'{sample}: {ticks} ticks a round: no overload')


CASES = {name[:-3]: one_capture(name) for name in ('psi-small.ts', 'psi-full.ts')}
CASES |= {'two-cards': two_cards, 'other-clocks': other_clocks, 'overload': overload}

if __name__ == '__main__':
    harness.main(CASES)
