#!/usr/bin/env python3
"""A technician's calibration: over the network with bytes of nobody's library, through a pulled plug, and on the lines
as a decoder reads them."""
import os
import re
import subprocess

import harness
from harness import Server
from lines import decoded, lines_only

BLANK = b'\xff' * 13
MINE = bytes([0x04, 0, 0, 0, 0, 0x12, 0x0f, 0x40, 0x02, 0x0c, 0x0f, 0, 0x80])
THEIRS = bytes([0x04, 0, 0, 0, 0, 0x11, 0x0e, 0x41, 0x01, 0x0b, 0x0d, 1, 0x02])
LINES = ['--trace-lines', 'X24C16*', '--trace-lines', 'ad9775_1_*']


class Service(Server):
    """A headend whose calibration service stands on a port of its own."""

    def __init__(self, case, flash, *args):
        super().__init__(case, flash, '--calibration', '127.0.0.1:0', *args)

    def calibration_address(self):
        self.wait(lambda: re.search(r'calibration on (\S+)', self.text()))
        return re.search(r'calibration on (\S+)', self.text()).group(1)

    def socat(self, request):
        """What comes back in a second and a half for these bytes."""
        return subprocess.run(['socat', '-t', '1.5', '-', 'UDP:' + self.calibration_address()], input=request,
                              capture_output=True, check=True, timeout=60).stdout


def eeprom(flash):
    return os.path.join(flash, 'eeprom', 'card1.bin')


def bytes_written_outlive_a_kill(case):
    """socat writes and reads; the headend is killed, and the next one loads what was written."""
    flash = case.flash()
    with Service(case, flash) as service:
        service.wait_started(1)
        case.equal(service.socat(b'\1\0'), b'\1\0' + BLANK, 'a blank card')
        case.equal(service.socat(b'\2\0' + MINE), b'', 'reply to a write')
        case.equal(service.socat(b'\1\0 and whatever follows'), b'\1\0' + MINE, 'after a write')
        service.kill()
    case.equal(harness.read(eeprom(flash))[:14], MINE + b'\xff', 'EEPROM after the plug was pulled')
    run = case.fast(flash, 1)
    case.equal(bytes(case.card(run, 1)['calibration']['dac']), MINE, 'DAC after the restart')


def a_power_cut_harms_no_byte(case):
    """At an edge or at a time: a clean end, and what is in the EEPROM stays."""
    flash = case.flash()
    harness.write(eeprom(flash), MINE + b'\xff' * 2035)
    whole = case.fast(flash, 2)
    case.clean(whole)
    edges = case.card(whole, 1)['calibration']['edges']
    for cut in ('1=1', f'1={edges}', '1=@0.2', '1=@1.5'):
        run = case.fast(flash, 2, '--power-cut', cut)
        case.check(run.report['virtual_seconds'] < 2, f'{cut}: the run went on')
        case.equal(harness.read(eeprom(flash)), MINE + b'\xff' * 2035, f'{cut}: EEPROM')
    case.says(case.fast(flash, 2, '--power-cut', f'1={edges + 1}', codes=(1,)), f'{edges} edges')  # never comes
    harness.write(eeprom(flash), MINE)
    case.says(case.fast(flash, 1, codes=(1,)), 'card1.bin', '2048')


def decoders_read_the_transfers(case):
    """sigrok's decoders of the EEPROM and of the DAC's port, over a start-up and over a write."""
    flash, file = case.flash(), case.path('lines.vcd')
    harness.write(eeprom(flash), MINE + b'\xff' * 2035)
    case.fast(flash, 1, '--trace', file, *LINES)
    case.equal(operations(case, file), [read_of(n, MINE) for n in range(13)], 'EEPROM in a start-up')
    case.equal(dac_bytes(case, file), [byte for n in range(13) for byte in (n, MINE[n])], 'DAC in a start-up')

    live = case.path('live.vcd')
    with Service(case, flash, '--eeprom-cycle', '1=10', '--trace', live, *LINES) as service:
        service.wait_started(1)
        service.socat(b'\2\0' + THEIRS)
        report = service.stop()
    case.equal(bytes(report['cards'][0]['calibration']['eeprom']), THEIRS, 'EEPROM in the report')
    wanted = [line for n in range(13) for line in (f'Byte write (addr={n:02X}, 1 byte): {THEIRS[n]:02X}', read_of(n, THEIRS))]
    case.equal(operations(case, live)[13:], wanted, 'EEPROM in a write')
    case.equal(dac_bytes(case, live)[26:], [byte for n in range(13) for byte in (n, THEIRS[n])], 'DAC in a write')


def read_of(n, values):
    return f'Random access read (addr={n:02X}, 1 byte): {values[n]:02X}'


def operations(case, file):
    options = {'scl': 'X24C16SCL', 'sda': 'X24C16SDA,eeprom24xx'}
    found = decoded(case, lines_only(file), 'i2c', options, {}, None, show='eeprom24xx=ops')
    return [text for text in found if not text.startswith('Page') and 'addr' in text]


def dac_bytes(case, file):
    lines = {'clk': 'ad9775_1_clk', 'mosi': 'ad9775_1_sdio', 'cs': 'ad9775_1_cs'}
    return [int(text, 16) for text in decoded(case, lines_only(file), 'spi', lines, {'cpol': 1, 'cpha': 1, 'wordsize': 8},
                                              'mosi-data')]


harness.main([bytes_written_outlive_a_kill, a_power_cut_harms_no_byte, decoders_read_the_transfers])
