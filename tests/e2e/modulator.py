#!/usr/bin/env python3
"""Settings from an operator to the RF connector, to the flash, and through a restart."""
import os
import struct

import harness
from harness import record_file

# name: (value, the RF output then shown, offset and format of the field in the record)
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
PHASES = ['registration', 'bitstream file', 'FPGA configuration', 'settling', 'modulator reset', 'clock generator',
          'DAC calibration', 'temperature sensor 1', 'temperature sensor 2', 'settings', 'PSI queue and lists',
          'PSI queue and lists']


def rf_shows(case, run, wanted, what):
    for channel, entry in enumerate((case.card(run, 1) or {'channels': []})['channels']):
        rf = entry['rf']
        for key, value in wanted.items():
            due = value + 8000 * channel if key == 'frequency_khz' else value
            got = round(rf[key], 2) if isinstance(rf[key], float) else rf[key]
            case.equal(got, due, f'{what}: {key} of channel {channel + 1} ({rf["why"]})')


def settings_are_on_the_air_and_survive_a_restart(case):
    flash = case.flash()
    run = case.fast(flash, 2)
    case.clean(run)
    rf_shows(case, run, DEFAULT, 'default')
    case.equal([phase['phase'] for phase in case.card(run, 1)['startup']], PHASES, 'phases of the start-up')
    file = os.path.join(flash, record_file(1))
    due, wanted = bytearray(harness.read(file)), {}
    for value, shown, offset, form in SETTINGS.values():
        struct.pack_into(form, due, offset, value)
        wanted |= shown
    flags = [word for name, (value, *_) in SETTINGS.items() for word in ('--set', f'1.{name}={value}')]
    for given, saves in ((flags, len(SETTINGS)), ([], 0)):
        run = case.fast(flash, 3, *given)
        case.clean(run)
        rf_shows(case, run, wanted, f'with {given}')
        case.equal(case.card(run, 1)['saves'], saves, f'saves with {given}')
        case.equal(run.report['semaphore_waits'], [], f'waits with {given}')
        case.check(harness.read(file) == bytes(due), 'the record is not the default with these fields')


harness.main(__name__)
