#!/usr/bin/env python3
"""The trace of a start-up: sigrok-cli, which knows nothing of this card, decodes its buses; what no protocol covers
is read from the file itself."""
import os
import re

import harness
from lines import changes, chosen, i2c


def traced(case, *lines, flags=()):
    """The trace file of a default start-up of card 1."""
    file = case.path('trace.vcd')
    run = case.fast(case.flash(f'flash{case.runs}'), 1, '--trace', file, *chosen(*lines), *flags)
    case.card(run, 1)
    return file


def each_i2c_bus_carries_its_set_up(case):
    """The clock generator gets its set-up, then the row of 6875 kBd with one register read back. Each sensor is powered
    down in its configuration register, which comes up with its filter on; nothing else changes."""
    set_up = [(0x01, 0x08), (0x02, 0x14), (0x24, 0xE5), (0x15, 0x02),
              (0x1C, 0x00), (0x1D, 0x40), (0x1E, 0x02), (0x1F, 0x08), (0x14, 0x8D)]
    row = [(0x16, 0x01), (0x17, 0x00), (0x18, 0x00), (0x19, 0x40), (0x1A, 0x02), (0x1B, 0x0B)]
    sensor = ['[ 4Aw + 01 + [[ 4Ar + 40 - ]', '[ 4Aw + 01 + C0 + ]']
    for bus, wanted in (('cdce925', [*clock_writes(set_up), '[ 64w + 94 + [[ 64r + 8D - ]', *clock_writes(row)]),
                        ('ad7414', sensor), ('ext_ad7414', sensor)):
        case.equal('\n'.join(i2c(case, traced(case, f'{bus}_s??'), bus)), '\n'.join(wanted), bus)


def clock_writes(registers):
    return [f'[ 64w + {0x80 + register:02X} + {value:02X} + ]' for register, value in registers]


def order_of(found):
    """Names in order of their first change, a bus as one."""
    bus = re.compile(r'^(cdce925|ad9775_1|ad7414|ext_ad7414|lo1|lo2_q1|att_q1|rf_off|pkt_len|oport_num|X24C16).*')
    return list(dict.fromkeys(bus.sub(r'\1', change.name) for change in found))


def devices_are_set_up_in_order(case):
    """Which device comes after which, and on each its first lines: a bus goes idle data first, the clock generator's
    select is high before anybody talks to it."""
    found = changes(case, traced(case))
    groups = ['nrst', 'cdce925', 'ad9775_1', 'X24C16', 'ad7414', 'ext_ad7414', 'qam_mode', 'rf_off', 'pkt_len',
              'oport_num', 'power', 'lo1', 'q1_12v_ctrl', 'lo2_q1', 'att_q1']
    case.equal([name for name in order_of(found) if not name.startswith('Psi')], groups, 'order of first changes')
    starts = {'cdce925': ['_sda', '_scl', '_s0'], 'ad7414': ['_sda', '_scl'], 'ext_ad7414': ['_sda', '_scl'],
              'X24C16': ['SDA', 'SCL']}
    for bus, lines in starts.items():
        first = [change.name.removeprefix(bus) for change in found if change.name.startswith(bus)]
        case.equal(first[:len(lines)], lines, f'{bus}: first lines')


def patterns_leave_a_part_of_the_trace(case):
    """Two cards, and channels that send: what patterns leave is the same as in the whole."""
    def run(name, *flags):
        file = case.path(name + '.vcd')
        psi = ['--psi', f'1.2={case.sample("psi-small.ts")}']
        case.fast(case.flash(name), 1, '--card', '1', '--card', '3', *psi, '--trace', file, *flags)
        return file

    first = run('whole')
    part = changes(case, run('part', '--trace-lines', 'slot1.PsiData?', '--trace-lines', 'cdce925_sd?'))
    kept = {('slot1', 'PsiData1'), ('slot1', 'cdce925_sda'), ('slot3', 'cdce925_sda')}
    case.equal({(change.slot, change.name) for change in part}, kept, 'registers of patterns')
    wanted = [change for change in changes(case, first) if (change.slot, change.name) in kept]
    case.check(part == wanted, f'{len(part)} changes with patterns, {len(wanted)} of these registers in the whole')


def files_and_patterns_that_cannot_be_used_are_refused(case):
    """Files and patterns that cannot be used; a disk that is full by the end."""
    flash = case.flash()
    full = case.path('full')  # a link, so that a fault here replaces no device of this machine
    os.symlink('/dev/full', full)
    for target in (case.path('missing', 'trace.vcd'), full):
        case.says(case.fast(flash, 1, '--trace', target, codes=(1,)), target)
    file = case.path('trace.vcd')
    calls = {'lo3_*': ['--trace', file, '--trace-lines', 'lo3_*'], '--trace': ['--trace-lines', 'lo1_*'],
             'slot2.nrst': ['--trace', file, '--trace-lines', 'nrst', '--trace-lines', 'slot2.nrst'],
             '--log': ['--trace', file, '--log', file]}
    for word, flags in calls.items():
        case.says(case.fast(flash, 1, *flags, codes=(2,)), re.escape(word))
    case.check(not os.path.exists(file), 'a wrong call has made a trace')


harness.main([each_i2c_bus_carries_its_set_up, devices_are_set_up_in_order, patterns_leave_a_part_of_the_trace,
              files_and_patterns_that_cannot_be_used_are_refused])
