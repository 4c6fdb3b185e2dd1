#!/usr/bin/env python3
# What runs leave: settings from an operator at the RF connector and in the flash, and through a restart; equal bytes
# where arguments and flash folders are equal, also from two builds.
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


# Memory as valgrind sees it: the start of six cards, with an upload.
def six_cards_start_without_an_error_of_memory(case):
    case.execute(['valgrind', '-q', '--error-exitcode=9', case.args.headend, '--fast', '--seconds', '8', '--flash',
                  case.flash(), *(f'--card={slot}' for slot in range(1, 7)), '--psi', f'2.1={case.sample("psi-full.ts")}'])


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


# Every file that a run with much in it leaves: two cards, uploads on the way, a crowded bus, a programme. With `config`
# its flags are in a configuration file.
def run(case, program, config=False):
    folder = case.path(f'run{case.runs}')
    flash, outs = case.flash(folder), {channel: os.path.join(folder, channel) for channel in ('1.1', '1.2', '5.2')}
    # A short one, so that loading it does not fill the bus log.
    harness.write(os.path.join(flash, harness.BITSTREAM), bytes(range(256)) * 10)
    flags = [
        '--fast', '--seconds', '4', '--card', '1', '--card', '5', '--any-bitstream', '--bus-ns', '150',
        '--flash', flash, '--psi', f'1.1={case.sample("psi-many.ts")}', '--psi', f'1.1={case.sample("psi-small.ts")}@2.5',
        '--psi', f'5.2={case.sample("psi-full.ts")}', '--interval', '1.1.PMT=1', '--interval', '5.2.SDT_O=2',
        '--source', f'6={case.sample("two-programmes.ts")}', '--programme', '1.2=6.1:Harbour',
        '--do', '@2.5 var set 1 rfreq 474000', '--do', '@3.5 rf 1', '--do', '@3 cal read 1',
        *[word for channel, file in outs.items() for word in ('--out', f'{channel}={file}')],
        *[word for name in ('log', 'trace', 'bus-log') for word in ('--' + name, os.path.join(folder, name))]]
    if config:
        harness.write(case.path('conf'), case.execute([case.args.headend, *flags, '--write-config']).text.encode())
        flags = ['--config', case.path('conf'), '--report', case.path('page.html')]  # which changes nothing else
    done = case.headend(*flags, '--report', os.path.join(folder, 'report'), other=program)
    case.says(done, r'slot 1\n  common  00 04[\s\S]*1\.1  on air    474\.0000 .*\n1\.2')  # what the commands show, in order
    return harness.tree(folder)


# The second one is by a headend of another build if one is given.
def two_runs_give_equal_bytes(case):
    first, second = run(case, None), run(case, case.args.other, config=True)
    case.check(len(first['5.2']) > 10_000_000, 'the output is too short to say anything')
    differ = [name for name in sorted({*first, *second}) if first.get(name) != second.get(name)]
    case.equal(differ, [], 'files that differ')


# flag, value, the phase of the start-up that it lengthens, by at least so many milliseconds
TIMES = (('--bus-ns', 200, 'FPGA configuration', 200), ('--loop-ns', 100, 'DAC calibration', 4),
         ('--wait5us-ns', 10000, 'clock generator', 8), ('--dog-ns', 100000, 'clock generator', 30),
         ('--call-ns', 100000, 'FPGA configuration', 2), ('--memory-ns', 10000000, 'registration', 10),
         ('--file-ns', 10000000, 'bitstream file', 5), ('--save-ns', 150000000, 'registration', 90))


def each_time_of_a_call_lengthens_the_start_up(case):
    def phases(name, *flags):
        run = case.fast(case.flash(name), 6, *flags)
        return {phase['phase']: phase['ms'] for phase in case.card(run, 1)['startup']}

    usual = phases('usual')
    for flag, value, phase, least in TIMES:
        longer = phases(flag, flag, str(value))[phase] - usual[phase]
        case.check(least <= longer < 3 * least, f'{flag} {value}: {phase} takes {longer} ms more')
    case.check(phases('seed', '--seed', '7')['FPGA configuration'] != usual['FPGA configuration'], '--seed 7 has no effect')


# The driver's waits are 5 us long on the card; at half of that it keeps the times of standard mode, at less no more.
def too_fast_a_master_is_seen_on_each_bus(case):
    for wait, buses in (('2500', set()), ('2000', {'clock_generator', 'sensor1', 'sensor2', 'eeprom'})):
        run = case.fast(case.flash(wait), 2, '--wait5us-ns', wait)
        seen = {name.split('_clock_low')[0] for name in run.report['protocol_violations'] if '_clock_low' in name}
        case.equal(seen, buses, f'buses with violations at {wait} ns')


# Six cards, the whole range of each setting, a calibration with a slow EEPROM; a bitstream of the largest part.
def the_driver_as_it_is_breaks_no_rule(case):
    flags = [word for slot in range(1, 7) for word in (
        '--card', str(slot), '--eeprom-cycle', f'{slot}=10', '--do', f'@5 cal write {slot} --i 10 0f 40 00')]
    values = [('symbolrate', rate) for rate in range(5000, 7001, 125)] + [('rfreq', 52000), ('rfreq', 1000000), ('rflevel', 950),
                                                        ('rflevel', 1150), ('qammode', 7), ('rfswitch', 1), ('power', 0)]
    flags += [word for n, (name, value) in enumerate(values) for word in ('--set', f'{n % 2 + 1}.{name}={value}')]
    case.clean(case.fast(case.flash(), 8, *flags), assertions=4)
    flash = case.flash('large')
    harness.write(os.path.join(flash, harness.BITSTREAM), bytes(1 << 20))
    case.clean(case.fast(flash, 4, '--any-bitstream'))


def what_hung_at_a_fault_goes_on_when_it_ends(case):
    commands = ('@1.5 var get 1 temperature1', '@2.7 fault list', '@4 fault list',
                '@4.5 fault add 1.lo1-no-reference --seconds 1', '@5 rf 1', '@6 rf 1',
                '@6.2 fault add eeprom-no-ack', '@6.3 fault clear eeprom-no-ack', '@6.4 fault list')
    run = case.fast(case.flash(), 8, '--fault', '1.sensor1-scl-low@1..3', '--fault', '1.config-lost@7',
                    *[word for command in commands for word in ('--do', command)], codes=(1,))
    planned = r'1\.config-lost  not present, from 7\.000 s\n'
    case.says(run, rf'1\.sensor1-scl-low  present, from 1\.000 s to 3\.000 s\n{planned}.* 25 deg C\n{planned}'
              rf'[\s\S]*first oscillator: no ref[\s\S]*on air[^\n]*\n{planned}',
              r'4\.5\d*\] headend: fault on card 1: the first oscillator')
    hung = {task['task']: task['longest_poll_ms'] for task in run.report['watchdog'] if task['longest_poll_ms'] > 100}
    card = case.card(run, 1, 'config_error')
    case.equal((hung, 'hung' in card, card['channels'][0]['rf']['verdict']), ({'tBackEnd': 1000}, False, 'off'), 'the end')
    case.equal(run.report['protocol_violations'], {}, 'violations')


harness.main(__name__)

