#!/usr/bin/env python3
"""What source cards are given that is not as it should be: files, and a stream over UDP that stops, comes back, changes
its rate, has garbage in it and clocks that are wrong. What is sound in it arrives, each packet once and in order."""
import json
import random
import re
import socket
import time

import harness
from harness import PACKET, STATUS, Client, Server, packets_of, pid_of, read, write

PID, OUT = 0x100, 0x300
STEP = 0.01  # seconds between two bursts
CSV = f'src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n6,1,{PID},1,{OUT},1,2\n'.encode()


def files(case):
    """Each plays, and packets of 192 and 204 bytes as the same of 188, or is refused with its name and the reason."""
    whole, out = read(case.sample('two-programmes.ts')), case.path('out.ts')
    widened = {width: b''.join(bytes(width - PACKET) * (width == 192) + p + bytes(width - PACKET) * (width == 204)
                               for p in packets_of(whole)) for width in (192, 204)}
    rows = {  # name: (content or path, exit code, what is said, plays as that of 188)
        '188': (whole, 0, None, True),
        '192': (widened[192], 0, None, True),
        '204': (widened[204], 0, None, True),
        'broken': (case.sample('broken.ts'), 0, 'sync lost 1 times.* 100 behind', False),
        'garbage within': (whole[:40000] + random.Random(1).randbytes(5000) + whole[40000:], 0, 'sync lost', False),
        'empty': (b'', 1, 'no transport-stream packets', False),
        'half a packet': (whole[:100], 1, 'no transport-stream packets', False),
        'no clock': (case.sample('psi-small.ts'), 1, '@RATE', False),
        'folder': (case.folder, 1, 'folder', False),
        'missing': (case.path('none.ts'), 1, 'No such file', False),
        'unreadable': ('/proc/self/mem', 1, 'could not be read', False),
        'device': ('/dev/zero', 1, 'device', False),
    }
    due = None
    for name, (content, code, text, plays) in rows.items():
        path = case.path(f'{name}.ts') if isinstance(content, bytes) else content
        if isinstance(content, bytes):
            write(path, content)
        run = case.fast(case.flash(name), 3, '--source', f'6={path}', '--programme', '1.1=6.1:Harbour', '--out', f'1.1={out}',
                        codes=(code,))
        if text:
            case.says(run, re.escape(path), text)
        case.check('damaged' not in run.text or text, f'{name}: {run.text}')
        if code != 0:
            continue
        case.check(run.report['sources'][0]['inputs'][0]['packets'] > 500, f'{name}: does not play')
        due = due or read(out)
        case.check(not plays or read(out) == due, f'{name}: the output is another')


class Sender:
    """Sends numbered packets with PCRs of the sender's time over UDP, in steps of STEP."""

    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(('127.0.0.1', port))
        self.rng, self.number, self.sent = random.Random(6), 0, 0

    def packet(self, ticks):
        """One of those that must arrive, with a PCR if there are ticks."""
        head = bytes([0x47, PID >> 8, PID & 255, (0x10 if ticks is None else 0x30) | self.number % 16])
        if ticks is not None:
            base, extension = divmod(int(ticks) % (300 << 33), 300)
            head += bytes([7, 0x10]) + (base << 15 | 0x7E00 | extension).to_bytes(6, 'big')
        packet = head + b'\xaa' * (PACKET - 4 - len(head)) + self.number.to_bytes(4, 'big')
        self.number += 1
        return packet

    def play(self, seconds=1, packets=7, clock=lambda ticks, rng: ticks, beside=lambda rng: []):
        for step in range(round(seconds / STEP)):
            ticks = clock(self.sent * 270000, self.rng) if step % 4 == 0 else None
            burst = [self.packet(ticks)] + [self.packet(None) for _ in range(packets - 1)]
            for at in range(0, packets, 7):
                self.socket.send(b''.join(burst[at:at + 7]))
            for datagram in beside(self.rng):
                self.socket.send(datagram)
            self.sent += 1
            time.sleep(STEP)


def garbage(rng):
    sound = (b'\x47\x01\x00\x10' + b'garbage' * 27)[:PACKET]
    return [b'', sound[:-1], b'\0' + sound[1:], sound + b'\0' + sound[1:], rng.randbytes(rng.randrange(2000)),
            bytes([rng.randrange(0x80, 0xC0), 33]) + rng.randbytes(rng.randrange(40))]


def strangers(rng):
    """Packets that no map names, some with adaptation fields that do not fit or hold a clock that is none."""
    return [b'\x47' + pid.to_bytes(2, 'big') + bytes([0x30, rng.choice((0, 1, 183, 184, 255)), 0x10]) +
            rng.randbytes(PACKET - 6) for pid in (0, 0x11, 0x101, 0x1FFF, 0x2103, 0xA102)]


PHASES = {  # what the sender does after one another
    'even': {},
    'five times the rate': {'packets': 35},
    'garbage between': {'beside': garbage},
    'the clock goes back': {'clock': lambda ticks, rng: ticks - 27_000_000 * 5},
    'another time base': {'clock': lambda ticks, rng: ticks + (150 << 33)},
    'no clock': {'clock': lambda ticks, rng: None},
    'any clock': {'clock': lambda ticks, rng: rng.randrange(300 << 33)},
    'a clock that stands': {'clock': lambda ticks, rng: 1},
    'strangers beside': {'beside': strangers},
    'even again': {},
}


def live(case):
    """After a silence the card tells that its input is lost, and no more once it is back."""
    write(case.path('map.csv'), CSV)
    [port], out = harness.free_ports(1), case.path('out.ts')
    with Server(case, case.flash(), '--source', f'6=udp://127.0.0.1:{port}', '--pidmap',
                f'1.1={case.path("map.csv")}', '--out', f'1.1={out}') as server:
        client, sender = Client(server.port), Sender(port)

        def channel():
            return json.loads(client.request(STATUS, 0).data)['cards'][0]['channels'][0]

        server.wait_started()
        server.wait(lambda: channel()['map']['input_lost'])
        for name, how in PHASES.items():
            sender.play(**how)
            case.check(not channel()['map']['input_lost'], f'{name}: the input is said to be lost')
            if name in ('garbage between', 'strangers beside'):
                case.check(server.wait(lambda: channel()['map']['input_lost']), f'{name}: and then none is not told')
        server.wait(lambda: channel()['packets']['routed'] >= sender.number)
        lost, report = harness.datagrams_lost(port), server.stop()
    case.equal(lost, 0, 'datagrams that the host has dropped')
    case.equal(report['cards'][0]['channels'][0]['packets']['dropped'], 0, 'packets dropped by the output')
    numbers = [int.from_bytes(p[-4:], 'big') for p in packets_of(read(out)) if pid_of(p) == OUT]
    wrong = [i for i, (a, b) in enumerate(zip(numbers, range(sender.number))) if a != b]
    case.check(len(numbers) == sender.number and not wrong,
               f'{len(numbers)} packets of {sender.number}, the first that is another: {wrong[:1]}')


harness.main({'files': files, 'live': live})
