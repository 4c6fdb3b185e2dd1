#!/usr/bin/env python3
"""Settings from an operator to the RF connector, to the flash, and through a restart."""
import json
import os
import struct

import harness
from harness import Server, record_file

# name: (value, what the RF output then shows, offset and format of the field in the record)
SETTINGS = {
    'rfreq': (474000, {'frequency_khz': 474000}, 16, '<I'),
    'rflevel': (1105, {'level_dbuv': 110.5}, 12, '<I'),
    'symbolrate': (6250, {'symbol_rate_kbd': 6250, 'clock_kbd': 6250}, 20, '<I'),
    'qammode': (7, {'constellation': '256-QAM'}, 24, '<B'),
    'rfswitch': (1, {'on_air': False, 'verdict': 'off'}, 29, '<B'),
    'power': (0, {'on_air': False, 'verdict': 'off'}, 32, '<B'),
}
DEFAULT = {'frequency_khz': 554000, 'level_dbuv': 100, 'symbol_rate_kbd': 6875, 'clock_kbd': 6875,
           'constellation': '64-QAM', 'on_air': True, 'verdict': 'on air', 'why': ''}
RECORD_CLOCK = 36  # the clock table: 17 rows of eight 16-bit words
PHASES = ['registration', 'bitstream file', 'FPGA configuration', 'settling', 'modulator reset', 'clock generator',
          'DAC calibration', 'temperature sensor 1', 'temperature sensor 2', 'settings', 'PSI queue and lists',
          'PSI queue and lists']


def rf_shows(case, run, wanted, what):
    for channel, entry in enumerate((case.card(run, 1) or {'channels': []})['channels']):
        rf = entry['rf']
        for key, value in wanted.items():
            due = value + 8000 * channel if key == 'frequency_khz' else value
            ok = abs(rf[key] - due) < 0.01 if isinstance(due, (int, float)) and not isinstance(due, bool) and \
                rf[key] is not None else rf[key] == due
            case.check(ok, f'{what}: {key} of channel {channel + 1} is {rf[key]}, not {due} ({rf["why"]})')


def settings(case):
    """Each alone: shown, kept in its field and nowhere else, and there again after a restart."""
    flash = case.flash('default')
    run = case.fast(flash, 2)
    case.clean(run)
    rf_shows(case, run, DEFAULT, 'default')
    case.equal([phase['phase'] for phase in case.card(run, 1)['startup']], PHASES, 'phases of the start-up')
    default = harness.read(os.path.join(flash, record_file(1)))
    for name, (value, shown, offset, form) in SETTINGS.items():
        flash = case.flash(name)
        run = case.fast(flash, 3, '--set', f'1.{name}={value}')
        case.clean(run)
        rf_shows(case, run, {**{k: v for k, v in DEFAULT.items() if k not in ('on_air', 'verdict', 'why')}, **shown},
                 name)
        record = harness.read(os.path.join(flash, record_file(1)))
        due = bytearray(default)
        struct.pack_into(form, due, offset, value)
        case.check(record == bytes(due), f'{name}: the record is not the default with that field')
        again = case.fast(flash, 2)
        case.clean(again)
        rf_shows(case, again, shown, f'{name} after a restart')
        case.equal(case.card(again, 1)['saves'], 0, f'{name}: saves after a restart')


def times(case):
    """Two settings of one variable and a fault: each in force from its time on."""
    for seconds, frequency, on_air in ((3, 554000, True), (5, 474000, True), (7, 858000, True), (9, None, False)):
        run = case.fast(case.flash(f'flash{seconds}'), seconds, '--set', '1.rfreq=858000@6', '--set', '1.rfreq=474000@4',
                        '--fault', '1.lo2-no-reference@8', codes=(1 if seconds < 6 else 0,))  # what was not done yet
        rf = case.card(run, 1)['channels'][0]['rf']
        case.equal((rf['frequency_khz'], rf['on_air']), (frequency, on_air), f'after {seconds} s')


def clock_tables(case):
    """A record's own clock table is obeyed; a rate without a row is taken, warned of, and seen to be faulty."""
    flash = case.flash()
    case.fast(flash, 1)
    path = os.path.join(flash, record_file(1))
    record = bytearray(harness.read(path))
    rows = [list(struct.unpack_from('<8H', record, RECORD_CLOCK + 16 * i)) for i in range(17)]
    rows[2] = [6001] + rows[8][1:]          # a rate of its own, with the registers of 6000
    rows[15] = [6875] + rows[10][1:]        # 6875 with the registers of 6250
    record[RECORD_CLOCK:RECORD_CLOCK + 272] = b''.join(struct.pack('<8H', *row) for row in rows)
    harness.write(path, bytes(record))
    rf_shows(case, case.fast(flash, 2), {'symbol_rate_kbd': 6875, 'clock_kbd': 6250, 'verdict': 'faulty'}, '6875')
    run = case.fast(flash, 2, '--set', '1.symbolrate=6001')
    case.says(run, 'clock', '6001')
    rf_shows(case, run, {'symbol_rate_kbd': 6001, 'clock_kbd': 6000, 'verdict': 'faulty'}, '6001')  # 167 ppm off
    rf_shows(case, case.fast(case.flash('other'), 2, '--set', '1.symbolrate=6900'),
             {'symbol_rate_kbd': 6900, 'clock_kbd': 6875, 'on_air': False, 'verdict': 'faulty'}, '6900')


# Flags, text. Each is a wrong call.
WRONG = [
    ('--set 1.rfreq=51999', '52000.*1000000'), ('--set 1.rflevel=1001', '950.*1150.*5'),
    ('--set 1.symbolrate=7001', '5000.*7000'), ('--set 1.qammode=4', '64-QAM'), ('--set 1.rfswitch=2', '0.*1'),
    ('--set 1.power=1', '15'), ('--set 1.version=1', 'rfreq'), ('--set 1.rfreq2=500000', 'rfreq'),
    ('--set rfreq=500000', 'N.NAME'), ('--set 7.rfreq=500000', 'N.NAME'), ('--set 2.rfreq=500000', '--card 2'),
    ('--set 1.rfreq=500000@soon', 'seconds'), ('--set 1.rfreq=0x7A120', '52000'), ('--set 1.rfreq=', 'N.NAME'),
    ('--set 1.temperature1=128', '-55.*127'), ('--set 1.temperature3=20', 'temperature1'),
    ('--set 1.temperature1=nan', '-55.*127'), ('--set 3.temperature1=20', '--card 3'),
    ('--trace FLASH/para/card1.dat', 'the cards'), ('--report FLASH/K717_QAM/qam.bin', 'the cards'),
    ('--fault no-such', '--fault help'), ('--fault 2.lo1-no-latch', '--card 2'), ('--fault lo1-no-latch@x', 'seconds'),
]


def wrong_calls(case):
    flash = case.flash()
    before = harness.tree(flash)
    for flags, text in WRONG:
        words = [word.replace('FLASH', flash) for word in flags.split()]
        case.says(case.execute([case.args.headend, '--flash', flash, '--fast', '--seconds', '1', *words], (2,)), text)
    case.equal(harness.tree(flash), before, 'flash folder')
    case.says(case.execute([case.args.headend, '--fault', 'help']), 'lo1-no-latch', 'sensor2-absent', 'clock-sda-low')


def qamctl(case):
    """The same over the management socket, while the card runs."""
    with Server(case, case.flash(), '--card', '1', '--set', '1.temperature1=-5', '--fault', '1.sensor2-absent') as server:
        server.wait_started(1)

        def var(*words, codes=(0,)):
            return case.qamctl(server.address, 'var', *words, codes=codes)

        def rf():
            return json.loads(case.qamctl(server.address, 'rf', '1', '--json').text)

        case.equal([entry['frequency_khz'] for entry in rf()], [554000, 562000], 'carriers')
        case.says(case.qamctl(server.address, 'rf'), 'on air', '554', '562', '64-QAM')
        for name, (value, shown, _, _) in SETTINGS.items():
            var('set', '1', name, str(value))
            case.says(var('get', '1', name), str(value))
            for key, due in shown.items():
                case.equal(rf()[0][key], due, f'{name}: {key}')
        case.says(var('get', '1', 'rfreq2'), '482000')
        case.says(var('get', '1', 'temperature1', '48'), '-5', '-1')
        case.says(var('get', '1', '36', '45', 'software_version', 'fpga_version', '52'), r'\d+Kb/s', r'V2\.1\.05A',
                  r'V2\.1\.05', r'V1\.0')
        for words, code, text in (('set 1 rfreq 51999', 2, '52000'), ('set 1 38 500000', 2, 'rfreq2'), ('set 1 51 0', 2, '51'),
                                  ('get 1 46', 2, '46'), ('get 2 30', 1, 'slot|card'), ('get 9 30', 2, '9')):
            case.says(var(*words.split(), codes=(code,)), text)
        report = server.stop()
    case.equal(report['protocol_violations'], {}, 'violations')
    case.equal(report['semaphore_waits'], [], 'waits')


CASES = {'settings': settings, 'times': times, 'clock-tables': clock_tables, 'wrong-calls': wrong_calls,
         'qamctl': qamctl}

if __name__ == '__main__':
    harness.main(CASES)
