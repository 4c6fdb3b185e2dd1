#!/usr/bin/env python3
"""Bad files, bad captures, full disks and wrong calls: each gives a clear message and a defined result."""
import os
import resource
import signal
import socket

import harness
from harness import BITSTREAM, record_file


# name: how the record of a first run is changed, what must be said (log and messages together), is it kept.
PARAMETER_FILES = {
    'empty': (lambda r: b'', ["read ds3 card 0's para error"], False),
    'other card': (lambda r: bytes([26]) + r[1:], ["slot 0 card's last saved para is not qam para"], False),
    'cut short': (lambda r: r[:100000], ['card1.dat'], True),
    'slot 3': (lambda r: r[:1] + b'\x02' + r[2:], ['card1.dat', 'slot'], True),
    'whole': (lambda r: r[:308] + b'\x7b' + r[309:], [], True),  # another interval than the default
}


def first_record(case, flash):
    """Path and content of the record that a first run leaves."""
    case.fast(flash, 1)
    file = os.path.join(flash, record_file(1))
    return file, harness.read(file)


def parameter_files(case):
    for name, (change, texts, kept) in PARAMETER_FILES.items():
        flash = case.flash(name)
        file, default = first_record(case, flash)
        changed = change(default)
        harness.write(file, changed)
        run = case.fast(flash, 2, '--log', case.path('log'))
        case.card(run, 1)
        case.clean(run)
        run = run._replace(text=run.text + harness.read(case.path('log')).decode())
        case.says(run, *texts)
        if not texts:
            case.check('card1.dat' not in run.text, f'{name}: a whole record is complained about: {run.text}')
        record = harness.read(file)
        case.check(record == (changed if kept else default), f'{name}: {len(record)} bytes of record, others are due')
        case.tidy(flash)


# name: what becomes of the sample bitstream, flags, exit code, state, attempts at loading it, texts.
BITSTREAMS = {
    'missing': (lambda d: None, [], 1, 'no_bitstream', 0, ['can not open', BITSTREAM]),
    'empty': (lambda d: b'', [], 1, 'no_bitstream', 0, ['size error 0', BITSTREAM]),
    'cut': (lambda d: d[:-1], [], 1, 'config_error', 10, ['fpga_done is 0']),
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


# name: sample, change, exit code, texts. A capture that is refused leaves the store as it was.
CAPTURES = {
    'not a stream': ('not-a-stream.ts', None, 1, ['not-a-stream.ts']),
    'empty': ('psi-small.ts', lambda c: b'', 1, ['capture.ts']),
    'too many': ('psi-too-many.ts', None, 1, ['psi-too-many.ts', '512|255']),
    'broken': ('broken.ts', lambda c: c[:-100], 0, ['CRC']),
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
            case.equal(harness.read(file)[6524:6716], b'\xff' * 192, f'{name}: the store')
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
    _, default = first_record(case, flash)
    run = case.fast(flash, 3, '--psi', f'1.1={case.sample("psi-small.ts")}', codes=(1,), **small_disk(150000))
    case.says(run, 'card1.dat')
    case.card(run, 1)
    case.check(harness.read(file) == default, 'the old record is gone')
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
    before = harness.tree(flash)  # making a flash folder where one is never overwrites what is there
    case.headend('--init-flash', '--flash', flash, codes=(1,))
    case.equal(harness.tree(flash), before, 'flash folder that was made twice')


# What follows --flash, with a text that must come. Each is a wrong call.
WRONG_CALLS = """--fast | seconds
--nonsense | nonsense
--card 7 | card
--fast --seconds -1 | seconds
--psi 3.3=SMALL | 3.3
--psi 2.1=SMALL | 2
--interval 1.1.FOO=3 | FOO
--interval 1.1.PAT=65536 | 65535|65536
--out 9.1=OUT | 9.1
--manage 127.0.0.1:65536 | 65536
--out 1.1=OUT --out 1.2=OUT | out.ts
--out 1.1=OUT --report OUT | out.ts
--psi 1.1=OUT --out 1.1=OUT | out.ts
--heap -1 | heap
--aux-hz 0 | aux-hz
--tick-hz -5 | tick-hz
--bus-ns x | bus-ns
--heap-fill 256 | heap-fill
--set 1.rfreq=51999 | 52000.*1000000
--set 1.rfreq2=500000 | rfreq
--set rfreq=500000 | N.NAME
--set 2.rfreq=500000 | --card 2
--set 1.rfreq=500000@soon | seconds
--set 1.temperature1=nan | -55.*127
--set 1.temperature3=20 | temperature1
--set 3.temperature1=20 | --card 3
--trace FLASH/para/card1.dat | the cards
--report FLASH/K717_QAM/qam.bin | the cards
--source 6=udp://127.0.0.1:0 | leave --fast away
--source 6=SMALL@1 | 1000 to 1000000000
--source 1=SMALL --card 1 | modulator card
--source 6=SMALL, | FILE
--fault 6.1.input-lost | no such input
--fault no-such | --fault help
--fault 2.lo1-no-latch | --card 2
--fault lo1-no-latch@x | seconds""".splitlines()


def wrong_calls(case):
    flash = case.flash()
    before = harness.tree(flash)
    for call in WRONG_CALLS:
        flags, _, text = call.partition(' | ')
        for name, path in (('SMALL', case.sample('psi-small.ts')), ('OUT', case.path('out.ts')), ('FLASH', flash)):
            flags = flags.replace(name, path)
        duration = [] if '--fast' in flags else ['--fast', '--seconds', '1']
        case.says(case.execute([case.args.headend, '--flash', flash, *duration, *flags.split()], (2,)), text)
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
    'wrong-calls': wrong_calls, 'port-taken': port_taken,
}

if __name__ == '__main__':
    harness.main(CASES)
