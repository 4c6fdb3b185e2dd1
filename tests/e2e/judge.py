#!/usr/bin/env python3
"""Shows that psi_judge accepts a good output stream and objects to a bad one.

A small model of a card's carousel makes output streams from the sample captures; each row damages one in its way and
says what the judge must find."""
import harness
from harness import PACKET, TYPES, crc32, packed, pid_of, sections

PACKETS_A_TICK = 10  # at 1000 ticks a second: 15.04 Mb/s
RATE = ['--rate-num', '15040000', '--rate-den', '1']
NULL = b'\x47\x1f\xff\x10' + b'\xff' * 184
ORDER = list(TYPES)
SHARED = [{'SDT_C', 'SDT_O', 'BAT'}, {'NIT_C', 'NIT_O'}]


class Carousel:
    """The repetition of one output: by type a list of groups, each a list of packets."""

    def __init__(self, capture, intervals, locks=True, one_map_group=True):
        self.groups = {name: [packed(pid, s) for pid, s in sections(capture) if s[0] == tid]
                       for name, (_, tid) in TYPES.items()}
        if one_map_group:
            self.groups['PMT'] = [sum(self.groups['PMT'], [])]
        self.intervals, self.locks = intervals, locks
        self.countdown = {name: index for index, name in enumerate(ORDER)}
        self.place = {name: (0, 0) for name in ORDER}
        self.busy = {name: False for name in ORDER}
        self.counters, self.queue = {}, []

    def tick(self):
        for name in ORDER:
            if not self.groups[name] or not self.intervals[name]:
                continue
            if self.countdown[name]:
                self.countdown[name] -= 1
                continue
            if self.locks and any(self.busy[o] for s in SHARED if name in s for o in s - {name}):
                continue
            group, index = self.place[name]
            packets = self.groups[name][group]
            self.queue.append(packets[index])
            self.busy[name] = index + 1 < len(packets)
            if self.busy[name]:
                self.place[name] = (group, index + 1)
            else:
                self.place[name] = ((group + 1) % len(self.groups[name]), 0)
                self.countdown[name] = max(0, self.intervals[name] - len(packets))

    def run(self, ticks, spoil=None):
        out = []
        for now in range(ticks):
            if spoil:
                spoil(self, now)
            self.tick()
            for _ in range(PACKETS_A_TICK):
                packet = self.queue.pop(0) if self.queue else NULL
                if packet is not NULL:
                    pid = pid_of(packet)
                    count = self.counters[pid] = (self.counters.get(pid, -1) + 1) & 15
                    packet = packet[:3] + bytes([packet[3] & 0xF0 | count]) + packet[4:]
                out.append(packet)
        return out


def nth(out, pid, n, start_only=False):
    """Where the n-th packet of a PID stands."""
    hits = [i for i, p in enumerate(out) if pid_of(p) == pid and (p[1] & 0x40 or not start_only)]
    return hits[n]


def change(at, byte, value):
    """Damage one byte of a packet; value is xor-ed in."""
    def spoil(out):
        index = at(out)
        packet = bytearray(out[index])
        packet[byte] ^= value
        out[index] = bytes(packet)
    return spoil


def recount(out):
    """Continuity counters as if the packets had always stood like this."""
    counters = {}
    for i, packet in enumerate(out):
        if pid_of(packet) != 0x1FFF:
            count = counters[pid_of(packet)] = (counters.get(pid_of(packet), -1) + 1) & 15
            out[i] = packet[:3] + bytes([packet[3] & 0xF0 | count]) + packet[4:]


def drop_first_of(pid, n):
    def spoil(out):
        out[nth(out, pid, n)] = NULL
    return spoil


def move(pid, n, ticks):
    """One group of one packet comes earlier or later than due."""
    def spoil(out):
        at = nth(out, pid, n)
        to = at + ticks * PACKETS_A_TICK
        while out[to] is not NULL:
            to += 1
        out[at], out[to] = NULL, out[at]
        recount(out)
    return spoil


def stop_after(pid, n):
    def spoil(out):
        for i in range(nth(out, pid, n), len(out)):
            if pid_of(out[i]) == pid:
                out[i] = NULL
    return spoil


def cut_section(pid):
    """A section of several packets breaks off; the next one starts as it should."""
    def spoil(out):
        second = next(i for i in range(nth(out, pid, 20), len(out)) if pid_of(out[i]) == pid and not out[i][1] & 0x40)
        while pid_of(out[second]) != pid or not out[second][1] & 0x40:
            if pid_of(out[second]) == pid:
                out[second] = NULL
            second += 1
        recount(out)
    return spoil


def headless(pid):
    """The start of a section is lost, its other packets come."""
    def spoil(out):
        i = nth(out, pid, 20)
        while not (out[i][1] & 0x40 and pid_of(out[i]) == pid and goes_on(out[i])):
            i += 1
        out[i] = NULL
        recount(out)
    return spoil


def goes_on(packet):
    return ((packet[6] & 15) << 8 | packet[7]) > 184


def other_version(pid, n):
    """A section with a good CRC that the source does not hold."""
    def spoil(out):
        i = nth(out, pid, n, start_only=True)
        packet = bytearray(out[i])
        size = 3 + ((packet[6] & 15) << 8 | packet[7])
        packet[5 + 5] ^= 0x02
        packet[5 + size - 4:5 + size] = crc32(packet[5:5 + size - 4]).to_bytes(4, 'big')
        out[i] = bytes(packet)
    return spoil


def altered(section, flags):
    """The section with other bits in the byte of version and current_next_indicator, and a good CRC."""
    body = section[:5] + bytes([section[5] ^ flags]) + section[6:-4]
    return body + crc32(body).to_bytes(4, 'big')


def with_history(capture):
    """An older version before each section, and one that is not current yet after it all."""
    whole = sections(capture)
    older, coming = ([(pid, altered(s, flags)) for pid, s in whole] for flags in (0x06, 0x0B))
    packets = [packet for pid, s in older + whole + coming for packet in packed(pid, s)]
    recount(packets)
    return b''.join(packets)


def pack_tightly(out):
    """All sections of PID 0x10 back to back, as pointer fields allow."""
    data, starts = b'', []
    for pid, section in sections(b''.join(out)):
        if pid == 0x10:
            starts.append(len(data))
            data += section
    out.clear()
    while data:
        start = starts and starts[0] < 183
        payload = (bytes([starts[0]]) if start else b'') + data[:183 if start else 184]
        size = len(payload) - bool(start)
        out.append(bytes([0x47, 0x40 if start else 0, 0x10, 0x10]) + payload.ljust(184, b'\xff'))
        data, starts = data[size:], [at - size for at in starts if at >= size]
    recount(out)


def stray(out):
    out[nth(out, 0x1FFF, 500)] = b'\x47\x01\x77\x10' + b'\xff' * 184


def junk_after_section(out):
    i = nth(out, 0, 3)
    out[i] = out[i][:-1] + b'\0'


def swap_maps(out):
    """In one round two programme maps change places."""
    a = nth(out, 0x100, 5)
    b = nth(out, 0x110, 5)
    out[a], out[b] = out[b], out[a]
    recount(out)


def lose_section(name, index):
    def spoil(carousel, now):
        if now == 0:
            del carousel.groups[name][index]
    return spoil


def repeat_section(name, at_tick):
    """Once a section comes again in place of the next."""
    def spoil(carousel, now):
        if now == at_tick:
            group, index = carousel.place[name]
            carousel.place[name] = ((group - 1) % len(carousel.groups[name]), index)
    return spoil


def slow(name):
    """A table comes a tick late each time."""
    def spoil(carousel, now):
        carousel.intervals[name] += now == 0
    return spoil


def truncate(out):
    out[-1] = out[-1][:100]


def to_half_tick(out):
    """All packets of PID 0 half a tick late: within the tolerance."""
    for i in [i for i, p in enumerate(out) if pid_of(p) == 0 and i + 6 < len(out)]:
        to = i + 5
        while out[to] is not NULL:
            to += 1
        out[i], out[to] = NULL, out[i]
    recount(out)


# name: source, what goes wrong in the carousel or in its output, faults that must be found (none: must be accepted)
# and, where it matters, arguments, intervals and carousel options.
SMALL, MANY, FULL = 'psi-small.ts', 'psi-many.ts', 'psi-full.ts'
BUSY = {name: 1 for name in ORDER}
ROWS = {
    'good-small': dict(source=SMALL),
    'good-many': dict(source=MANY),
    'good-jitter': dict(source=SMALL, output=to_half_tick),
    'good-joined-late': dict(source=MANY, args=['--from', '1.2345']),
    'good-joined-between': dict(source=SMALL, args=['--from', '1.6']),
    'good-untimed': dict(source=SMALL, carousel=slow('CAT'), args=['--untimed']),
    'good-silent-table': dict(source=MANY, intervals={'BAT': 0}),
    'good-source-with-history': dict(source=MANY, history=True),
    'good-cut-allowed': dict(source=MANY, output=cut_section(0x11), args=['--allow-cut'], kinds={'rotation', 'late'}),
    'dropped-packet': dict(source=SMALL, output=drop_first_of(0, 5), kinds={'continuity', 'late', 'libdvbpsi'}),
    'dropped-continuation': dict(source=MANY, output=drop_first_of(0x10, 8),
                                 kinds={'continuity', 'cut'}),
    'flipped-bit': dict(source=SMALL, output=change(lambda o: nth(o, 0x11, 7), 30, 0x10),
                        kinds={'crc', 'late', 'libdvbpsi'}),
    'lost-sync': dict(source=SMALL, output=change(lambda o: nth(o, 0x1FFF, 700), 0, 0x01), kinds={'sync'}),
    'damaged-mark': dict(source=SMALL, output=change(lambda o: nth(o, 0, 4), 1, 0x80), kinds={'transport_error'}),
    'pointer': dict(source=SMALL, output=change(lambda o: nth(o, 0, 4), 4, 0xF0), kinds={'pointer', 'late'}),
    'junk-after-section': dict(source=SMALL, output=junk_after_section, kinds={'stuffing'}),
    'tail': dict(source=SMALL, output=truncate, kinds={'tail'}),
    'stray-pid': dict(source=SMALL, output=stray, kinds={'stray'}),
    'late-group': dict(source=SMALL, output=move(0, 9, 3), kinds={'late', 'early'}),
    'drift': dict(source=SMALL, carousel=slow('CAT'), kinds={'late'}),
    'interval-wrong': dict(source=SMALL, args=['--interval', 'SDT_C=50'], kinds={'early'}),
    'stops': dict(source=SMALL, output=stop_after(0x10, 20), kinds={'late'}),
    'missing-section': dict(source=MANY, carousel=lose_section('NIT_C', 1), kinds={'missing', 'table'}),
    'missing-map': dict(source=SMALL, carousel=lambda c, now: now or c.groups['PMT'][0].pop(),
                        kinds={'missing', 'table', 'rotation', 'pace', 'late'}),
    'table-not-silent': dict(source=MANY, args=['--interval', 'BAT=0'], kinds={'foreign', 'table', 'late'}),
    'repeated-section': dict(source=MANY, carousel=repeat_section('NIT_C', 1000), kinds={'rotation'}),
    'other-version': dict(source=SMALL, output=other_version(0x11, 12), kinds={'foreign', 'table', 'rotation'}),
    'maps-in-another-order': dict(source=SMALL, output=swap_maps, kinds={'rotation'}),
    'maps-one-by-one': dict(source=SMALL, options=dict(one_map_group=False), kinds={'pace', 'late'}),
    'sections-interleaved': dict(source=MANY, intervals=BUSY, options=dict(locks=False),
                                 kinds={'cut', 'orphan', 'crc', 'foreign', 'missing', 'table'}),
    'section-cut': dict(source=MANY, output=cut_section(0x11), kinds={'cut', 'late', 'rotation'}),
    'section-headless': dict(source=MANY, output=headless(0x11), kinds={'orphan', 'late'}, args=['--allow-cut']),
    'self-good': dict(source=MANY, alone=[]),
    'self-every-pid': dict(source=MANY, alone=['--every-pid']),
    'self-packed-tightly': dict(source=MANY, output=pack_tightly, alone=[], sections=4),
    'self-cut': dict(source=MANY, output=cut_section(0x11), alone=[], kinds={'cut'}),
    'self-erased-packet': dict(source=SMALL, output=lambda o: o.__setitem__(nth(o, 0, 4), b'\xff' * 188), alone=[],
                               kinds={'sync', 'continuity', 'libdvbpsi'}),
}

WRONG_CALLS = [
    [], ['--source', 'a'], ['--nonsense'], ['--self', '/nonexistent/x.ts'],
    ['--source', '{small}', '--out', '{small}'],
    ['--source', '{small}', '--out', '{small}', *RATE, '--interval', 'FOO=3'],
    ['--source', '{none}', '--out', '{small}', *RATE],
]


def judged(name):
    row = ROWS[name]

    def run_case(case):
        every, intervals = row.get('every', 40), row.get('intervals', {})
        carousel = Carousel(harness.read(case.sample(row['source'])), {**{t: every for t in ORDER}, **intervals},
                            **row.get('options', {}))
        out, path = carousel.run(row.get('ticks', 3000), row.get('carousel')), case.path('out.ts')
        row.get('output', lambda _: None)(out)
        harness.write(path, b''.join(out))
        if 'alone' in row:
            args = ['--self', path, *row['alone']]
        else:
            source = case.sample(row['source'])
            if 'history' in row:
                harness.write(case.path('source.ts'), with_history(harness.read(source)))
                source = case.path('source.ts')
            args = ['--source', source, '--out', path, *RATE, '--default-interval', str(every),
                    *(word for table, ticks in intervals.items() for word in ('--interval', f'{table}={ticks}')),
                    *row.get('args', [])]
        wanted = row.get('kinds', set())
        seen = case.judge(*args, codes=(bool(wanted),))
        found = {kind: texts[:3] for kind, texts in seen.get('faults', {}).items()}
        case.check(set(found) == wanted, f'wanted {sorted(wanted)}, found {found}')
        case.equal(seen.get('sections'), row.get('sections', seen.get('sections')), 'sections found')
    return run_case


def wrong_calls(case):
    names = dict(small=case.sample(SMALL), none=case.sample('not-a-stream.ts'))
    for call in WRONG_CALLS:
        case.says(case.execute([case.args.judge, *(word.format(**names) for word in call)], (2,)), r'\S')


CASES = {name: judged(name) for name in ROWS} | {'wrong-calls': wrong_calls}

if __name__ == '__main__':
    harness.main(CASES)
