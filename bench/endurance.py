#!/usr/bin/env python3
"""Thirty virtual days of six cards: operators, management clients and SNMP managers at all hours, small tables, and full
ones for the last two days. The memory of the process and of the cards must stay flat, and all continuity counters be
right at the end. Memory grows at first: the last replies to 64 clients are kept, and the status has more and more to
tell. In runs under 20 days it is printed and not judged. A row a virtual day.

    bench/endurance.py [--days DAYS] [--headend FILE] [--samples FOLDER]

Exit code: 0 if all is right, 1 if not."""
import argparse
import itertools
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time

import snmp_client

DAY = 86400
CARDS = range(1, 7)
FULL_DAYS = 2
HOURLY = (  # commands of an hour, by its number modulo their count; S is a slot, H the hour
    'var set {s} rfreq {rfreq}', 'psi load {s}.1 psi-small.ts', 'psi load {s}.2 psi-small.ts --interval PAT=3',
    'var set {s} rflevel {level}', 'cal read {s}', 'key ok down ok down ok cancel cancel cancel', 'pidmap clear {s}.1',
    'psi interval {s}.1 SDT_C={ticks}', 'cal write {s} --i 10 0{digit} 40 00', 'var set {s} symbolrate {rate}',
    'alarms --history')
SETTLED = 20  # days of a run whose first tenth is long enough for memory to fill
GROWTH = 1 << 19  # bytes that memory may grow after the first tenth of the days with small tables, or with full ones


def phases(days):
    """The virtual seconds at which small tables, full ones, and the counting of continuity begin, and the end."""
    total = int(days * DAY)
    return 0, total - int(min(FULL_DAYS * DAY, total / 10)), total - 200, total


def arguments(days, samples):
    _, full, _, total = phases(days)
    words = [*(f'--card={slot}' for slot in CARDS), '--fast', '--seconds', str(total), '--aux-hz', '100',
             '--status-period', '5']
    commands = [(at + 5 * slot + port, f'psi load {slot}.{port} {tables}')  # all channels, at the beginning of a phase
                for at, tables in ((10, 'psi-small.ts'), (full, 'psi-full.ts')) for slot in CARDS for port in (1, 2)]
    for hour in range(total // 3600):
        slot, at = hour % 6 + 1, 60 + hour * 3600
        command = HOURLY[hour % len(HOURLY)].format(
            s=slot, rfreq=474000 + hour % 300 * 1000, level=950 + hour % 40 * 5, ticks=20 + hour % 50, digit=hour % 10,
            rate=5000 + hour % 16 * 125)
        commands.append((at, command.replace('psi-small', 'psi-full') if at > full else command))
    for at, command in commands:
        words += ['--do', f'@{at} {command}'.replace(' psi-', f' {samples}/psi-')]
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


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--days', type=float, default=30)
    parser.add_argument('--headend', default='build/gcc/headend/headend')
    parser.add_argument('--samples', default='samples')
    args = parser.parse_args()
    headend, samples_folder = pathlib.Path(args.headend).resolve(), pathlib.Path(args.samples).resolve()
    manage, snmp = snmp_client.free_ports(2)
    last = phases(args.days)[2]
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        subprocess.run([headend, '--init-flash', '--flash', 'flash'], check=True, stdout=subprocess.DEVNULL)
        words = arguments(args.days, samples_folder)
        for slot in CARDS:  # counted over ten of the last seconds, one channel after the other
            for port in (1, 2):
                words += ['--do', f'@{last} pids {slot}.{port} --seconds 10 --json']
        # Large buffers go back to the system when they are freed, so that what the process has is what it uses.
        environment = os.environ | {'HEADEND_SNMP_SECRETS': 'read-community readers', 'MALLOC_MMAP_THRESHOLD_': '65536'}
        process = subprocess.Popen(
            [headend, *words, '--log', '/dev/null', '--report', 'report.json', '--manage', f'127.0.0.1:{manage}',
             '--snmp', f'127.0.0.1:{snmp}'], env=environment, stdout=open('out', 'w'), stderr=open('err', 'w'))
        chassis = Chassis(headend.parent.parent / 'tools/qamctl', manage, snmp)
        began, samples, answers, printed = time.monotonic(), [], 0, -DAY
        while process.poll() is None:
            time.sleep(0.5)
            answer = chassis.get((1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27, 2, 2, 51, 1, 4, 0))
            answers += answer is not None
            status = chassis.ask('status')
            if status is None or process.poll() is not None:
                continue
            samples.append((status['virtual_seconds'], memory(process), status['heap']['used']))
            if samples[-1][0] - printed >= min(DAY, args.days * DAY / 30):
                printed = samples[-1][0]
                print(f'day {printed / DAY:6.2f}: process {samples[-1][1]:,} bytes, cards {samples[-1][2]:,} bytes, '
                      f'{answers} SNMP answers, {time.monotonic() - began:.0f} s', flush=True)
        report = json.loads(pathlib.Path('report.json').read_text())
        wrong = []
        for begin, end in itertools.pairwise(phases(args.days)[:3]):
            for what, column in (('process', 1), ('cards', 2)):
                values = [each[column] for each in samples if begin + (end - begin) / 10 < each[0] < end] or [0]
                print(f'days {begin / DAY:.1f} to {end / DAY:.1f}, {what}: {values[0]:,} bytes after the first tenth, '
                      f'{max(values):,} at most, {values[-1]:,} at the end')
                if args.days >= SETTLED and not max(values[0], 1) <= max(values) <= values[0] + GROWTH:
                    wrong.append(f'the memory of the {what} is not flat')
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
