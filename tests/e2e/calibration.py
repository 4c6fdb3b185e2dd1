#!/usr/bin/env python3
"""A technician's calibration: over the network with bytes of no library of ours, and through power cuts."""
import os
import re
import signal
import subprocess

import harness
from harness import Server

BLANK = b'\xff' * 13
MINE = bytes([0x04, 0, 0, 0, 0, 0x12, 0x0f, 0x40, 0x02, 0x0c, 0x0f, 0, 0x80])
THEIRS = bytes([0x04, 0, 0, 0, 0, 0x11, 0x0e, 0x41, 0x01, 0x0b, 0x0d, 1, 0x02])


class Service(Server):
    """A headend whose calibration service stands on a port of its own."""

    def __init__(self, case, flash, *args):
        super().__init__(case, flash, '--calibration', '127.0.0.1:0', *args)

    def socat(self, request):
        """What comes back in a second and a half for these bytes."""
        address = self.wait(lambda: re.search(r'calibration on (\S+)', self.text())).group(1)
        return subprocess.run(['socat', '-t', '1.5', '-', 'UDP:' + address], input=request, capture_output=True,
                              check=True, timeout=60).stdout


def eeprom(flash):
    return os.path.join(flash, 'eeprom', 'card1.bin')


def bytes_written_outlive_a_kill(case):
    flash = case.flash()
    with Service(case, flash) as service:
        service.wait_started()
        case.equal(service.socat(b'\1\0'), b'\1\0' + BLANK, 'a blank card')
        case.equal(service.socat(b'\2\0' + MINE), b'', 'reply to a write')
        case.equal(service.socat(b'\1\0 and whatever follows'), b'\1\0' + MINE, 'after a write')
        service.stop(signal.SIGKILL, -signal.SIGKILL)
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
    case.says(case.fast(flash, 2, '--power-cut', f'1={edges + 1}', codes=(1,)), f'{edges} edges')  # never reached
    harness.write(eeprom(flash), MINE)
    case.says(case.fast(flash, 1, codes=(1,)), 'card1.bin', '2048')


harness.main(__name__)
