#!/usr/bin/env python3
"""A running headend and its clients: qamctl, well-behaved ones, hostile ones, and one that goes away."""
import random
import re
import struct

import harness
from harness import (NOT_STARTED, PSI_INTERVAL, PSI_LOCK, PSI_PACKETS, READ, STATUS, TYPES, WRITE, Client, Server,
                     chunk, packed, section)

MAP_LOCK, MAP_CHUNK = 0x2101, 0x2102
GET, CALL = 4, 10
SDT = packed(0x11, section(0x42, 5, b'\0\1\xff'))


def entry(slot=6, port=1, pid=0x100):
    """A PID map entry; slot and port count from 1."""
    return struct.pack('>HHIHHHH', slot - 1, 2, port - 1, 1, 2, pid, pid ^ 1)


def map_chunk(total, start, *entries):
    return struct.pack('>III', total, start, len(entries)) + b''.join(entries)


def qamctl_round(case):
    """Load, show, save, change an interval, clear, status: the card holds what the operator asked for."""
    flash, psi = case.flash(), case.sample('psi-many.ts')
    with Server(case, flash, '--card', '1', '--card', '5') as server:
        server.wait_started(1)
        server.wait_started(5)
        case.qamctl(server.address, 'psi', 'load', '5.2', psi, '--interval', 'SDT_O=40', '--interval', 'PAT=100')
        shown = case.qamctl(server.address, 'psi', 'show', '5.2', '--save', case.path('saved.ts'))
        case.says(shown, 'Service 60', 'SDT_O', r'\b40\b', r'\b100\b', r'\b300\b', r'\b200\b')  # 5 sections of 40
        saved = harness.table_sections(harness.read(case.path('saved.ts')))
        case.equal(sorted(saved), sorted(harness.table_sections(harness.read(psi))), 'sections read back')
        case.judge('--self', case.path('saved.ts'), '--every-pid')
        case.qamctl(server.address, 'psi', 'interval', '5.2', 'BAT=77')
        client = Client(server.port)
        case.equal([client.read_interval(t, 5, 2)[0] for t in ('BAT', 'PAT', 'SDT_O', 'CAT')], [77, 100, 40, 300],
                   'intervals in the card')
        case.equal(client.read_interval('PMT', 5, 2)[1], 60, 'packets of PMT in the card')
        case.says(case.qamctl(server.address, 'status'), 'running')
        report = server.stop()
    case.equal([card['state'] for card in report['cards']], ['running', 'running'], 'states at the end')
    out = case.path('out.ts')
    case.fast(flash, 3, '--card', '5', '--out', f'5.2={out}')  # what was loaded was saved
    case.judge('--source', psi, '--out', out, *harness.RATE, '--interval', 'SDT_O=40', '--interval', 'PAT=100',
               '--interval', 'BAT=77')
    case.tidy(flash)


def locked_by_a_dead_client(case):
    """A client locks a channel, sends half an upload and is never heard of again."""
    small = case.sample('psi-small.ts')
    with Server(case, case.flash()) as server:
        server.wait_started()
        case.qamctl(server.address, 'psi', 'load', '1.1', small)
        dead = Client(server.port)
        case.equal(dead.lock(1), 0, 'lock')
        case.equal(dead.write(PSI_PACKETS, chunk(0x11, 0x42, SDT)), 0, 'chunk')
        dead.socket.close()
        other = Client(server.port)
        case.equal((other.lock(1), other.read_interval('SDT_C')[1]), (0, 1), 'a second lock and the packets after it')
        case.qamctl(server.address, 'psi', 'load', '1.2', small)
        case.says(case.qamctl(server.address, 'psi', 'load', '1.1', small, codes=(1,)), 'lock', '--force')
        case.equal(Client(server.port).request(READ, PSI_LOCK).data, b'\0\0\0\1', 'lock while the channel is silent')

        def named():
            locked = re.search(r'1\.1[^.]*locked for (\d+) s', case.qamctl(server.address, 'status').text,
                               re.IGNORECASE)
            return locked and int(locked.group(1)) >= 10

        case.check(server.wait(named), 'status never names the locked channel')
        case.qamctl(server.address, 'psi', 'load', '1.1', small, '--force')
        client = Client(server.port)
        case.equal(client.request(READ, PSI_LOCK).data, bytes(4), 'lock after a load by force')
        case.equal([client.read_interval(t)[1] for t in ('SDT_C', 'PMT')], [1, 4], 'packets after a load by force')
        client.lock(1)
        case.qamctl(server.address, 'psi', 'clear', '1.1', '--force')
        case.equal([client.read_interval(t)[1] for t in TYPES], [0] * 8, 'packets after clearing by force')


# Operation, variable, slot, channel, data, length if it lies, result. The card's own tests know more of each kind.
INTERVAL_WRITE = struct.pack('>B3xII', 0, 9, 0)
RESULTS = [
    ('slot 7', READ, PSI_LOCK, 7, 1, b'', None, 18),
    ('channel 3', WRITE, PSI_LOCK, 1, 3, bytes(4), None, 18),
    ('empty slot', READ, PSI_LOCK, 2, 1, b'', None, 21),
    ('unknown variable', WRITE, 0x3103, 1, 1, b'', None, 2),
    ('lock read with data', READ, PSI_LOCK, 1, 1, bytes(4), None, 22),
    ('length above the data', WRITE, PSI_LOCK, 1, 1, bytes(4), 5, 22),
    ('length below the data', WRITE, PSI_INTERVAL, 1, 1, bytes(16), 12, 22),
    ('length without data', WRITE, PSI_LOCK, 1, 1, b'', 4, 22),
    ('interval of no table', READ, PSI_INTERVAL, 1, 1, b'\x70\0\0\0', None, 9),
    ('interval write of no table', WRITE, PSI_INTERVAL, 1, 1, b'\x70' + INTERVAL_WRITE[1:], None, 0),
    ('chunk of no table', WRITE, PSI_PACKETS, 1, 1, chunk(0x12, 0x70, SDT), None, 3),
    ('lock read', READ, PSI_LOCK, 1, 1, b'', None, 0),
    ('interval write', WRITE, PSI_INTERVAL, 1, 1, INTERVAL_WRITE, None, 0),
    ('map lock with a byte', WRITE, MAP_LOCK, 1, 1, b'\1', None, 22),
    ('map too long', WRITE, MAP_CHUNK, 1, 1, map_chunk(257, 0, entry()), None, 1),
    ('map of slot 7', WRITE, MAP_CHUNK, 1, 1, map_chunk(1, 0, entry(slot=7)), None, 3),
    ('map of a missing input', WRITE, MAP_CHUNK, 1, 1, map_chunk(1, 0, entry(port=3)), None, 3),
    ('map of an empty slot', WRITE, MAP_CHUNK, 1, 1, map_chunk(1, 0, entry(slot=2)), None, 21),
    ('map entry cut', WRITE, MAP_CHUNK, 1, 1, map_chunk(1, 0, entry())[:-1], None, 22),
    ('map read without a place', READ, MAP_CHUNK, 1, 1, b'', None, 22),
    ('setting of a source card', GET, 30, 6, 1, b'', None, 21),
    ('debug routine of a source card', CALL, 0, 6, 1, b'QamFpgaTest\0', None, 21),
    ('map read of slot 7', READ, MAP_CHUNK, 7, 1, bytes(4), None, 18),
    ('map read of an empty slot', READ, MAP_CHUNK, 2, 1, bytes(4), None, 21),
]

# A client's whole life, step by step: what it sends, and what comes back.
PAT = packed(0, section(0, 5, bytes.fromhex('0065e100')))
LIFE = [
    ('PSI lock', WRITE, PSI_LOCK, struct.pack('>I', 1), b''),
    ('PSI locked', READ, PSI_LOCK, b'', struct.pack('>I', 1)),
    ('packets', WRITE, PSI_PACKETS, chunk(0, 0, PAT * 3), b''),
    ('interval', WRITE, PSI_INTERVAL, struct.pack('>B3xII', 0, 0x10064, 0), b''),
    ('PSI unlock', WRITE, PSI_LOCK, bytes(4), b''),
    ('PSI unlocked', READ, PSI_LOCK, b'', bytes(4)),
    ('interval read', READ, PSI_INTERVAL, bytes(4), struct.pack('>B3xII', 0, 100, 3)),
    ('packets from the second', READ, PSI_PACKETS, struct.pack('>HBxI', 0, 0, 1),
     struct.pack('>HBxIIB3x', 0, 0, 3, 1, 2) + PAT[0] * 2),
    ('packets from the 257th', READ, PSI_PACKETS, struct.pack('>HBxI', 0, 0, 0x100),
     struct.pack('>HBxIIB3x', 0, 0, 3, 0, 3) + PAT[0] * 3),
    ('packets of no table', READ, PSI_PACKETS, struct.pack('>HBxI', 0, 0x70, 0),
     struct.pack('>HBxIIB3x', 0, 0x70, 0, 0, 0)),
    ('map lock', WRITE, MAP_LOCK, struct.pack('>I', 7), b''),
    ('map locked', READ, MAP_LOCK, b'', struct.pack('>I', 1)),
    ('map, last first', WRITE, MAP_CHUNK, map_chunk(3, 1, entry(pid=0x20, port=2), entry(pid=0x1FFF)), b''),
    ('stray chunk', WRITE, MAP_CHUNK, map_chunk(3, 2, entry(), entry()), b''),
    ('map, first', WRITE, MAP_CHUNK, map_chunk(3, 0, entry(pid=0x100, port=2)), b''),
    ('map as it came', READ, MAP_CHUNK, bytes(4),
     map_chunk(3, 0, entry(pid=0x100, port=2), entry(pid=0x20, port=2), entry(pid=0x1FFF))),
    ('map unlock', WRITE, MAP_LOCK, bytes(4), b''),
    ('map sorted, from the second', READ, MAP_CHUNK, struct.pack('>I', 1),
     map_chunk(3, 1, entry(pid=0x20, port=2), entry(pid=0x100, port=2))),
    ('map behind its end', READ, MAP_CHUNK, struct.pack('>I', 3), map_chunk(3, 3)),
]


def results(case):
    source = case.sample('four-programmes-cbr.ts')
    with Server(case, case.flash(), '--source', f'6={source},{source}') as server:
        server.wait_started()
        client = Client(server.port)
        for name, operation, variable, data, wanted in LIFE:
            reply = client.request(operation, variable, 1, 2, data)
            case.equal((reply.result, reply.data.hex()), (0, wanted.hex()), name)
        for name, operation, variable, slot, channel, data, length, wanted in RESULTS:
            reply = client.request(operation, variable, slot, channel, data, length)
            case.equal(reply.result, wanted, name)
            case.equal(reply.operation, operation | 0x80, f'{name}: operation of the reply')
            if wanted == 0:
                case.equal(len(reply.data), reply.length if operation == READ else 0, f'{name}: length of the reply')
        full_store(case, client)
        case.check(client.request(STATUS, 0).raw[:2] == b'QM', 'no answer to a status request')


def full_store(case, client):
    """512 places: a chunk of seven where three are free stores three and is refused."""
    client.lock(1, channel=2)
    for _ in range(72):
        case.equal(client.write(PSI_PACKETS, chunk(0x11, 0x42, SDT * 7), channel=2), 0, 'chunk')
    case.equal(client.write(PSI_PACKETS, chunk(0x11, 0x42, SDT * 5), channel=2), 0, 'chunk')
    case.equal(client.write(PSI_PACKETS, chunk(0x11, 0x42, SDT * 7), channel=2), 1, 'chunk into a full store')
    case.equal(client.read_interval('SDT_C', channel=2)[1], 512, 'packets in a full store')
    case.equal(client.lock(0, channel=2), 0, 'unlock')


def repeated(case):
    """A client that hears nothing asks again; the card must not act twice."""
    with Server(case, case.flash()) as server:
        server.wait_started()
        one, two = Client(server.port), Client(server.port)
        first = one.request(WRITE, PSI_INTERVAL, data=struct.pack('>B3xII', 0, 11, 0), sequence=1000)
        case.equal(two.interval('PAT', 22), 0, 'write of another client')
        again = one.request(WRITE, PSI_INTERVAL, data=struct.pack('>B3xII', 0, 11, 0), sequence=1000)
        case.equal(again.raw, first.raw, 'reply to a repeated request')
        case.equal(two.read_interval('PAT')[0], 22, 'interval after a repeated request')
        one.lock(1)
        for _ in range(3):
            reply = one.request(WRITE, PSI_PACKETS, data=chunk(0x11, 0x42, SDT), sequence=2000)
            case.equal(reply.result, 0, 'repeated chunk')
        case.equal(two.read_interval('SDT_C')[1], 1, 'packets after a chunk that came three times')
        reply = one.request(WRITE, PSI_PACKETS, data=chunk(0x11, 0x42, SDT), sequence=2001)
        case.equal(two.read_interval('SDT_C')[1], 2, 'packets after a chunk with a new number')
        read = [one.request(READ, PSI_INTERVAL, data=bytes(4), sequence=3000) for _ in range(2)]
        case.equal(read[0].raw, read[1].raw, 'repeated read')


def hostile(case):
    """Datagrams of any length and content, half-valid ones too: none is fatal, none reaches the record by accident."""
    rng = random.Random(20)
    with Server(case, case.flash(), '--source', f'6={case.sample("four-programmes-cbr.ts")}') as server:
        server.wait_started()
        Client(server.port).lock(1, channel=2)
        client, other = Client(server.port), Client(server.port)
        for round_ in range(5000):
            client.send(datagram_from(rng))
            if round_ % 50 == 49:  # let it keep up, and see that others are answered
                reply = other.request(READ, PSI_LOCK, channel=2)
                if not case.equal((reply.result, len(reply.data)), (0, 4),
                                  f'reply after {round_} datagrams: {server.text()[-600:]}'):
                    break
        case.qamctl(server.address, 'status')
        fresh = Client(server.port)
        for channel in (1, 2):
            fresh.lock(0, channel=channel)
        case.qamctl(server.address, 'psi', 'load', '1.1', case.sample('psi-small.ts'))
        report = server.stop()
    case.equal([card['state'] for card in report['cards']], ['running'], 'state after it all')


def datagram_from(rng):
    kind = rng.randrange(4)
    if kind == 0:
        return rng.randbytes(rng.choice((0, 1, 7, 8, 23, 24, 27, 28, rng.randrange(2000), rng.randrange(60000))))
    variable = rng.choice((PSI_LOCK, PSI_PACKETS, PSI_INTERVAL, MAP_LOCK, MAP_CHUNK, 0, 0xFFFF))
    data = rng.randbytes(rng.choice((0, 3, 4, 8, 12, 16, 204, 1332, 1500, rng.randrange(60000))))
    if kind == 1 and variable == MAP_CHUNK:  # of the right length, whatever it says
        data = map_chunk(rng.choice((0, 1, 256, 257, rng.randrange(1 << 32))), rng.choice((0, 200, 255, 256)),
                         *(entry(rng.choice((6, 6, 6, 2, 7)), rng.randrange(1, 4), rng.randrange(1 << 16))
                           for _ in range(rng.choice((0, 1, 89, 90, 255)))))
    elif kind == 1 and len(data) > 16:
        data = data[:12] + bytes([rng.choice((0, 1, 7, 8, 255, (len(data) - 16) // 188 & 255))]) + data[13:]
    length = rng.choice((None, None, None, 0, 16, 65535, rng.randrange(65536)))
    operation = rng.choice((READ, WRITE) if kind == 1 else (*range(18), 0x81, 255))
    raw = Client.datagram(operation, variable, rng.choice((1, 1, 1, 2, 6, 7)), rng.choice((1, 2, 2, 3)), data, length,
                          rng.choice((1, rng.randrange(1 << 32))))
    if kind == 2:  # one byte of the header wrong
        at = rng.randrange(24)
        raw = raw[:at] + bytes([rng.randrange(256)]) + raw[at + 1:]
    return raw[:rng.randrange(len(raw) + 1)] if kind == 3 else raw


CASES = {
    'qamctl-round': qamctl_round,
    'locked-by-a-dead-client': locked_by_a_dead_client, 'results': results, 'repeated': repeated,
    'hostile': hostile,
}

if __name__ == '__main__':
    harness.main(CASES)
