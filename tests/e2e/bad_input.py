#!/usr/bin/env python3
"""Bad files, bad captures, full disks and wrong calls: each gives a clear message and a defined result."""
import os
import resource
import signal
import socket

import harness
from harness import BITSTREAM, record_file
from record import default_record


def valid_record():
    """A record that is not the default one."""
    record = bytearray(default_record(1))
    record[308:310] = (123).to_bytes(2, 'little')
    return bytes(record)


VALID = valid_record()
OTHER_CARD = bytes([26]) + VALID[1:]
OTHER_VERSION = VALID[:2] + b'\x63' + VALID[3:]
SLOT_3 = VALID[:1] + b'\x02' + VALID[2:]

# name: parameter file before the run, after it, what must be said (log and messages together).
PARAMETER_FILES = {
    'missing': (None, default_record(1), ["slot 0 's para file is not exist"]),
    'empty': (b'', default_record(1), ["read ds3 card 0's para error"]),
    '7 bytes': (VALID[:7], default_record(1), ["read ds3 card 0's para error"]),
    '8 bytes': (VALID[:8], VALID[:8], ['card1.dat']),
    'other card': (OTHER_CARD, default_record(1), ["slot 0 card's last saved para is not qam para"]),
    'other version': (OTHER_VERSION, default_record(1), ["slot 0 card's last saved para is not qam para"]),
    'cut short': (VALID[:100000], VALID[:100000], ['card1.dat']),
    'one byte short': (VALID[:-1], VALID[:-1], ['card1.dat']),
    'slot 3': (SLOT_3, SLOT_3, ['card1.dat', 'slot']),
    'whole': (VALID, VALID, []),
}


def parameter_files(case):
    for name, (before, after, texts) in PARAMETER_FILES.items():
        flash = case.flash(name)
        if before is not None:
            harness.write(os.path.join(flash, record_file(1)), before)
        run = case.fast(flash, 2, '--log', case.path('log'))
        case.card(run, 1)
        case.clean(run)
        run = run._replace(text=run.text + harness.read(case.path('log')).decode())
        case.says(run, *texts)
        if not texts:
            case.check('card1.dat' not in run.text, f'{name}: a whole record is complained about: {run.text}')
        record = harness.read(os.path.join(flash, record_file(1)))
        case.check(record == after, f'{name}: {len(record)} bytes of record where {len(after)} others are due')
        case.tidy(flash)


def flipped(data):
    return data[:len(data) // 2] + bytes([data[len(data) // 2] ^ 0x10]) + data[len(data) // 2 + 1:]


def reversed_bits(data):
    return bytes(int(f'{byte:08b}'[::-1], 2) for byte in data)


# name: what becomes of the sample bitstream, flags, exit code, state, attempts at loading it, texts.
BITSTREAMS = {
    'whole': (lambda d: d, [], 0, 'running', 1, []),
    'missing': (lambda d: None, [], 1, 'no_bitstream', 0, ['can not open', BITSTREAM]),
    'empty': (lambda d: b'', [], 1, 'no_bitstream', 0, ['size error 0', BITSTREAM]),
    'cut': (lambda d: d[:-1], [], 1, 'config_error', 10, ['fpga_done is 0']),
    'cut to one byte': (lambda d: d[:1], [], 1, 'config_error', 10, ['fpga_done is 0']),
    'flipped bit': (flipped, [], 1, 'config_error', 10, ['fpga_done is 0']),
    'bits reversed': (reversed_bits, [], 1, 'config_error', 10, ['fpga_done is 0']),
    'own': (lambda d: bytes(range(256)) * 20, [], 1, 'config_error', 10, ['fpga_done is 0']),
    'own, allowed': (lambda d: bytes(range(256)) * 20, ['--any-bitstream'], 0, 'running', 1, []),
}


def bitstreams(case):
    for name, (change, flags, code, state, attempts, texts) in BITSTREAMS.items():
        flash = case.flash(name)
        path = os.path.join(flash, BITSTREAM)
        data = change(harness.read(path))
        os.remove(path)
        if data is not None:
            harness.write(path, data)
        run = case.fast(flash, 20, '--log', case.path('log'), *flags, codes=(code,))
        card = case.card(run, 1, state)
        if card:
            case.equal(card['fpga_attempts'], attempts, f'{name}: attempts')
            shown = str(card['lcd'])
            told = 'Loading Card0' in shown and 'Config Error' in shown
            case.equal(told, state == 'config_error', f'{name}: on the LCD {shown}')
        case.says(run._replace(text=run.text + harness.read(case.path('log')).decode()), *texts)
        case.equal(len(harness.read(os.path.join(flash, record_file(1)))), harness.RECORD_SIZE, f'{name}: record')


def cut_in_a_packet(capture):
    return capture[:-100]


def no_tables(_):
    return b''.join(bytes([0x47, 1, 0, 0x10 | i & 15]) + bytes(184) for i in range(100))


def all_crc_bad(capture):
    out = bytearray(capture)
    for at in range(0, len(out), 188):
        if out[at + 1] & 0x40:
            out[at + 8] ^= 0x20  # within the section's head
    return bytes(out)


# name: sample, change, exit code, texts. A capture that is refused leaves the store as it was.
CAPTURES = {
    'good': ('psi-small.ts', None, 0, []),
    'not a stream': ('not-a-stream.ts', None, 1, ['not-a-stream.ts']),
    'empty': ('psi-small.ts', lambda c: b'', 1, ['capture.ts']),
    'no tables': ('psi-small.ts', no_tables, 1, ['capture.ts']),
    'all CRC bad': ('psi-small.ts', all_crc_bad, 1, ['capture.ts']),
    'too many': ('psi-too-many.ts', None, 1, ['psi-too-many.ts', '512|255']),
    'PID taken for free': ('psi-pid-1ff.ts', None, 1, ['psi-pid-1ff.ts', '0x0*1ff']),
    'cut in a packet': ('psi-small.ts', cut_in_a_packet, 0, []),
    'broken': ('broken.ts', None, 0, ['CRC']),
    'other tables too': ('psi-eit.ts', None, 0, ['EIT|0x4e']),
}


def captures(case):
    for name, (sample, change, code, texts) in CAPTURES.items():
        flash, path = case.flash(name), case.sample(sample)
        if change:
            path = case.path('capture.ts')
            harness.write(path, change(harness.read(case.sample(sample))))
        run = case.fast(flash, 3, '--psi', f'1.1={path}', codes=(code,))
        case.says(run, *texts)
        file = os.path.join(flash, record_file(1))
        if code == 0:
            case.card(run, 1)
            stored = harness.read(file)[6524:]
            case.check(stored[:192] != b'\xff' * 192, f'{name}: nothing is stored')
        elif os.path.exists(file):
            case.check(harness.read(file) == default_record(1), f'{name}: the store has changed')
        case.tidy(flash)
    flash = case.flash()
    for name in ('/nonexistent/x.ts', case.sample('psi-small.ts') + '@x', case.sample('psi-small.ts') + '@-1'):
        case.says(case.fast(flash, 3, '--psi', f'1.1={name}', codes=(1,)), name)


def small_disk(limit_bytes):
    """Every file larger than this meets a full disk; the signal that would end the program is ignored."""
    def prepare():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit_bytes, limit_bytes))
    return dict(preexec_fn=prepare, restore_signals=False)


def outputs(case):
    """An output that cannot be opened, and one whose disk is full."""
    flash = case.flash()
    missing = case.path('missing', 'out.ts')
    for target in (missing, case.path('flash'), '/dev/full'):
        run = case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-small.ts")}', '--out', f'1.1={target}', codes=(1,))
        case.says(run, target)
    case.check(not os.path.exists(os.path.dirname(missing)), 'a folder was made for an output')
    out = case.path('out.ts')
    run = case.fast(flash, 3, '--out', f'1.1={out}', codes=(1,), **small_disk(1_000_050))
    case.says(run, out)
    whole = 1_000_050 // harness.PACKET * harness.PACKET
    case.equal(os.path.getsize(out), whole, 'size of an output cut by a full disk')
    for target in ('udp://127.0.0.1', 'udp://127.0.0.1:x', 'udp://127.0.0.1:70000'):
        case.says(case.fast(flash, 3, '--out', f'1.1={target}', codes=(1, 2)), target)
    full = case.path('full')  # a link, so that a fault here replaces no device of this machine
    os.symlink('/dev/full', full)
    for flag in ('--log', '--bus-log', '--report'):
        for target in (missing, full):
            run = case.headend('--fast', '--seconds', '1', '--flash', flash, flag, target, codes=(1,))
            case.says(run, target)
    case.check(os.path.islink(full), 'a report has replaced a link')
    case.tidy(flash)


def flash_full(case):
    """The disk of the flash fills up: the record is the old one, no half of a new one lies about."""
    flash = case.flash()
    file = os.path.join(flash, record_file(1))
    run = case.fast(flash, 3, codes=(1,), **small_disk(150000))
    case.says(run, 'card1.dat')
    case.check(not os.path.exists(file), 'half a record was left')
    case.tidy(flash)
    case.fast(flash, 3)
    run = case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-small.ts")}', codes=(1,), **small_disk(150000))
    case.says(run, 'card1.dat')
    case.card(run, 1)
    case.check(harness.read(file) == default_record(1), 'the old record is gone')
    case.tidy(flash)


def flash_unwritable(case):
    """Nothing can be saved, as on a write-protected flash; a file where the folder should be stops root as well."""
    flash = case.flash()
    os.rmdir(os.path.join(flash, 'para'))
    harness.write(os.path.join(flash, 'para'), b'')
    run = case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-small.ts")}', codes=(1,))
    case.says(run, 'para')
    case.tidy(flash, 'para')
    occupied = case.path('occupied')
    harness.write(occupied, b'mine')
    for call in (['--init-flash'], ['--fast', '--seconds', '1']):
        case.says(case.headend('--flash', occupied, *call, codes=(1,)), 'occupied')
        case.equal(harness.read(occupied), b'mine', 'a file in the place of the flash folder')


def flash_kept(case):
    """Making a flash folder where one is never overwrites what is there."""
    flash = case.flash()
    harness.write(os.path.join(flash, record_file(1)), VALID)
    harness.write(os.path.join(flash, BITSTREAM), b'mine')
    case.headend('--init-flash', '--flash', flash, codes=(1,))
    case.equal(harness.read(os.path.join(flash, BITSTREAM)), b'mine', 'bitstream')
    case.check(harness.read(os.path.join(flash, record_file(1))) == VALID, 'the record has changed')


WRONG_CALLS = """--fast
--nonsense
--fast --seconds 1 --card 0
--fast --seconds 1 --card 7
--fast --seconds 1 --card x
--fast --seconds x
--fast --seconds -1
--fast --seconds 1 --psi 3.3=SMALL
--fast --seconds 1 --psi 1.0=SMALL
--fast --seconds 1 --psi 1.1
--fast --seconds 1 --psi 2.1=SMALL
--fast --seconds 1 --interval 1.1.FOO=3
--fast --seconds 1 --interval 1.1.PAT
--fast --seconds 1 --interval 1.1.PAT=65536
--fast --seconds 1 --interval 1.1.PAT=-1
--fast --seconds 1 --interval 1.1.PAT=x
--fast --seconds 1 --interval 7.1.PAT=3
--fast --seconds 1 --interval 1.3.PAT=3
--fast --seconds 1 --out 1.1
--fast --seconds 1 --out 9.1=OUT
--fast --seconds 1 --manage nonsense
--fast --seconds 1 --manage 127.0.0.1:65536
--fast --seconds 1 --card 1 --out 1.1=OUT --out 1.2=OUT
--fast --seconds 1 --out 1.1=OUT --report OUT
--fast --seconds 1 --psi 1.1=OUT --out 1.1=OUT
--fast --seconds 1 --heap -1
--fast --seconds 1 --aux-hz 0
--fast --seconds 1 --tick-hz 0
--fast --seconds 1 --tick-hz -5
--fast --seconds 1 --bus-ns -1
--fast --seconds 1 --bus-ns x
--fast --seconds 1 --heap-fill 256""".splitlines()


def wrong_calls(case):
    flash = case.flash()
    before = harness.tree(flash)
    for call in WRONG_CALLS:
        words = [word.replace('SMALL', case.sample('psi-small.ts')).replace('OUT', case.path('out.ts'))
                 for word in call.split()]
        run = case.execute([case.args.headend, '--flash', flash, *words], (2,))
        case.check(run.text.strip(), f'{call}: not a word')
    case.check(harness.tree(flash) == before, 'a wrong call has changed the flash folder')
    case.check(not os.path.exists(case.path('out.ts')), 'a wrong call has made an output')
    nowhere = case.path('nowhere')
    case.says(case.fast(nowhere, 1, codes=(1,)), 'nowhere', 'init-flash')
    case.check(not os.path.exists(nowhere), 'a flash folder was made unasked')
    run = case.execute([case.args.headend, '--help'])
    flags = """flash card psi interval out seconds fast manage log aux-hz tick-hz bus-ns seed report bus-log init-flash
               any-bitstream heap-fill loop-ns""".split()
    case.equal([f for f in flags if f'--{f}' not in run.text], [], 'flags that --help does not explain')


def port_taken(case):
    """The management port belongs to another process."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(('127.0.0.1', 0))
        address = f'127.0.0.1:{taken.getsockname()[1]}'
        case.says(case.fast(case.flash(), 1, '--manage', address, codes=(1,)), address)


CASES = {
    'parameter-files': parameter_files, 'bitstreams': bitstreams, 'captures': captures,
    'outputs': outputs, 'flash-full': flash_full, 'flash-unwritable': flash_unwritable,
    'flash-kept': flash_kept, 'wrong-calls': wrong_calls, 'port-taken': port_taken,
}

if __name__ == '__main__':
    harness.main(CASES)
