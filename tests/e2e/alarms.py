#!/usr/bin/env python3
# Alarms as an operator sees them: each condition from its cause to its recovery, and an input that comes and goes: 100
# times, or with QAM_LONG in the environment for a virtual day.
import json
import subprocess

import harness
from harness import Server, read, write

DOWN, INPUT, HEAT, RATE = 257, 769, 770, 771


# The history in a flash folder, as a next run tells it.
def events(case, flash):
    run = case.fast(flash, 1, '--do', '@0.5 alarms --history --json')
    return [json.loads(line) for line in run.text.splitlines() if line.startswith('{')]


# A programme of an input that is lost at times.
def lost(case, channel, times):
    return ['--source', f'6={case.sample("four-programmes-cbr.ts")}', '--programme', f'{channel}=6.1:One',
            '--fault', f'6.1.input-lost@{times}']


# More than a channel of 5000 kBd can carry.
def too_much(case, *channels):
    feed, table = case.path('feed.ts'), case.path('map.csv')
    write(feed, harness.numbered_stream([0x200], 20000))
    write(table, harness.pid_map((6, 1, 0x200, 0x300)))
    return ['--source', f'6={feed}@30000000', '--set', '1.symbolrate=5000',
            *(word for channel in channels for word in ('--pidmap', f'{channel}={table}@3'))]


# name: (flags, channel, type, text of the alarm, from, until: seconds)
CONDITIONS = {
    'input 1': (lambda case: lost(case, '1.1', '10..20'), 1, INPUT, 'Ch.1 Error', 10, 20),
    'input 2': (lambda case: lost(case, '1.2', '10/20'), 2, INPUT, 'Ch.2 Error', 10, 20),
    'heat': (lambda case: ['--set', '1.temperature2=-5@10', '--set', '1.temperature2=69@20'],  # -5: read as 251
             None, HEAT, 'High Temperature', 10, 20),
    'rate 1': (lambda case: [*too_much(case, '1.1'), '--set', '1.symbolrate=6875@17'], 1, RATE, 'rate overflow', 3, 19),
    'rate 2': (lambda case: [*too_much(case, '1.2'), '--set', '1.symbolrate=6875@17'], 2, RATE, 'rate overflow', 3, 19),
}


def each_condition_is_raised_and_recovers(case):
    for name, (flags, channel, kind, text, start, end) in CONDITIONS.items():
        flash = case.flash(name)
        run = case.fast(flash, 28, '--psi', f'1.1={case.sample("psi-small.ts")}', *flags(case))
        case.clean(run)
        case.equal(run.report['alarms']['standing'], [], f'{name}: alarms at the end')
        pat = case.card(run, 1)['channels'][0]['tables']['PAT']['interval_ticks']
        case.equal((pat['min'], pat['max']), (300, 300), f'{name}: intervals of the PAT meanwhile')
        found = events(case, flash)
        shown = [(e['event'], e['slot'], e['channel'], e['type'], e['en']['text']) for e in found]
        case.equal(shown, [(event, 1, channel, kind, text) for event in ('raised', 'recovered')], f'{name}: events')
        late = [int(e['at'].removeprefix('2000-01-01T00:00:').rstrip('Z')) - due for e, due in zip(found, (start, end))]
        case.check(0 <= min(late) and max(late) <= 2, f'{name}: {late} s after {start} and {end} s')
        case.equal(found[1]['happened'], found[0]['at'], f'{name}: when the alarm that ended had come')


def a_card_that_hangs_delays_no_alarm_and_a_power_up_ends_what_is_over(case):
    flash = case.flash()
    args = [word for card in '123' for word in ('--card', card, '--set', f'{card}.temperature2=80@10')]
    args += [*lost(case, '1.1', '10'), '--card', '4', '--fault', '4.sensor2-absent', '--fault', '2.sensor2-scl-low@5']  # absent: the value is 255
    run = case.fast(flash, 20, *args, codes=(1,))
    case.card(run, 2, 'hung')
    def standing(run):
        return sorted((a['slot'], a['type'], a['channel'], a['severity']) for a in run.report['alarms']['standing'])
    lost_input, warm = (1, INPUT, 1, 'critical'), [(n, HEAT, None, 'major') for n in (1, 3, 4)]
    case.equal(standing(run), [lost_input, *warm[:1], (2, DOWN, None, 'critical'), *warm[1:]], 'alarms')
    run = case.fast(flash, 3, *lost(case, '1.1', '10'), *(word for card in '1234' for word in ('--card', card)))
    case.equal(standing(run), [], 'alarms after the next power-up')
    ends = sorted((e['event'], e['slot'], e['type']) for e in events(case, flash) if e['event'] != 'raised')
    case.equal(ends, [('ended_while_off', 1, INPUT), ('recovered', 1, HEAT), ('recovered', 2, DOWN),
                      ('recovered', 3, HEAT), ('recovered', 4, HEAT)], 'how they ended')


# An input that is lost for two seconds of four, with qamctl on the events as they come.
def each_event_is_followed_once(case, periods=21600 if harness.LONG else 100):
    flash, seen, args = case.flash(), case.path('seen'), ['--fast', '--seconds', str(10 + 4 * periods)]
    with Server(case, flash, *args, *lost(case, '1.1', '10/4')) as server, open(seen, 'wb') as sink:
        watch = subprocess.Popen([case.args.qamctl, '--server', server.address, 'alarms', '--history', '--follow',
                                  '--json'], stdout=sink, stderr=subprocess.DEVNULL)
        server.process.wait(10 * harness.HANG_SECONDS)
        watch.wait(harness.HANG_SECONDS)
        report = server.stop()
    case.equal(report['alarms']['events'], 2 * periods, 'events')
    case.equal(report['protocol_violations'], {}, 'violations')
    # The events seen and the history: each event once, and the same in both.
    both = [json.loads(line) for line in read(seen).splitlines()]
    case.equal([e['number'] for e in both], list(range(1, len(both) + 1)), 'numbers that were followed')
    kept = [e for e in events(case, flash) if e['number'] <= 2 * periods]  # without its source the card has one more
    case.check(min(2 * periods, 10000) - len(kept) <= 1, f'{len(kept)} events are kept')
    known = {e['number']: e for e in both}
    case.equal([e for e in kept if known.setdefault(e['number'], e) != e], [], 'events that were seen otherwise')
    case.equal([(number, event['event']) for number, event in sorted(known.items())],
               [(n, ('recovered', 'raised')[n % 2]) for n in range(1, 2 * periods + 1)], 'events seen or kept')
    case.equal((known[2]['en'], known[2]['zh']),
               ({'title': 'Card1', 'text': 'Ch.1 Error', 'trap': 'qam card 1 ch.1 input OK!'},
                {'title': '卡1', 'text': '频点一错误', 'trap': 'QAM卡1频点一输入恢复正常'}), 'texts of a recovery')


harness.main(__name__)
