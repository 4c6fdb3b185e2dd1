#!/usr/bin/env python3
"""Shows that ts_judge accepts a good stream and objects to a bad one.

A source of two PIDs plays over and over into an output of another rate, and joins it in the middle of a pass; each row
spoils the output in its way and says what the judge must find."""
import random

import harness
from harness import NULL_PID, pid_of

SOURCE_RATE, OUT_NUM, OUT_DEN = 1_000_000, 646_250_000, 17 * 8
PACKET_TICKS = 1504 * 27_000_000  # by the bit rate
FIRST_PCR = (1 << 33) * 300 - 27_000_000  # wraps after a second
PASS = 1500  # packets: whole ticks of 90 kHz
PIDS = {0x300: 0x100, 0x301: 0x101}
MAPS = ['--map', '0x300=0x100', '--map', '769=257']


def pcr_bytes(ticks):
    return (ticks // 300 % 2**33 << 15 | 0x7E00 | ticks % 300).to_bytes(6, 'big')


def stamp(ticks, marks):
    return (marks << 36 | (ticks >> 30 & 7) << 33 | (ticks >> 15 & 0x7FFF) << 17 | (ticks & 0x7FFF) << 1 |
            1 << 32 | 1 << 16 | 1).to_bytes(5, 'big')


def packet(pid, counter, content, start=False, clock=b''):
    """Filled up in the adaptation field."""
    fill = 184 - len(content)
    field = (bytes([fill - 1, 0x10 if clock else 0]) + clock).ljust(fill, b'\xff') if fill else b''
    head = [0x47, start << 6 | pid >> 8, pid & 255, (0x30 if fill else 0x10) | counter % 16]
    return bytearray(bytes(head) + field + content)


def has_pcr(p):
    return p[3] & 0x20 and p[5] & 0x10


def played(packets, pids):
    """The source, with PCR, PTS and DTS moved from pass to pass: (packet, ticks of its arrival from the start)."""
    counters = dict.fromkeys(PIDS, 0)
    for n in range(packets):
        at, ticks = n % PASS, n * PACKET_TICKS // SOURCE_RATE
        pid = 0x301 if at % 5 == 2 else 0x300
        if at >= PASS - 2:  # a pass ends with clocks alone, which do not count
            alone = packet(pids[0x300], counters[0x300] - 1, b'', clock=pcr_bytes(FIRST_PCR + ticks))
            alone[3] &= ~0x10
            yield alone, ticks
            continue
        body, start = random.Random(at).randbytes(170), at % 50 < 3
        if start:
            pts = (FIRST_PCR + n // PASS * PASS * PACKET_TICKS // SOURCE_RATE) // 300 + 5000 + at
            body = b'\0\0\1\xe0\0\0\x80\xc0\x0a' + stamp(pts, 3) + stamp(pts - 40, 1) + body[19:]
        yield packet(pids[pid], counters[pid], body, start, pcr_bytes(FIRST_PCR + ticks) if at % 20 < 3 else b''), ticks
        counters[pid] += 1


def output():
    """Packets leave at the first departure after they came, with PCRs that tell so."""
    out = []
    for data, ticks in list(played(4 * PASS, PIDS))[400:]:
        while len(out) * OUT_DEN * PACKET_TICKS < ticks * OUT_NUM:
            out.append(packet(NULL_PID, 0, bytes(184)))
        if has_pcr(data):
            data[6:12] = pcr_bytes(FIRST_PCR + round(len(out) * OUT_DEN * PACKET_TICKS / OUT_NUM))
        out.append(data)
    return out


def nth(out, n, pid=0x100, wanted=lambda p: True):
    return [i for i, p in enumerate(out) if pid_of(p) == pid and wanted(p)][n]


def flip(where, byte, value):
    def spoil(out):
        p = out[where(out)]
        p[byte + (5 + p[4] if byte >= 100 else 0) - (100 if byte >= 100 else 0)] ^= value
    return spoil


def move_pcr(ticks):
    def spoil(out):
        p = out[nth(out, 30, wanted=has_pcr)]
        value = int.from_bytes(p[6:12], 'big')
        p[6:12] = pcr_bytes((value >> 15) * 300 + (value & 511) + ticks)
    return spoil


def repeat(times):
    """In place of the null packets behind it."""
    def spoil(out):
        at = next(i for i in range(nth(out, 200), len(out)) if pid_of(out[i]) == 0x100 and
                  all(pid_of(p) == NULL_PID for p in out[i + 1:i + 1 + times]))
        out[at + 1:at + 1 + times] = [bytearray(out[at])] * times
    return spoil


def jump(announced):
    def spoil(out):
        at = nth(out, 100, wanted=has_pcr)
        for p in out[at:]:
            if pid_of(p) == 0x100:
                p[3] = p[3] & 0xF0 | (p[3] + 5) % 16
        out[at][5] |= 0x80 * announced
    return spoil


# name: (what is done to the output, faults that must be found: none, it must be accepted)
ROWS = {
    'good': (lambda out: None, set()),
    'repeated': (repeat(1), set()),
    'repeated-twice': (repeat(2), {'continuity', 'pass'}),
    'jump': (jump(False), {'continuity'}),
    'jump-announced': (jump(True), set()),
    'pcr-near': (move_pcr(20), set()),
    'pcr-off': (move_pcr(40), {'pcr', 'added'}),
    'rate': (lambda out: out.__delitem__(slice(nth(out, 0, NULL_PID), None, 500)),
             {'continuity', 'pass', 'rate', 'pcr'}),
    'lost': (lambda out: out.__setitem__(nth(out, 900), packet(NULL_PID, 0, bytes(184))), {'continuity', 'pass'}),
    'sync': (flip(lambda out: nth(out, 5, NULL_PID), 0, 1), {'sync'}),
    'marked': (flip(lambda out: nth(out, 5), 1, 0x80), {'transport_error'}),
    'payload': (flip(lambda out: nth(out, 3900), 187, 1), {'pass'}),
    'payload-of-first-part': (flip(lambda out: nth(out, 500), 187, 1), {'pass'}),
    'pts': (flip(lambda out: nth(out, 50, wanted=lambda p: p[1] & 0x40), 113, 2), {'stamp'}),
    'tail': (lambda out: out[-1].__delitem__(slice(100, None)), {'tail'}),
}


def judged(name):
    def run_case(case):
        spoil, wanted = ROWS[name]
        source, path, out = case.path('source.ts'), case.path('out.ts'), output()
        spoil(out)
        harness.write(source, b''.join(p for p, _ in played(PASS, {pid: pid for pid in PIDS})))
        harness.write(path, b''.join(out))
        seen = case.ts_judge(path, '--rate', f'{OUT_NUM}/{OUT_DEN}', '--constant-rate', '--source', source, *MAPS,
                             codes=(bool(wanted),))
        case.equal({kind for kind in seen['faults']}, wanted, f'faults {str(seen["faults"])[:900]}')
        if not wanted:
            case.equal([s['passes'] for s in seen['streams'].values()], [3, 3], 'whole passes')
            case.equal(len([p for p in seen['pcr'].values() if p['added_error_ns'] < 500]), 2, 'PIDs with PCRs')
    return run_case


def wrong_calls(case):
    path = case.sample('two-programmes.ts')
    for call in ([], [path], [path, '--rate', '0'], [path, '--rate', '1/x'], ['/nonexistent/x', '--rate', '1'],
                 [path, '--rate', '1', '--map', '1=2'], [path, '--rate', '1', '--source', path, '--map', '1']):
        case.says(case.execute([case.args.ts_judge, *call], (2,)), r'\S')


CASES = {name: judged(name) for name in ROWS} | {'wrong-calls': wrong_calls}

if __name__ == '__main__':
    harness.main(CASES)
