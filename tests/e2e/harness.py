# What the end-to-end tests share: running the programs, temporary flash folders, sections of a stream, and a management
# client written from the description of the datagram.
#
# A script calls main() at its end. Its cases are its functions with three underscores in the name or more; each is a
# test of its own, of that name.
import argparse
import collections
import contextlib
import inspect
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback

PACKET = 188
NULL_PID = 0x1FFF
TYPES = {'PAT': (0, 0x00), 'PMT': (1, 0x02), 'SDT_C': (2, 0x42), 'SDT_O': (3, 0x46), 'NIT_C': (4, 0x40),
         'NIT_O': (5, 0x41), 'BAT': (6, 0x4A), 'CAT': (7, 0x01)}  # name: (index in the card, table_id)
# 6875 kBd, 64-QAM, 188 of 204 bytes.
RATE_NUM, RATE_DEN = 646250000, 17
RATE = ['--rate', f'{RATE_NUM}/{RATE_DEN}']
HANG_SECONDS = 280  # no program that ends by itself takes this long
RETRY_SECONDS, TRIES = 2, 30  # a datagram may be lost
SKIPPED = 77  # the exit code of a case that cannot be judged on this machine
LONG = bool(os.environ.get('QAM_LONG'))  # campaigns are long

Run = collections.namedtuple('Run', 'code text report')


BITSTREAM = 'K717_QAM/qam.bin'


def record_file(slot):
    return f'para/card{slot}.dat'


def read(path):
    return pathlib.Path(path).read_bytes()


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    pathlib.Path(path).write_bytes(data)


# Relative name and content of every file below a folder; links are none, nor is a lock.
def tree(folder):
    return {str(path.relative_to(folder)): read(path) for path in pathlib.Path(folder).rglob('*')
            if not path.is_symlink() and path.is_file() and path.name != 'lock'}


def free_ports(count):
    with contextlib.ExitStack() as stack:
        sockets = [stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) for _ in range(count)]
        for each in sockets:
            each.bind(('127.0.0.1', 0))
        return [each.getsockname()[1] for each in sockets]


# Waits for what is true; gives up when it cannot come any more.
def poll(condition, ended=lambda: False):
    for _ in range(HANG_SECONDS * 20):
        last = ended()
        result = condition()
        if result or last:
            return result
        time.sleep(0.05)
    return None


# One test: a temporary folder, the programs, and what was found wrong.
class Case:

    def __init__(self, args, folder):
        self.args, self.folder, self.wrong, self.runs = args, folder, [], 0

    def check(self, ok, text):
        if not ok:
            self.wrong.append(text)
        return ok

    def equal(self, got, wanted, text):
        return self.check(got == wanted, f'{text}: {str(got)[:300]} where {str(wanted)[:300]} is due')

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def sample(self, name):
        return os.path.join(self.args.samples, name)

    def flash(self, name='flash'):
        path = self.path(name)
        self.headend('--init-flash', '--flash', path)
        return path

    # Runs a program that ends by itself. It must not crash, whatever it was given.
    def execute(self, command, codes=(0,), timeout=HANG_SECONDS, **options):
        shown = ' '.join(os.path.basename(word) if word.startswith('/') else word for word in command)
        try:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout, **options)
        except subprocess.TimeoutExpired:
            self.check(False, f'{shown}: hangs')
            return Run(None, '', None)
        text = (done.stdout + done.stderr).decode(errors='replace')
        self.check(done.returncode in codes, f'{shown}: exit code {done.returncode}, not {codes}: {text[-600:]}')
        self.check(not re.search(r'Sanitizer|runtime error:', text), f'{shown}: {text[-2000:]}')
        return Run(done.returncode, text, None)

    # Runs the headend to its end and reads the report.
    def headend(self, *args, codes=(0,), other=None, **options):
        self.runs += 1
        report = self.path(f'report{self.runs}.json')
        if not {'--init-flash', '--report'} & set(args):
            args += ('--report', report)
        run = self.execute([other or self.args.headend, *args], codes, **options)
        return run._replace(report=json.loads(read(report)) if os.path.exists(report) else None)

    def fast(self, flash, seconds, *args, **options):
        return self.headend('--fast', '--seconds', str(seconds), '--flash', flash, *args, **options)

    def qamctl(self, server, *args, codes=(0,)):
        return self.execute([self.args.qamctl, '--server', server, *args], codes)

    # What the checker says of a stream: its summary, with the faults by kind.
    def tscheck(self, file, *args, codes=(0,)):
        return self.findings(self.args.tscheck, file, '--json', *args, codes=codes)

    # The JSON that a program prints.
    def findings(self, *command, codes=(0,)):
        return json.loads(self.execute(command, codes).text)

    # The report's entry of a card, which must be in that state.
    def card(self, run, slot, state='running'):
        cards = {card['slot']: card for card in (run.report or {}).get('cards', [])}
        self.equal(cards.get(slot, {}).get('state'), state, f'state of slot {slot} ({run.text[-600:]})')
        return cards.get(slot)

    # No protocol violation, and only the failed checks that are bound to be there.
    def clean(self, run, assertions=0):
        if self.check(run.report is not None, f'no report: {run.text[-600:]}'):
            self.equal(run.report['protocol_violations'], {}, 'protocol violations')
            self.equal(len(run.report['assertion_failures']), assertions,
                       f'failed checks {run.report["assertion_failures"]}')

    def says(self, run, *patterns):
        for pattern in patterns:
            self.check(re.search(pattern, run.text, re.IGNORECASE), f'nothing about /{pattern}/ in: {run.text[-900:]}')

    # No file lies about in the flash folder that does not belong there.
    def tidy(self, flash, *more):
        known = {BITSTREAM, 'alarms/history.dat', *(record_file(slot) for slot in range(1, 7)), *more}
        self.equal(sorted(set(tree(flash)) - known), [], 'files left behind in the flash folder')


# A headend with a management socket, ended when the block is left; in real time, unless --fast is given.
class Server:

    def __init__(self, case, flash, *args, manage='127.0.0.1:0'):
        self.case, self.output = case, case.path(f'server{case.runs}.log')
        self.report = case.path(f'server{case.runs}.json')
        case.runs += 1
        self.sink = open(self.output, 'wb')
        self.process = subprocess.Popen(
            [case.args.headend, '--flash', flash, '--manage', manage, '--report', self.report, *args],
            stdin=subprocess.DEVNULL, stdout=self.sink, stderr=subprocess.STDOUT)

    def text(self):
        return read(self.output).decode(errors='replace')

    def __enter__(self):
        found = self.wait(lambda: re.search(r'(?<!udp://)127\.0\.0\.1:(\d+)', self.text()))
        if not found:
            self.process.kill()
            raise AssertionError(f'no management port named: {self.text()}')
        self.port = int(found.group(1))
        self.address = f'127.0.0.1:{self.port}'
        return self

    def wait(self, condition):
        return poll(condition, lambda: self.process.poll() is not None)

    # A client, once the card in slot 1 has started.
    def wait_started(self):
        client = Client(self.port)
        self.case.check(self.wait(lambda: client.request(READ, PSI_LOCK).result != NOT_STARTED),
                        f'slot 1 does not start: {self.text()[-600:]}')
        return client

    def stop(self, signum=signal.SIGTERM, code=0):
        self.process.send_signal(signum)
        self.sink.close()
        self.case.equal(self.process.wait(HANG_SECONDS), code, f'exit code after signal {signum} ({self.text()[-600:]})')
        self.case.check(not re.search(r'Sanitizer|runtime error:', self.text()), self.text()[-2000:])
        return json.loads(read(self.report)) if os.path.exists(self.report) else None

    def __exit__(self, *error):
        try:
            if not self.sink.closed:
                self.case.check(self.process.poll() is None, 'the headend ended by itself')
                self.stop()
        finally:
            self.process.kill()


# The management datagram: "QM", version, operation, sequence number, variable header, data.
MAGIC, VERSION = 0x514D, 1
READ, WRITE, STATUS = 1, 2, 3
PSI_LOCK, PSI_PACKETS, PSI_INTERVAL = 0x3101, 0x3102, 0x3201
NOT_STARTED = 0x100
Reply = collections.namedtuple('Reply', 'raw operation result data')


class Client:
    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(RETRY_SECONDS)
        self.socket.connect(('127.0.0.1', port))
        self.sequence = int.from_bytes(os.urandom(4), 'big')  # another client may have used the port just before

    @staticmethod
    def datagram(operation, variable, slot, channel, data=b'', length=None, sequence=1):
        return struct.pack('>HBBIHHIHHI', MAGIC, VERSION, operation, sequence, variable, slot - 1, channel - 1,
                           len(data) if length is None else length, 0, 0) + data

    def request(self, operation, variable, slot=1, channel=1, data=b'', length=None, sequence=None):
        if sequence is None:
            sequence = self.sequence = (self.sequence + 1) & 0xFFFFFFFF
        for _ in range(TRIES):
            self.socket.send(self.datagram(operation, variable, slot, channel, data, length, sequence))
            try:
                while True:
                    raw = self.socket.recv(65536)
                    if int.from_bytes(raw[4:8], 'big') == sequence:
                        return Reply(raw, raw[3], int.from_bytes(raw[24:28], 'big'), raw[28:])
            except TimeoutError:
                pass
        raise AssertionError('the back end does not answer')

    def lock(self, on, channel=1):
        return self.request(WRITE, PSI_LOCK, 1, channel, struct.pack('>I', on)).result


# A request with something behind it, with other bytes, or cut.
def damaged(chance, raw):
    raw = bytearray(raw + chance.randbytes(chance.choice((0, 0, 4, 1500))))
    for _ in range(chance.choice((0, 1, 4))):
        raw[chance.randrange(len(raw))] = chance.choice((0, 1, 2, 6, 0x7F, 0x82, 0xFF, chance.randrange(256)))
    return raw[:chance.choice((len(raw), len(raw), len(raw) - 1, chance.randrange(len(raw))))]


# A file of a PID map: slot, input and PID of a source, and the PID that its packets get.
def pid_map(*rows):
    head = 'src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n'
    return (head + ''.join(f'{slot},{port},{pid},1,{out},1,2\n' for slot, port, pid, out in rows)).encode()


# A stream without clock, of PIDs in turn; every packet tells its number.
def numbered_stream(pids, count):
    return b''.join(bytes([0x47, pids[n % len(pids)] >> 8, pids[n % len(pids)] & 255, 0x10 | n // len(pids) % 16]) +
                    n.to_bytes(4, 'big') * 46 for n in range(count))


def packets_of(stream):
    return [stream[at:at + PACKET] for at in range(0, len(stream) - PACKET + 1, PACKET)]


def pid_of(packet):
    return (packet[1] & 31) << 8 | packet[2]


def main(script):
    if script != '__main__':
        return
    cases = {name.replace('_', '-'): each for name, each in vars(sys.modules[script]).items()
             if name.count('_') > 2 and inspect.isfunction(each) and each.__module__ == script}
    parser = argparse.ArgumentParser()
    for name in ('headend', 'qamctl', 'tscheck', 'samples'):
        parser.add_argument('--' + name, type=os.path.abspath)
    parser.add_argument('--other', help='a headend of another build, which must do the same')
    parser.add_argument('--list', action='store_true')
    parser.add_argument('cases', nargs='*')
    args = parser.parse_args()
    if args.list:
        print('\n'.join(cases))
        sys.exit(0)
    failed = False
    for name in args.cases or cases:
        started = time.monotonic()
        with tempfile.TemporaryDirectory(prefix='headend-') as folder:
            case = Case(args, folder)
            try:
                cases[name](case)
            except Exception as error:  # a case that cannot continue has failed; the others still count
                case.check(False, ''.join(traceback.format_exception(error)))
        for text in case.wrong:
            print(f'{name}: {text}')
        print(f'{name}: {"FAILED" if case.wrong else "ok"} after {time.monotonic() - started:.1f} s')
        failed |= bool(case.wrong)
    sys.exit(1 if failed else 0)
