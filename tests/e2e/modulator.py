#!/usr/bin/env python3
"""Settings from an operator to the RF connector, to the flash, and through a restart."""
import os
import struct

import harness
from harness import record_file

SETTINGS = (('rfreq', 474000, 16, '<I'), ('rflevel', 1105, 12, '<I'), ('symbolrate', 6250, 20, '<I'),
            ('qammode', 7, 24, '<B'), ('rfswitch', 1, 29, '<B'), ('power', 0, 32, '<B'))  # and where the record has them
DEFAULT = {'frequency_khz': 554000, 'level_dbuv': 100, 'symbol_rate_kbd': 6875, 'clock_kbd': 6875,
           'constellation': '64-QAM', 'on_air': True, 'verdict': 'on air', 'why': ''}
SET = {'frequency_khz': 474000, 'level_dbuv': 110.5, 'symbol_rate_kbd': 6250, 'clock_kbd': 6250,
       'constellation': '256-QAM', 'on_air': False, 'verdict': 'off'}
PHASES = ['registration', 'bitstream file', 'FPGA configuration', 'settling', 'modulator reset', 'clock generator',
          'DAC calibration', 'temperature sensor 1', 'temperature sensor 2', 'settings', 'PSI queue and lists',
          'PSI queue and lists']


def settings_are_on_the_air_and_survive_a_restart(case):
    flash = case.flash()
    file, due = os.path.join(flash, record_file(1)), None
    flags = [word for name, value, *_ in SETTINGS for word in ('--set', f'1.{name}={value}')]
    for given, wanted, saves in (((), DEFAULT, 1), (flags, SET, len(SETTINGS)), ((), SET, 0)):
        run = case.fast(flash, 3, *given)
        case.clean(run)
        card, record = case.card(run, 1), harness.read(file)
        for n, channel in enumerate(card['channels']):
            shown = {key: round(value, 2) if isinstance(value, float) else value
                     for key, value in channel['rf'].items() if key in wanted}
            case.equal(shown, wanted | {'frequency_khz': wanted['frequency_khz'] + 8000 * n}, f'channel {n + 1}, {given}')
        case.equal((card['saves'], run.report['semaphore_waits']), (saves, []), f'saves and waits with {given}')
        if due is None:
            case.equal([phase['phase'] for phase in card['startup']], PHASES, 'phases of the start-up')
            due = bytearray(record)
            for _, value, offset, form in SETTINGS:
                struct.pack_into(form, due, offset, value)
        else:
            case.check(record == bytes(due), f'the record with {given} is not the default with these fields')


harness.main(__name__)
