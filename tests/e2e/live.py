#!/usr/bin/env python3
"""Streams over UDP, in real time. A programme, bare and in RTP, goes into a decoder, which must find every picture and
every tone as it was; --seconds makes it longer. And a stream that is not as it should be: what is sound in it arrives."""
import json
import os
import random
import socket
import subprocess
import time

import harness
from harness import PACKET, RATE_DEN, RATE_NUM, STATUS, Client, Server, packets_of, pid_of, read, write

LATENT = 13  # frames that the decoder still keeps when its stream goes silent
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error']
STREAMS = ['-map', '0:v', '-map', '0:a']
DIGESTS = [*STREAMS, '-f', 'framemd5', '-flush_packets', '1']


def frames(path):
    """Of each stream the digests of what was decoded, in order."""
    found = {'0': [], '1': []}
    for line in (read(path).decode() if os.path.exists(path) else '').splitlines():
        fields = [field.strip() for field in line.split(',')]
        if not line.startswith('#') and len(fields) == 6:
            found[fields[0]].append(fields[5])
    return found


def every_picture_and_tone_arrives_over_udp_and_in_rtp(case):
    seconds, source, due_list, got_list = case.args.seconds, case.path('live.ts'), case.path('due'), case.path('got')
    case.execute([*FFMPEG, '-f', 'lavfi', '-i', 'testsrc=size=352x288:rate=25', '-f', 'lavfi', '-i', 'sine', '-t',
                  str(seconds), '-c:v', 'mpeg2video', '-b:v', '1M', '-c:a', 'mp2', '-metadata', 'service_name=Live', source])
    case.execute([*FFMPEG, '-i', source, *DIGESTS, due_list])
    due = frames(due_list)
    case.check(len(due['0']) == 25 * seconds and len(due['1']) > 38 * seconds, 'no source to compare with')

    # An operator maps the programme once, from a file; the flash brings the map back.
    flash, copy = case.flash(), case.path('copy.ts')
    case.fast(flash, 2, '--source', f'6={source},{source}', '--programme', '1.1=6.1:Live', '--programme', '1.2=6.2:1')
    udp, rtp, control, out = harness.free_ports(4)
    with Server(case, flash, '--source', f'6=udp://127.0.0.1:{udp},udp://127.0.0.1:{rtp}', '--out',
                f'1.1=udp://127.0.0.1:{out}', '--out', f'1.2={copy}') as server:
        decoder = subprocess.Popen(
            [*FFMPEG, '-threads', '1', '-probesize', '100M', '-analyzeduration', '1M', '-i',
             f'udp://127.0.0.1:{out}?buffer_size=4000000', *DIGESTS, got_list],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        try:
            server.wait_started()
            case.execute([*FFMPEG, '-re', '-i', source, *STREAMS, '-c', 'copy', '-f', 'mpegts',
                          f'udp://127.0.0.1:{udp}?pkt_size=1316', *STREAMS, '-c', 'copy', '-f', 'rtp_mpegts',
                          f'rtp://127.0.0.1:{rtp}?pkt_size=1328&rtcpport={control}'],
                         timeout=seconds + harness.HANG_SECONDS)
            server.wait(lambda: all(len(frames(got_list)[stream]) + LATENT >= len(due[stream]) + 1 for stream in due))
            losses = [harness.datagrams_lost(port) for port in (udp, rtp, out)]
        finally:
            decoder.kill()
            said = decoder.communicate(timeout=harness.HANG_SECONDS)[1].decode(errors='replace')
        report = server.stop()
    case.equal(losses, [0, 0, 0], 'datagrams that the host has dropped')
    case.equal(said, '', 'what the decoder says')
    case.equal([channel['packets']['dropped'] for channel in report['cards'][0]['channels']], [0, 0], 'packets dropped')
    case.execute([*FFMPEG, '-probesize', '100M', '-i', copy, *DIGESTS, case.path('copied')])
    for name in (got_list, case.path('copied')):
        for stream, got in frames(name).items():
            count = len(got) - 1  # the last one may be cut
            case.check(count >= len(due[stream]) - LATENT and got[:count] == due[stream][:count],
                       f'{name}: stream {stream}: {count} frames of {len(due[stream])}, or others')
    seen = case.ts_judge(copy, '--rate', f'{RATE_NUM}/{RATE_DEN}')
    case.equal((seen['continuity_errors'], len(seen['pcr'])), ({}, 1), 'continuity errors, PIDs with a clock')


PID, OUT = 0x100, 0x300
STEP = 0.01  # seconds between two bursts


class Sender:
    """Sends numbered packets with PCRs of the sender's time over UDP, in steps of STEP."""

    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(('127.0.0.1', port))
        self.rng, self.number, self.steps = random.Random(6), 0, 0

    def packet(self, ticks):
        """One of those that must arrive, with a PCR if there are ticks."""
        head = bytes([0x47, PID >> 8, PID & 255, (0x10 if ticks is None else 0x30) | self.number % 16])
        if ticks is not None:
            base, extension = divmod(int(ticks) % (300 << 33), 300)
            head += bytes([7, 0x10]) + (base << 15 | 0x7E00 | extension).to_bytes(6, 'big')
        self.number += 1
        return head.ljust(PACKET - 4, b'\xaa') + (self.number - 1).to_bytes(4, 'big')

    def play(self, packets=7, clock=lambda ticks, rng: ticks, beside=lambda rng: []):
        for step in range(70):  # longer than an input without packets takes to be lost
            ticks = clock(self.steps * 270000, self.rng) if step % 4 == 0 else None
            burst = [self.packet(ticks)] + [self.packet(None) for _ in range(packets - 1)]
            for datagram in [*(b''.join(burst[at:at + 7]) for at in range(0, packets, 7)), *beside(self.rng)]:
                self.socket.send(datagram)
            self.steps += 1
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


def each_sound_packet_of_a_damaged_stream_arrives_once_and_in_order(case):
    """After a silence the card tells that its input is lost, and no more once it is back."""
    write(case.path('map.csv'), f'src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n'
                                f'6,1,{PID},1,{OUT},1,2\n'.encode())
    [port], out = harness.free_ports(1), case.path('out.ts')
    with Server(case, case.flash(), '--source', f'6=udp://127.0.0.1:{port}', '--pidmap',
                f'1.1={case.path("map.csv")}', '--out', f'1.1={out}') as server:
        client, sender = Client(server.port), Sender(port)

        def channel():
            return json.loads(client.request(STATUS, 0).data)['cards'][0]['channels'][0]

        server.wait_started()
        server.wait(lambda: channel()['map']['input_lost'])
        for name, how in PHASES.items():
            for _ in range(5):  # the host may hold up the sender
                sender.play(**how)
                if not channel()['map']['input_lost']:
                    break
            else:
                case.check(False, f'{name}: the input is said to be lost')
            if name in ('garbage between', 'strangers beside'):
                case.check(server.wait(lambda: channel()['map']['input_lost']), f'{name}: and then none is not told')
        server.wait(lambda: channel()['packets']['routed'] >= sender.number)
        lost, report = harness.datagrams_lost(port), server.stop()
    case.equal(lost, 0, 'datagrams that the host has dropped')
    case.equal(report['cards'][0]['channels'][0]['packets']['dropped'], 0, 'packets dropped by the output')
    numbers = [int.from_bytes(packet[-4:], 'big') for packet in packets_of(read(out)) if pid_of(packet) == OUT]
    case.check(numbers == list(range(sender.number)), f'{len(numbers)} packets of {sender.number}, or others')


harness.main([every_picture_and_tone_arrives_over_udp_and_in_rtp, each_sound_packet_of_a_damaged_stream_arrives_once_and_in_order])
