#!/usr/bin/env python3
# A technician's calibration: over the network with bytes of no library of ours, through power cuts, and on the lines of
# the card's buses. sigrok-cli, which knows nothing of this card, decodes these in a trace, also over a start-up.
import os
import re
import signal
import subprocess

import harness
from harness import Server

BLANK = b'\xff' * 13
MINE = bytes([0x04, 0, 0, 0, 0, 0x12, 0x0f, 0x40, 0x02, 0x0c, 0x0f, 0, 0x80])
THEIRS = bytes([0x04, 0, 0, 0, 0, 0x11, 0x0e, 0x41, 0x01, 0x0b, 0x0d, 1, 0x02])


# A headend whose calibration service stands on a port of its own.
class Service(Server):

    def __init__(self, case, flash, *args):
        super().__init__(case, flash, '--calibration', '127.0.0.1:0', *args)

    # What comes back in a second and a half for these bytes.
    def socat(self, request):
        address = self.wait(lambda: re.search(r'calibration on (\S+)', self.text())).group(1)
        return subprocess.run(['socat', '-t', '1.5', '-', 'UDP:' + address], input=request, capture_output=True,
                              check=True, timeout=60).stdout


def eeprom(flash):
    return os.path.join(flash, 'eeprom', 'card1.bin')


def bytes_written_outlive_a_kill(case):
    flash = case.flash()
    blank = case.fast(flash, 1, '--eeprom', '1=blank')
    case.clean(blank)
    rf = case.card(blank, 1)['channels'][0]['rf']
    case.check(not rf['on_air'] and 'blank' in rf['why'], f'a blank card: {rf}')
    with Service(case, flash, '--eeprom', '1=blank') as service:
        service.wait_started()
        case.equal(service.socat(b'\1\0'), b'\1\0' + BLANK, 'a blank card')
        case.equal(service.socat(b'\2\0' + MINE), b'', 'reply to a write')
        case.equal(service.socat(b'\1\0 and whatever follows'), b'\1\0' + MINE, 'after a write')
        case.says(case.fast(flash, 1, codes=(1,)), f'{flash} is in use by process {service.process.pid}')
        service.stop(signal.SIGKILL, -signal.SIGKILL)
    case.equal(harness.read(eeprom(flash))[:14], MINE + b'\xff', 'EEPROM after the plug was pulled')
    case.says(case.fast(flash, 1, '--eeprom', '1=blank', codes=(1,)), 'card1.bin')
    run = case.fast(flash, 1)
    case.equal(bytes(case.card(run, 1)['calibration']['dac']), MINE, 'DAC after the restart')


# At an edge or at a time: a clean end, and what is in the EEPROM stays.
def a_power_cut_harms_no_byte(case):
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


# Output of the decoder, and its form in expectations; after 'Write' and 'Read' the address follows.
I2C = {'Start': '[', 'Start repeat': '[[', 'Stop': ']', 'ACK': '+', 'NACK': '-', 'Write': None, 'Read': None}


def chosen(patterns):
    return [word for pattern in patterns for word in ('--trace-lines', pattern)]


# The trace file of a default start-up of card 1, with a calibration in its EEPROM.
def traced(case, *patterns):
    flash, file = case.flash(f'flash{case.runs}'), case.path('trace.vcd')
    harness.write(eeprom(flash), MINE + b'\xff' * 2035)
    case.card(case.fast(flash, 1, '--trace', file, *chosen(patterns)), 1)
    return file


# What sigrok-cli says, an annotation an entry. Order is judged, not time: long pauses are shortened. The decoder would
# stop at a register of 16 bits: these are left away.
def decoded(case, file, decoder, channels, options, shown):
    harness.write(file + '.lines', b''.join(line for line in harness.read(file).splitlines(True) if line[:1] != b'b'))
    stack = ':'.join([decoder, *(f'{key}={value}' for key, value in (channels | options).items())])
    run = case.execute(['sigrok-cli', '-I', 'vcd:compress=1000', '-i', file + '.lines', '-P', stack, '-A', shown])
    return [line.partition(': ')[2] for line in run.text.splitlines()]


# Transfers of a bus, each in one line.
def i2c(case, file, bus):
    words = []
    for text in decoded(case, file, 'i2c', {'scl': f'{bus}_scl', 'sda': f'{bus}_sda'}, {}, 'i2c=addr-data:warnings'):
        word = I2C[text] if text in I2C else re.sub(r'^(Address|Data) (write|read): ', '', text)
        if text.startswith('Address'):
            word += 'r' if 'read' in text else 'w'
        words += [word] if word else []
    return ' '.join(words).replace(' ] [', ' ]\n[').split('\n')


# The clock generator gets its set-up, then the row of 6875 kBd with one register read back. Each sensor is powered down
# in its configuration register, which comes up with its filter on; nothing else changes.
def each_i2c_bus_carries_its_set_up(case):
    set_up = [(0x01, 0x08), (0x02, 0x14), (0x24, 0xE5), (0x15, 0x02),
              (0x1C, 0x00), (0x1D, 0x40), (0x1E, 0x02), (0x1F, 0x08), (0x14, 0x8D)]
    row = [(0x16, 0x01), (0x17, 0x00), (0x18, 0x00), (0x19, 0x40), (0x1A, 0x02), (0x1B, 0x0B)]
    sensor = ['[ 4Aw + 01 + [[ 4Ar + 40 - ]', '[ 4Aw + 01 + C0 + ]']
    for bus, wanted in (('cdce925', [*clock_writes(set_up), '[ 64w + 94 + [[ 64r + 8D - ]', *clock_writes(row)]),
                        ('ad7414', sensor), ('ext_ad7414', sensor)):
        case.equal('\n'.join(i2c(case, traced(case, f'{bus}_s??'), bus)), '\n'.join(wanted), bus)


def clock_writes(registers):
    return [f'[ 64w + {0x80 + register:02X} + {value:02X} + ]' for register, value in registers]


def eeprom_and_dac_are_read_at_the_start_and_written_in_a_calibration(case):
    lines = ('X24C16*', 'ad9775_1_*')
    file, live = traced(case, *lines), case.path('live.vcd')
    case.equal(eeprom_operations(case, file), [read_of(n, MINE) for n in range(13)], 'EEPROM in a start-up')
    case.equal(dac_bytes(case, file), [byte for n in range(13) for byte in (n, MINE[n])], 'DAC in a start-up')
    with Service(case, case.flash(), '--eeprom-cycle', '1=10', '--trace', live, *chosen(lines)) as service:
        service.wait_started()
        service.socat(b'\2\0' + THEIRS)
        report = service.stop()
    case.equal(bytes(report['cards'][0]['calibration']['eeprom']), THEIRS, 'EEPROM in the report')
    wanted = [line for n in range(13)
              for line in (f'Byte write (addr={n:02X}, 1 byte): {THEIRS[n]:02X}', read_of(n, THEIRS))]
    case.equal(eeprom_operations(case, live)[13:], wanted, 'EEPROM in a write')
    case.equal(dac_bytes(case, live)[26:], [byte for n in range(13) for byte in (n, THEIRS[n])], 'DAC in a write')


def read_of(n, values):
    return f'Random access read (addr={n:02X}, 1 byte): {values[n]:02X}'


def eeprom_operations(case, file):
    found = decoded(case, file, 'i2c', {'scl': 'X24C16SCL', 'sda': 'X24C16SDA,eeprom24xx'}, {}, 'eeprom24xx=ops')
    return [text for text in found if not text.startswith('Page') and 'addr' in text]


def dac_bytes(case, file):
    lines = {'clk': 'ad9775_1_clk', 'mosi': 'ad9775_1_sdio', 'cs': 'ad9775_1_cs'}
    options = {'cpol': 1, 'cpha': 1, 'wordsize': 8}
    return [int(text, 16) for text in decoded(case, file, 'spi', lines, options, 'spi=mosi-data')]


harness.main(__name__)

