#!/usr/bin/env python3
"""The parameter file: right to the byte, kept from run to run, and holding what was uploaded."""
import os
import struct

import harness
from harness import TYPES, record_file

CLOCK_ROWS = """5000 2D 00 05 02 80 0B AF
5125 2D 00 05 02 90 4B AF
5250 2D 00 05 02 A0 33 CF
5375 2D 00 05 02 B0 1B EF
5500 2D 04 05 00 40 02 0B
5625 2D 00 05 02 D0 22 0B
5750 2D 00 05 02 E0 42 0B
5875 2D 00 04 0B C0 9B 6F
6000 2D 00 04 0C 01 9B 6F
6125 2D 00 04 0C 40 E3 8F
6250 2D 00 04 02 80 0B AF
6375 2D 00 04 0C C1 2B AF
6500 2D 00 04 0D 00 73 CF
6625 2D 00 04 0D 41 73 CF
6750 2D 00 04 0D 80 BB EF
6875 8D 01 00 00 40 02 0B
7000 2D 00 04 0E 00 82 0B"""
INTERVALS, COUNTS, MAP, STORE = 308, 340, 380, 6524  # offsets
ENTRY, PLACES = 192, 512
EMPTY = b'\xff' * ENTRY


def default_record(slot):
    """The record of a card that was never set, built from the table of its fields."""
    settings = struct.pack('<HBBIIIIBBBBBBHBBH', 0, 0, ord('0'), 1090000000, 1000, 554000, 6875,
                           5, 0, 0, 0, 0, 0, 0, 15, 0, 0)
    clock = b''.join(struct.pack('<8H', int(row[0]), *(int(word, 16) for word in row[1:]))
                     for row in (line.split() for line in CLOCK_ROWS.splitlines()))
    record = bytes([27, slot - 1, 100, 0]) + settings + clock + struct.pack('<16H', *[300] * 16) + bytes(32 + 8)
    record += b'\xff' * (2 * 256 * 12) + b'\xff' * (2 * PLACES * ENTRY)
    assert len(record) == harness.RECORD_SIZE
    return record


def per_type(record, offset, channel):
    return dict(zip(TYPES, struct.unpack_from('<8H', record, offset + 16 * (channel - 1))))


def store(record, channel):
    at = STORE + PLACES * ENTRY * (channel - 1)
    return [record[at + ENTRY * i:at + ENTRY * (i + 1)] for i in range(PLACES)]


def defaults(case):
    flash = case.flash()
    case.equal(list(harness.tree(flash)), [harness.BITSTREAM], 'files of a new flash folder')
    run = case.fast(flash, 4, *(word for slot in range(1, 7) for word in ('--card', str(slot))))
    case.clean(run, assertions=4)  # slots 3 to 6
    for slot in range(1, 7):
        case.card(run, slot)
        record = harness.read(os.path.join(flash, record_file(slot)))
        wanted = default_record(slot)
        case.equal(len(record), harness.RECORD_SIZE, f'size of the record of slot {slot}')
        wrong = [i for i, (a, b) in enumerate(zip(record, wanted)) if a != b]
        case.check(not wrong, f'slot {slot}: {len(wrong)} bytes differ, the first at {wrong[:4]}')
    case.tidy(flash)


def check_store(case, record, channel, capture):
    """Every packet of the channel's store stands where the card expects it, and together they are the capture."""
    entries = store(record, channel)
    used = [entry for entry in entries if entry != EMPTY]
    case.equal(entries[len(used):], [EMPTY] * (PLACES - len(used)), f'channel {channel}: places after the last packet')
    counts = dict.fromkeys(TYPES, 0)
    names = list(TYPES)
    for entry in used:
        pid, psi_type, counter = struct.unpack_from('<HBB', entry)
        case.equal((pid, counter), (harness.pid_of(entry[4:]), 0xFF), 'PID and counter of a stored packet')
        counts[names[psi_type]] += 1
    case.equal(per_type(record, COUNTS, channel), counts, f'channel {channel}: packets by type')
    stored = harness.table_sections(b''.join(entry[4:] for entry in used))
    case.equal(sorted(stored), sorted(harness.table_sections(capture)), f'channel {channel}: sections in the store')
    for entry in used:
        if entry[5] & 0x40:
            case.equal(entry[2], {t: i for i, t in TYPES.values()}[entry[9]], 'type of a stored section')


def uploads(case):
    flash, path = case.flash(), case.path('flash', record_file(1))
    samples = {1: 'psi-full.ts', 2: 'two-programmes.ts'}
    wanted = {1: {'PAT': 7, 'BAT': 0}, 2: {'CAT': 65535}}
    flags = [word for c, name in samples.items() for word in ('--psi', f'1.{c}={case.sample(name)}')]
    flags += [word for c, given in wanted.items() for t, n in given.items()
              for word in ('--interval', f'1.{c}.{t}={n}')]
    case.clean(case.fast(flash, 3, *flags))
    record = harness.read(path)
    for channel, name in samples.items():
        check_store(case, record, channel, harness.read(case.sample(name)))
        case.equal(per_type(record, INTERVALS, channel), {**dict.fromkeys(TYPES, 300), **wanted[channel]},
                   f'intervals of channel {channel}')
    untouched = default_record(1)
    for what, start, end in (('before the intervals', 0, INTERVALS), ('PID map', MAP - 8, STORE)):
        case.equal(record[start:end], untouched[start:end], f'record, {what}')
    case.clean(case.fast(flash, 3))
    case.check(harness.read(path) == record, 'a run that changes nothing changes the record')
    case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-small.ts")}')
    later = harness.read(path)
    check_store(case, later, 1, harness.read(case.sample('psi-small.ts')))
    case.equal(per_type(later, INTERVALS, 1), per_type(record, INTERVALS, 1), 'intervals after another upload')
    case.check(store(later, 2) == store(record, 2), 'an upload to channel 1 changes channel 2')


# Intervals alone, one run after the other on one flash folder: what was named, and the channels' intervals after it.
INTERVAL_RUNS = [
    (['1.1.PAT=77'], {1: {'PAT': 77}}),
    (['1.2.CAT=55'], {1: {'PAT': 77}, 2: {'CAT': 55}}),
    (['1.1.CAT=0', '1.2.BAT=65535'], {1: {'PAT': 77, 'CAT': 0}, 2: {'CAT': 55, 'BAT': 65535}}),
    ([], {1: {'PAT': 77, 'CAT': 0}, 2: {'CAT': 55, 'BAT': 65535}}),
]


def intervals(case):
    flash = case.flash()
    for given, after in INTERVAL_RUNS:
        run = case.fast(flash, 2, *(word for text in given for word in ('--interval', text)))
        case.clean(run)
        record = harness.read(case.path('flash', record_file(1)))
        for channel in (1, 2):
            wanted = {**dict.fromkeys(TYPES, 300), **after.get(channel, {})}
            case.equal(per_type(record, INTERVALS, channel), wanted, f'channel {channel} after {given}')
            tables = case.card(run, 1)['channels'][channel - 1]['tables']
            case.equal({t: tables[t]['set_ticks'] for t in tables}, {t: wanted[t] for t in tables}, 'report')


CASES = {'defaults': defaults, 'uploads': uploads, 'intervals': intervals}

if __name__ == '__main__':
    harness.main(CASES)
