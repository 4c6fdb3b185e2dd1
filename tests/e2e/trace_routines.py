#!/usr/bin/env python3
"""What a running card does on its lines when an operator asks for a reading or makes a setting."""
import fractions
import math
import re

import harness
from harness import RATE_DEN, RATE_NUM, Server
from lines import MS, changes, chosen, clock_write, i2c, lines_only, three_wire_words

CONVERSION_NS = 29_000  # of the sensor, in power-down


def temperature(case):
    """-5.25 degrees are -21 quarters, left-aligned in two bytes. The sensor is powered down: one conversion is ordered
    in its configuration, which else keeps its bits, and the value is fetched when the conversion is over."""
    file, bus = case.path('trace.vcd'), 'ext_ad7414'
    with Server(case, case.flash(), '--set', '1.temperature2=-5.25', '--trace', file, *chosen(bus + '_s??')) as server:
        server.wait_started(1)
        case.says(case.qamctl(server.address, 'var', 'get', '1', 'temperature2'), r'-6\b')  # whole degrees, down
    reading = ['[ 4Aw + 01 + [[ 4Ar + C0 - ]', '[ 4Aw + 01 + C4 + ]', '[ 4Aw + 00 + [[ 4Ar + FA + C0 - ]']
    case.equal(i2c(case, file, bus)[-3:], reading, 'transfers of a reading')
    scl, conditions = 0, []  # data that change while the clock is high: start or stop
    for change in changes(case, file, None):
        if change.name == bus + '_scl':
            scl = change.value
        elif scl:
            conditions.append((']' if change.value else '[', change.time))
    case.equal(''.join(kind for kind, _ in conditions[-8:]), '[[][][[]', 'starts and stops of a reading')
    times = [time for _, time in conditions[-8:]]
    waited = (times[5] - times[4]) - (times[3] - times[2])  # longer than from any stop to the next start
    case.check(waited >= CONVERSION_NS, f'fetched {waited} ns after the conversion was ordered')


# Registers of a measurement in the order in which they are read, and what stands in each: a byte of the count of bytes,
# the lowest at 0, or of that of null packets.
COUNTERS = [('Valid_{}_rateM', 'bytes', 1), ('Valid_{}_rateH', 'bytes', 2), ('Valid_{}_rateL', 'bytes', 0),
            ('Sys_{}_rateL', 'nulls', 0), ('Sys_{}_rateH', 'nulls', 1)]


class Stream:
    """The packets of an output and when they left: the first when the FPGA was configured, the others at the bit rate,
    each in the whole nanosecond in which it falls due."""

    PERIOD_NS = fractions.Fraction(harness.PACKET * 8 * RATE_DEN * 1000 * MS, RATE_NUM)

    def __init__(self, file, begin):
        self.packets, self.begin = harness.packets_of(harness.read(file)), begin

    def counted(self, gate, time):
        first, last = (math.ceil((at - self.begin + 1) / self.PERIOD_NS) for at in (gate, time))
        nulls = sum(harness.pid_of(packet) == harness.NULL_PID for packet in self.packets[first:last])
        return {'bytes': (last - first) * harness.PACKET, 'nulls': nulls}


def measured(case, flash, hz, ids):
    """Text of each id, changes of gate and counters, and the streams of both channels."""
    file, outputs = case.path(f'{hz}.vcd'), [case.path(f'{hz}.{channel}.ts') for channel in (1, 2)]
    flags = [word for channel, path in enumerate(outputs, 1) for word in ('--out', f'1.{channel}={path}')]
    with Server(case, flash, '--tick-hz', str(hz), *flags, '--trace', file,
                *chosen('rate_ctrl_rst', 'Valid_?_rate?', 'Sys_?_rate?')) as server:
        server.wait_started(1)
        runs = [case.qamctl(server.address, 'var', 'get', '1', str(id)) for id in ids]
        report = server.stop()
    configured = next(phase['from_ms'] for phase in report['cards'][0]['startup'] if phase['phase'] == 'settling')
    return runs, changes(case, file, None), [Stream(path, round(configured * MS)) for path in outputs]


def judge_counters(case, what, reads, gate, stream, channel):
    """What was read, register by register, is what left in the file meanwhile. Gives both counts, or nothing where the
    reads are wrong."""
    counters = {name.format(channel): (count, byte) for name, count, byte in COUNTERS}
    got = {read.name: read.value for read in reads}
    if not case.equal(list(got), [name for name in counters if name in got], f'{what}: order of the reads'):
        return None
    in_file = {read.name: stream.counted(gate, read.time) for read in reads}
    for sums in in_file.values():
        case.check(0 < sums['nulls'] * harness.PACKET < sums['bytes'], f'{what}: {sums} in the file')
    for name, (count, byte) in counters.items():
        # A register that does not show was 0 when it was read, some time between the others.
        moments = [in_file[name]] if name in got else in_file.values()
        due = [sums[count] >> 8 * byte & 0xFF for sums in moments]
        case.check(got.get(name, 0) in due, f'{what}: {name} is {got.get(name, 0)} where {due} is due')
    return [sum(got.get(name, 0) << 8 * byte for name, (count, byte) in counters.items() if count == wanted)
            for wanted in ('bytes', 'nulls')]


def rates(case):
    """What the gate lets through, and the texts made of it. 36 is the rate of all packets of channel 1, 37 of those
    that are not null; 44 and 45 are those of channel 2."""
    flash = case.flash()
    # Kept in the record: on air from the start-up on.
    case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-full.ts")}', '--psi', f'1.2={case.sample("psi-small.ts")}')
    for hz, ids in ((100, (36, 45)), (60, (37, 44)), (2000, (36, 45))):
        runs, found, streams = measured(case, flash, hz, ids)
        edges = [at for at, change in enumerate(found) if change.name == 'rate_ctrl_rst']
        # An FPGA just configured has its gate shut, and the last reading leaves it open.
        if not case.equal([found[at].value for at in edges], [1, 0, 1], f'gate at {hz} Hz'):
            continue
        short = 1000 * MS // hz + 1  # a wait begins anywhere in a tick
        shut = found[edges[2]].time - found[edges[1]].time
        case.check(10 * MS - short <= shut <= 11 * MS, f'the gate is shut for {shut} ns at {hz} Hz')
        for id, run, rise, end in zip(ids, runs, edges[::2], (edges[1], len(found))):
            what, channel, gate = f'{id} at {hz} Hz', int(id >= 44), found[rise].time
            reads = found[rise + 1:end]
            case.check(len(reads) >= 3 and all(500 * MS - short <= read.time - gate <= 501 * MS for read in reads),
                       f'{what}: read {[read.time - gate for read in reads]} ns after the gate opened')
            counts = judge_counters(case, what, reads, gate, streams[channel], channel)
            if counts:
                sent, nulls = counts
                valid = sent - nulls * harness.PACKET
                shown = (valid if id in (37, 45) else sent) * 8 * 2  # the gate is open for half a second
                case.says(run, rf'\b{shown // 1000}Kb/s')


# Each of the two reset lines low for a time, and between the two the release written twice.
RESET = [('nrst', value) for value in (3, 2, 3, 3, 1, 3)]
# Setting, value, and what is written then, a serial bus in one word. The word of 6250 kBd is 2^26 * 1000 / 6250.
SETTINGS = [
    ('rfreq', 474150, [('q1_12v_ctrl', 1), 'lo2_q1', 'att_q1']),
    ('rflevel', 1105, ['att_q1']),
    ('symbolrate', 6250, ['cdce925', ('rf_off_hh', 0x00), ('rf_off_hl', 0xA3), ('rf_off_lh', 0xD7),
                          ('rf_off_ll', 0x0A), *RESET]),
    ('qammode', 7, [('qam_mode', 7), *RESET]),
    ('rfswitch', 1, [('rf0_en', 1)]),
    ('power', 0, [('power', 0)]),
]
BUS_LINE = re.compile(r'(cdce925_(scl|sda)|(lo2_q1|att_q1)_(clk|dat|le))$')
# From 474.15 MHz, 1094 MHz below: 125452 steps of 12.5 kHz, B = 3920, A = 12.
OSCILLATOR = [0x9F8016, 0x001040, 0x0F5031, 0x9F8012]
# Half decibels below 115.0 dBuV: the start-up; 100.0 dBuV again and 110.5 dBuV between 400 and 500 MHz, where the board
# has 2.0 dB to spare.
ATTENUATOR = [32, 34, 13]
START_UP_TRANSFERS = 16  # of the clock generator


def written(log, begin_ns, end_ns):
    """Names and values in order, a serial bus once for all that goes over it without a break."""
    found = []
    for time, _, access, _, value, name in log:
        if access != 'w' or not begin_ns <= int(time) < end_ns:
            continue
        bus = BUS_LINE.match(name)
        entry = name.rpartition('_')[0] if bus else (name, int(value, 16))
        if not bus or found[-1:] != [entry]:
            found.append(entry)
    return found


def settings(case):
    """Each setting writes what it must, in order, and nothing else in the card's window."""
    file, log, seconds = case.path('trace.vcd'), case.path('bus.log'), len(SETTINGS) + 2
    flags = [word for at, (name, value, _) in enumerate(SETTINGS, 2) for word in ('--set', f'1.{name}={value}@{at}')]
    run = case.fast(case.flash(), seconds, '--trace', file, '--bus-log', log, *flags)
    case.clean(run)
    with open(log, encoding='ascii') as lines:  # ns, slot, r or w, offset, value, register
        accesses = [words for words in map(str.split, lines) if int(words[0]) >= 1000 * MS]
    case.equal(written(accesses, 1000 * MS, 2000 * MS), [], 'writes before')
    for at, (name, _, wanted) in enumerate(SETTINGS, 2):
        case.equal(written(accesses, at * 1000 * MS, (at + 1) * 1000 * MS), wanted, name)
    changes(case, file, seconds)
    lines = lines_only(file)
    case.equal(three_wire_words(case, lines, 'lo2_q1', 24)[4:], [f'{word:X}' for word in OSCILLATOR], 'oscillator')
    case.equal(three_wire_words(case, lines, 'att_q1', 6), [f'{word:02X}' for word in ATTENUATOR], 'attenuator')
    clock(case, i2c(case, lines, 'cdce925')[START_UP_TRANSFERS:])


def clock(case, transfers):
    """Output Y3 of the clock generator, from 55 MHz, as its data sheet computes it: eight times 6.25 MBd."""
    value = {int(transfer[8:10], 16) - 0x80: int(transfer[13:15], 16) for transfer in transfers if '[[' not in transfer}
    order = [0x14, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B]
    due = [clock_write(register, value.get(register, 0)) for register in order]
    due.insert(1, f'[ 64w + 94 + [[ 64r + {value.get(0x14, 0):02X} - ]')
    if not case.equal(transfers, due, 'clock generator'):
        return
    case.equal(value[0x14] >> 7, 0, 'the PLL is passed by')
    divider = {1: value[0x16] & 0x7F, 2: value[0x17] & 0x7F}[value[0x14] >> 4 & 3]
    pll = value[0x18] << 24 | value[0x19] << 16 | value[0x1A] << 8 | value[0x1B]
    n, r, q, p, vco_range = pll >> 20, pll >> 11 & 0x1FF, pll >> 5 & 0x3F, pll >> 2 & 7, pll & 3
    m, rest = divmod((n << p) - r, q)
    vco = 55 * n / m
    case.equal((rest, vco / divider), (0, 50.0), f'M beyond its whole part, MHz of Y3 from {value}')
    case.equal(vco_range, sum(vco >= edge for edge in (125, 150, 175)), f'VCO range at {vco} MHz')


CASES = {'temperature': temperature, 'rates': rates, 'settings': settings}

if __name__ == '__main__':
    harness.main(CASES)
