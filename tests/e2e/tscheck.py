#!/usr/bin/env python3
# The stream checker accepts what a headend sends, and names each kind of damage to it.
#
# Two outputs of a headend are made: the tables of a capture, and two programmes of a source. Each row damages one of
# them in its way, and says which kinds of faults the checker must find: these and no others.
import subprocess

import harness
from harness import NULL_PID, RATE, packets_of, pid_of

NULL = b'\x47\x1f\xff\x10' + bytes(184)
TICKS = 25  # packets in a tick of 1 ms, approximately


def start(p):
    return p[1] & 0x40


def has_pcr(p):
    return p[3] & 0x20 and p[4] and p[5] & 0x10


def crc32(data):
    c = 0xFFFFFFFF
    for byte in data:
        c ^= byte << 24
        for _ in range(8):
            c = (c << 1 ^ 0x04C11DB7 if c & 0x80000000 else c << 1) & 0xFFFFFFFF
    return c


def places(out, pid, wanted=lambda p: True):
    return [i for i, p in enumerate(out) if pid_of(p) == pid and wanted(p)]


# The continuity counter as it would be without the damage.
def recount(out, pid):
    count = 0
    for i, p in enumerate(out):
        if pid_of(p) == pid:
            out[i] = p[:3] + bytes([p[3] & 0xF0 | count & 15]) + p[4:]
            count += bool(p[3] & 0x10)


# Some packets of a PID become as `new` makes them, from the n-th on that is wanted.
def change(out, pid, n, new, wanted=lambda p: True, count=1):
    where = places(out, pid, wanted)
    for i in (where[k] for k in range(n, n + count)):
        out[i] = bytes(new(bytearray(out[i])))


def flip(out, pid, n, at, bits):
    change(out, pid, n, lambda p: p[:at] + bytes([p[at] ^ bits]) + p[at + 1:])


# Null packets in place of some of the PID's packets; counted: the others are numbered anew.
def remove(out, pid, wanted, first=0, count=1, counted=True):
    for i in places(out, pid, wanted)[first:first + count]:
        out[i] = NULL
    if counted:
        recount(out, pid)


# A packet leaves so much later.
def move(out, pid, n, ticks):
    i = places(out, pid)[n]
    to = next(k for k in range(i + ticks * TICKS, len(out)) if pid_of(out[k]) == NULL_PID)
    out[i], out[to] = NULL, out[i]


def swap(out, pid, other, n):
    a, b = places(out, pid)[n], places(out, other)[n]
    out[a], out[b] = out[b], out[a]
    recount(out, pid)
    recount(out, other)


# A section with a good CRC that the source does not have.
def with_other_version(p):
    size = 3 + ((p[6] & 15) << 8 | p[7])
    p[10] ^= 2
    p[5 + size - 4:5 + size] = crc32(p[5:5 + size - 4]).to_bytes(4, 'big')
    return p


# A packet comes again, in place of the null packets behind it.
def repeat(out, pid, times):
    i = next(i for i in range(places(out, pid)[200], len(out)) if pid_of(out[i]) == pid and out[i][3] & 0x10 and
             all(pid_of(p) == NULL_PID for p in out[i + 1:i + 1 + times]))
    out[i + 1:i + 1 + times] = [out[i]] * times


def moved_pcr(p, ticks):
    value = int.from_bytes(p[6:12], 'big')
    pcr = (value >> 15) * 300 + (value & 511) + ticks
    return p[:6] + (pcr // 300 << 15 | 0x7E00 | pcr % 300).to_bytes(6, 'big') + p[12:]


def with_wrong_pts(p):
    p[(5 + p[4] if p[3] & 0x20 else 4) + 13] ^= 2
    return p


# From a packet on, which announces it, the counter is 5 ahead.
def jump(out, pid):
    first = places(out, pid, has_pcr)[20]
    out[first:] = [p[:3] + bytes([p[3] & 0xF0 | (p[3] + 5) & 15]) + p[4:] if pid_of(p) == pid else p for p in out[first:]]
    out[first] = out[first][:5] + bytes([out[first][5] | 0x80]) + out[first][6:]


def goes_on(p):
    return start(p) and ((p[6] & 15) << 8 | p[7]) > 180


SDT, VIDEO = 0x11, 0x101
SMALL_ROWS = {  # the damage, and the kinds of faults that it is
    'a packet is lost': (lambda out: remove(out, 0, start, 3, 1, False), {'continuity', 'late', 'libdvbpsi'}),
    'a bit of a section is wrong': (lambda out: flip(out, SDT, 4, 30, 0x10), {'crc', 'late', 'libdvbpsi'}),
    'a sync byte is wrong': (lambda out: flip(out, NULL_PID, 700, 0, 1), {'sync'}),
    'a packet is marked as damaged': (lambda out: flip(out, 0, 4, 1, 0x80), {'transport_error'}),
    'a pointer leads out of the packet': (lambda out: flip(out, 0, 4, 4, 0xF0), {'pointer', 'late'}),
    'there are bytes behind a section': (lambda out: flip(out, 0, 3, 187, 0xFF), {'stuffing'}),
    'the file ends in mid-packet': (lambda out: out.append(NULL[:100]), {'tail'}),
    'a PID is not of the source': (lambda out: flip(out, NULL_PID, 500, 2, 0x88), {'stray'}),
    'a section comes three ticks late': (lambda out: move(out, 0, 4, 3), {'late', 'early'}),
    'a table comes too often': (lambda out: None, {'early'}, '--interval', 'PAT=400'),
    'a table does not come': (lambda out: remove(out, SDT, start, count=99), {'missing', 'table'}),
    'a table comes that must not': (lambda out: None, {'foreign', 'table', 'late'}, '--interval', 'CAT=0'),
    'a section has another version': (lambda out: change(out, 0, 4, with_other_version, start),
                                      {'foreign', 'table', 'rotation'}),
    'two programme maps change places': (lambda out: swap(out, 0x100, 0x110, 3), {'rotation'}),
    'a programme map falls behind': (lambda out: move(out, 0x130, 3, 3), {'pace'}),
}
MANY_ROWS = {
    'a section breaks off': (lambda out: remove(out, SDT, lambda p: not start(p), 12), {'cut', 'late', 'rotation'}),
    'a section has no start': (lambda out: remove(out, SDT, goes_on, 4), {'orphan', 'late', 'rotation'}),
}
PROGRAMME_ROWS = {
    'a packet comes twice': (lambda out: repeat(out, VIDEO, 1), set()),
    'a packet comes three times': (lambda out: repeat(out, VIDEO, 2), {'continuity', 'pass'}),
    'the counter jumps as announced': (lambda out: jump(out, VIDEO), set()),
    'a PCR is 0.7 us off': (lambda out: change(out, VIDEO, 30, lambda p: moved_pcr(p, 20), has_pcr), set()),
    'a PCR is 1.5 us off': (lambda out: change(out, VIDEO, 30, lambda p: moved_pcr(p, 40), has_pcr), {'pcr', 'added'}),
    'a byte of the last pass is wrong': (lambda out: flip(out, VIDEO, -5, 187, 1), {'pass'}),
    'a PTS is wrong': (lambda out: change(out, VIDEO, 5, with_wrong_pts, start), {'stamp'}),
    'PCRs are missing': (lambda out: change(out, VIDEO, 5, lambda p: p[:5] + bytes([p[5] & ~0x10]) + p[6:], has_pcr, 4),
                         {'pcr_interval', 'added'}),
    'the PAT does not come for a second': (lambda out: remove(out, 0, start, 5, 3), {'repetition'}),
}


def check_rows(case, rows, path, *args):
    for name, (damage, wanted, *more) in rows.items():
        out = packets_of(harness.read(path))
        damage(out)
        harness.write(case.path('damaged.ts'), b''.join(out))
        seen = case.tscheck(case.path('damaged.ts'), *RATE, *args, *more, codes=(bool(wanted),))
        case.equal(set(seen.get('faults', {})), wanted, f'{name}: {str(seen.get("faults"))[:700]}')


def damage_to_tables_is_named(case):
    for sample, rows in (('psi-small.ts', SMALL_ROWS), ('psi-many.ts', MANY_ROWS)):
        psi, out = case.sample(sample), case.path(f'{sample}-out.ts')
        case.fast(case.flash(f'flash-{sample}'), 3, '--psi', f'1.1={psi}', '--out', f'1.1={out}')
        check_rows(case, rows, out, '--psi', psi, '--no-limits')


def damage_to_programmes_is_named(case):
    source, out = case.sample('four-programmes-cbr.ts'), case.path('out.ts')
    case.fast(case.flash(), 12, '--source', f'6={source}', '--programme', '1.1=6.1:One', '--out', f'1.1={out}')
    maps = ['--map', '0x300=0x101', '0x301=0x102']
    check_rows(case, PROGRAMME_ROWS, out, '--constant-rate', '--source', source, *maps)


def text_json_and_exit_codes_agree(case):
    path = case.sample('four-programmes-cbr.ts')
    seen = case.tscheck(path)
    case.equal((seen['bit_rate'], seen['packets'], len(seen['pcr']), seen['faults']), (3e6, 10047, 4, {}), 'a good file')
    for call in (['/nonexistent/x'], [path, '--rate', '1/x'], [path, '--psi', path], [path, *RATE, '--map', '1=2'],
                 [path, '--tolerance', 'nan'], [path, '--untimed'], [path, '--interval', 'PAT=5']):
        case.says(case.execute([case.args.tscheck, *call], (2,)), r'\S')
    seen = case.tscheck(path, '--rate', '3000000', '--from', '9', codes=(1,))
    case.equal(set(seen['faults']), {'empty'}, 'nothing behind --from')
    with open('/dev/full', 'w', encoding='ascii') as full:
        case.equal(subprocess.run([case.args.tscheck, path], stdout=full, check=False).returncode, 2, 'a full disk')
    case.says(case.execute([case.args.tscheck, path]), r'10047 packets', r'3000000\.0 bit/s by the PCRs', 'Nothing wrong')


harness.main(__name__)
