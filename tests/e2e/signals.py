#!/usr/bin/env python3
"""Ctrl-C and SIGTERM end a run cleanly: whole packets in the outputs, a report, exit code 0."""
import os
import signal
import socket

import harness
from harness import PACKET, Client, Server

ROWS = {'SIGINT': signal.SIGINT, 'SIGTERM': signal.SIGTERM}


def ended_by(signum):
    def run_case(case):
        flash, out = case.flash(), case.path('out.ts')
        small = case.sample('psi-small.ts')
        with Server(case, flash, '--psi', f'1.1={small}', '--out', f'1.1={out}') as server:
            server.wait_started()
            server.wait(lambda: Client(server.port).read_interval('PMT')[1] == 4)
            size = os.path.getsize(out)
            server.wait(lambda: os.path.getsize(out) > size + 1_000_000)  # some of it with tables
            report = server.stop(signum)
        case.equal(os.path.getsize(out) % PACKET, 0, 'bytes after the last whole packet')
        seen = case.judge('--self', out, '--every-pid')
        case.check(seen.get('sections', 0) > 3, f'hardly a table on the air: {seen}')
        if case.check(report is not None, 'no report'):
            total = report['cards'][0]['channels'][0]['packets']['total']
            case.equal(total, os.path.getsize(out) // PACKET, 'packets in the report')
        case.tidy(flash)
    return run_case


def fast_run(case):
    """A fast run that would take days ends as cleanly."""
    with Server(case, case.flash(), '--fast', '--seconds', '10000000') as server:
        server.wait_started()
        report = server.stop(signal.SIGINT)
    case.check(report is not None and report['virtual_seconds'] < 10000000, f'report: {report}')


def udp_output(case):
    """Seven bare packets a datagram."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sink:
        sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        sink.bind(('127.0.0.1', 0))
        sink.settimeout(harness.HANG_SECONDS)
        target = f'1.2=udp://127.0.0.1:{sink.getsockname()[1]}'
        with Server(case, case.flash(), '--psi', f'1.2={case.sample("psi-small.ts")}', '--out', target) as server:
            pids = set()
            for _ in range(200_000):  # at 3600 a second far more than it takes
                data = sink.recv(65536)
                if not case.equal((len(data), data[::PACKET]), (7 * PACKET, b'G' * 7), 'a datagram'):
                    break
                pids |= {harness.pid_of(packet) for packet in harness.packets_of(data)}
                if pids >= {0, 1, 0x10, 0x11, 0x100, 0x130, harness.NULL_PID}:
                    break
            wanted = [0, 1, 0x10, 0x11, 0x100, 0x110, 0x120, 0x130, harness.NULL_PID]
            case.equal(sorted(pids), wanted, 'PIDs on the air')
            server.stop()


CASES = {name: ended_by(signum) for name, signum in ROWS.items()}
CASES |= {'fast-run': fast_run, 'udp-output': udp_output}

if __name__ == '__main__':
    harness.main(CASES)
