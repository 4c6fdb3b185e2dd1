#!/usr/bin/env python3
# A running headend and its clients, also those that send nonsense; and how an operator ends a run.
import json
import os
import random
import signal
import socket
import struct

import harness
from harness import PACKET, PSI_INTERVAL, PSI_LOCK, PSI_PACKETS, READ, TYPES, WRITE, Client, Server

MAP_CHUNK, GET, SET, CALL, FAULT = 0x2102, 4, 5, 10, 16
NUMBER = struct.pack('>I', 600000)
FAST = ('--fast', '--seconds', '10000000')


# Packets of the SDT.
def chunk(count):
    return struct.pack('>HBxIIB3x', 0x11, 0x42, count, 0, count) + bytes(count * PACKET)


def interval(table_id, ticks, packets=0):
    return struct.pack('>B3xII', table_id, ticks, packets)


# Operation, variable, slot, channel, data, length if it is wrong, result. The card's own tests cover more of each kind.
RESULTS = {
    'lock read': (READ, PSI_LOCK, 1, 1, b'', None, 0),
    'tables': (WRITE, PSI_PACKETS, 1, 2, chunk(7), None, 0),
    'map': (WRITE, MAP_CHUNK, 1, 2, struct.pack('>III HHIHHHH', 1, 0, 1, 5, 2, 0, 1, 2, 0x100, 0x101), None, 0),
    'slot 7': (READ, PSI_LOCK, 7, 1, b'', None, 18),
    'unknown variable': (WRITE, 0x3103, 1, 1, b'', None, 2),
    'length above the data': (WRITE, PSI_LOCK, 1, 1, bytes(4), 5, 22),
    'setting': (SET, 30, 1, 1, NUMBER, None, 0),
    'setting with three bytes': (SET, 30, 1, 1, NUMBER[:3], None, 22),
    'setting of a reading': (SET, 36, 1, 1, NUMBER, None, 0x105),
    'setting to a value beyond its bounds': (SET, 30, 1, 1, struct.pack('>I', 51999), None, 0x10B),
    'setting that would keep the semaphore': (SET, 51, 1, 1, NUMBER, None, 0x104),
    'number without a variable': (GET, 46, 1, 1, b'', None, 0x104),
    'key that is none': (15, 0, 1, 1, b'\x07', None, 0x10A),
    'debug routine of a source card': (CALL, 0, 6, 1, b'QamFpgaTest\0', None, 21),
}


def a_request_gets_its_result_once_however_often_it_is_repeated(case):
    with Server(case, case.flash(), *FAST, '--source', f'6={case.sample("two-programmes.ts")}') as server:
        one, two = server.wait_started(), Client(server.port)
        for name, (operation, variable, slot, channel, data, length, result) in RESULTS.items():
            reply = one.request(operation, variable, slot, channel, data, length)
            case.equal((reply.result, reply.operation), (result, operation | 0x80), f'{name}: result')
            case.equal(len(reply.data), 4 if name == 'lock read' else 0, f'{name}: length of the reply')
        first = one.request(WRITE, PSI_INTERVAL, data=interval(0, 11), sequence=1000)
        case.equal(two.request(WRITE, PSI_INTERVAL, data=interval(0, 22)).result, 0, 'write of another client')
        case.equal(one.request(WRITE, PSI_INTERVAL, data=interval(0, 11), sequence=1000), first, 'repeated reply')
        case.equal(two.request(READ, PSI_INTERVAL, data=bytes(4)).data, interval(0, 22), 'after a repeated request')
        for variable, text in ((1, b'1.clock-no-ack'), (2, b'1.clock-no-ack')):  # cleared once, answered twice
            replies = [one.request(FAULT, variable, data=bytes(4) + text, sequence=1500 + variable) for _ in range(2)]
            case.equal([reply.result for reply in replies], [0, 0], 'fault request that is repeated')
        one.lock(1)
        for sequence in (0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0):
            case.equal(one.request(WRITE, PSI_PACKETS, data=chunk(1), sequence=sequence).result, 0, 'chunk')
        case.equal(two.request(READ, PSI_INTERVAL, data=b'\x42\0\0\0').data, interval(0x42, 300, 2),
                   'packets after two chunks, one of which came three times')


def datagrams_of_any_content_harm_no_other_client(case):
    rng = random.Random(20)
    with Server(case, case.flash(), '--source', f'6={case.sample("four-programmes-cbr.ts")}') as server:
        client, other = server.wait_started(), Client(server.port)
        client.lock(1, channel=2)
        for number in range(10000 if harness.LONG else 1000):
            client.socket.send(datagram_from(rng))
            if number % 50 == 49:  # wait for it, and check that others are answered
                reply = other.request(READ, PSI_LOCK, channel=2)
                case.equal((reply.result, len(reply.data)), (0, 4), f'reply after {number}: {server.text()[-600:]}')
        for channel in (1, 2):
            Client(server.port).lock(0, channel=channel)
        case.qamctl(server.address, 'psi', 'load', '1.2', case.sample('psi-many.ts'))
        other.request(WRITE, PSI_INTERVAL, channel=2, data=interval(0x42, 10))  # more packets than a search keeps
        found = json.loads(case.qamctl(server.address, 'psi', 'search', '1.2', '0x11', 'SDT_C', '--json').text)
        case.equal([(row['crc_good'], row['seen'] > 10) for row in found], [(True, True)] * 2, f'sections: {found}')
        report = server.stop()
    case.equal([card['state'] for card in report['cards']], ['running'], 'state after it all')


# Noise, or a damaged request of the table.
def datagram_from(rng):
    if rng.randrange(4) == 0:
        return rng.randbytes(rng.choice((0, 23, 24, 27, 28, rng.randrange(60000))))
    operation, variable, slot, channel, data, length, _ = rng.choice(list(RESULTS.values()))
    return harness.damaged(rng, Client.datagram(operation, variable, slot, channel, data, length, rng.randrange(1 << 32)))


# On a bus so slow that two channels keep the processor busy.
def a_request_that_starves_is_reported_with_who_kept_it_waiting(case):
    flags = ['--bus-ns', '800', *FAST]
    for channel in ('1.1', '1.2'):
        flags += [word for table in TYPES for word in ('--interval', f'{channel}.{table}=1')]
        flags += ['--psi', f'{channel}={case.sample("psi-many.ts")}']
    with Server(case, case.flash(), *flags) as server:
        client = Client(server.port)

        def asked_in_vain():
            client.socket.send(Client.datagram(READ, PSI_LOCK, 1, 1))
            return 'qam0PSISend' in server.text()

        case.check(server.wait(asked_in_vain), f'no task is named for the delay: {server.text()[-900:]}')
        report = server.stop()
    case.equal(sorted(load['task'] for load in report['late_requests'][0]['load'] if 'PSISend' in load['task']),
               ['qam0PSISend0', 'qam0PSISend1'], f'tasks in {report["late_requests"][0]}')


# So does one that would take days. A UDP output sends seven bare packets a datagram.
def a_signal_ends_a_run_with_whole_packets_and_a_report(case):
    small, out = case.sample('psi-small.ts'), case.path('out.ts')
    for signum, pace in ((signal.SIGINT, ()), (signal.SIGTERM, ()), (signal.SIGINT, FAST)):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sink:
            sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
            sink.settimeout(harness.HANG_SECONDS)
            sink.bind(('127.0.0.1', 0))
            flags = ['--psi', f'1.2={small}', '--out', f'1.1={out}', '--psi', f'1.1={small}', '--out']
            flags += [f'1.2=udp://127.0.0.1:{sink.getsockname()[1]}', *pace]
            with Server(case, case.flash(f'flash {signum} {pace}'), *flags) as server:
                pids, wanted = set(), {0, 1, 0x10, 0x11, 0x100, 0x110, 0x120, 0x130, harness.NULL_PID}
                while not wanted <= pids:
                    data = sink.recv(65536)
                    if not case.equal((len(data), data[::PACKET]), (7 * PACKET, b'G' * 7), 'a datagram'):
                        break
                    pids |= {harness.pid_of(packet) for packet in harness.packets_of(data)}
                case.equal(pids, wanted, 'PIDs on the air')
                report = server.stop(signum)
        case.equal(report['cards'][0]['channels'][0]['packets']['total'] * PACKET, os.path.getsize(out), 'bytes')
        case.check(case.tscheck(out, '--every-pid')['sections'] > 3, 'hardly a table on the air')
        case.check(report['virtual_seconds'] < 10000000, 'it went on to its end')


harness.main(__name__)
