#!/usr/bin/env python3
"""Thirty virtual days of six cards: operators, management clients and SNMP managers at all hours, small tables, and full
ones for the last two days. The memory of the process and of the cards must stay flat, and all continuity counters be
right at the end. A row a virtual day.

    bench/endurance.py [--days DAYS] [--headend FILE] [--samples FOLDER]

Exit code: 0 if all is right, 1 if not."""
import argparse
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time

import snmp_client

ROOT = pathlib.Path(__file__).resolve().parent.parent
DAY = 86400
CARDS = range(1, 7)
FULL_DAYS = 2
HOURLY = (  # commands of an hour, by its number modulo their count; S is a slot, H the hour
    'var set {s} rfreq {rfreq}', 'psi load {s}.1 psi-small.ts', 'psi load {s}.2 psi-small.ts --interval PAT=3',
    'var set {s} rflevel {level}', 'cal read {s}', 'key ok down ok down ok cancel cancel cancel', 'pidmap clear {s}.1',
    'psi interval {s}.1 SDT_C={ticks}', 'cal write {s} --i 10 0{digit} 40 00', 'var set {s} symbolrate {rate}',
    'alarms --history')
GROWTH = 1 << 20  # bytes that memory may grow after the first tenth of the run


def arguments(days, samples):
    total = int(days * DAY)
    words = [*(f'--card={slot}' for slot in CARDS), '--fast', '--seconds', str(total), '--aux-hz', '100',
             '--status-period', '5']
    for hour in range(total // 3600):
        slot = hour % 6 + 1
        full = total - hour * 3600 < min(FULL_DAYS * DAY, total / 10)
        command = HOURLY[hour % len(HOURLY)].format(
            s=slot, rfreq=474000 + hour % 300 * 1000, level=950 + hour % 40 * 5, ticks=20 + hour % 50, digit=hour % 10,
            rate=5000 + hour % 16 * 125)
        if full:
            command = command.replace('psi-small', 'psi-full')
        words += ['--do', f'@{60 + hour * 3600} {command}'.replace(' psi-', f' {samples}/psi-')]
    return words


def memory(process):
    text = pathlib.Path(f'/proc/{process.pid}/status').read_text()
    return int(text.split('VmRSS:')[1].split()[0]) * 1024


class Chassis:

    def __init__(self, qamctl, manage, snmp):
        self.qamctl, self.manage, self.snmp = qamctl, manage, snmp
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(5)
        self.asked = 0

    def ask(self, *words):
        done = subprocess.run([self.qamctl, '--server', f'127.0.0.1:{self.manage}', *words, '--json'],
                              capture_output=True, text=True)
        return json.loads(done.stdout) if done.returncode == 0 and done.stdout else None

    def get(self, oid):
        self.asked += 1
        self.socket.sendto(snmp_client.message('readers', snmp_client.GET, [(oid, (snmp_client.NULL, b''))], self.asked),
                           ('127.0.0.1', self.snmp))
        try:
            return snmp_client.answer_of(self.socket.recv(2048), self.asked)
        except OSError:
            return None


def free_ports(count):
    sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(count)]
    for each in sockets:
        each.bind(('127.0.0.1', 0))
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--days', type=float, default=30)
    parser.add_argument('--headend', default=ROOT / 'build/gcc/headend/headend')
    parser.add_argument('--samples', default=ROOT / 'samples')
    args = parser.parse_args()
    manage, snmp = free_ports(2)
    last = args.days * DAY - 200
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        subprocess.run([args.headend, '--init-flash', '--flash', 'flash'], check=True, stdout=subprocess.DEVNULL)
        words = arguments(args.days, pathlib.Path(args.samples).resolve())
        for slot in CARDS:  # counted over ten of the last seconds, one channel after the other
            for port in (1, 2):
                words += ['--do', f'@{last:.0f} pids {slot}.{port} --seconds 10 --json']
        environment = os.environ | {'HEADEND_SNMP_SECRETS': 'read-community readers'}
        process = subprocess.Popen(
            [args.headend, *words, '--log', '/dev/null', '--report', 'report.json', '--manage', f'127.0.0.1:{manage}',
             '--snmp', f'127.0.0.1:{snmp}'], env=environment, stdout=open('out', 'w'), stderr=open('err', 'w'))
        chassis = Chassis(pathlib.Path(args.headend).parent.parent / 'tools/qamctl', manage, snmp)
        began, samples, answers, step = time.monotonic(), [], 0, 0.1 * args.days * DAY / 3
        while process.poll() is None:
            time.sleep(0.5)
            answer = chassis.get((1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27, 2, 2, 51, 1, 4, 0))
            answers += answer is not None
            status = chassis.ask('status')
            if status and process.poll() is None and (not samples or status['virtual_seconds'] - samples[-1][0] >= step):
                samples.append((status['virtual_seconds'], memory(process), status['heap']['used']))
                print(f'day {samples[-1][0] / DAY:6.2f}: process {samples[-1][1]:,} bytes, cards {samples[-1][2]:,} bytes, '
                      f'{answers} SNMP answers, {time.monotonic() - began:.0f} s', flush=True)
        report = json.loads(pathlib.Path('report.json').read_text())
        wrong = []
        settled = [each for each in samples if each[0] > args.days * DAY / 10]
        for what, column in (('process', 1), ('cards', 2)):
            values = [each[column] for each in settled]
            if not values or values[-1] > values[0] + GROWTH:
                wrong.append(f'the memory of the {what} is not flat: {values}')
        decoder, text, counted, errors = json.JSONDecoder(), pathlib.Path('out').read_text(), 0, 0
        while (start := text.find('{')) >= 0:
            found, end = decoder.raw_decode(text[start:])
            text = text[start + end:]
            counted += sum(each['packets'] for each in found['pids'] if each['pid'] != 0x1FFF)
            errors += sum(each['continuity_errors'] for each in found['pids'])
        if errors or not counted:
            wrong.append(f'{errors} continuity errors in {counted} packets at the end')
        failed = [each for each in report['commands'] if each.get('error')]
        if failed:
            wrong.append(f'{len(failed)} of {len(report["commands"])} commands failed, the first: {failed[0]}')
        if process.returncode or report['protocol_violations'] or not answers:
            wrong.append(f'exit code {process.returncode}, violations {report["protocol_violations"]}, {answers} answers, '
                         + pathlib.Path('err').read_text()[-300:])
        print(f'{args.days} days in {time.monotonic() - began:.0f} s, {len(report["commands"])} commands, {answers} SNMP '
              f'answers; {counted} packets of tables and {errors} continuity errors in the last seconds')
        for each in wrong:
            print(f'wrong: {each}', file=sys.stderr)
        return 1 if wrong else 0


sys.exit(main())
