#!/usr/bin/env python3
# Wrong calls, bad files and full disks: each gives a clear message and a defined result, and keeps what was there.
import json
import os
import resource
import shlex
import shutil
import signal
import socket

import harness
from harness import BITSTREAM, PACKET, packets_of, pid_map, read, record_file, write

RECORD = record_file(1)

# Exit code | flags | a text that must be printed. The files are the samples and those made by inputs().
CALLS = r"""
2 | --fast | seconds
2 | --nonsense | nonsense
2 | --do fly | no command 'fly'
2 | --do panel | user at a terminal
2 | --do 'key sideways' | sideways
2 | --do '@5 var set 2 rfreq 500000' | --card 2
2 | --do 'psi load 1.1 missing.ts' | missing.ts
2 | --do 'lcd --png flash/K717_QAM/qam.bin' | the cards
1 | --do 'psi show 1.1 --save s.ts' | stores no packets
1 | --do '@9 rf' | rf was not done
2 | --fast --seconds -1 | seconds
2 | --psi 3.3=psi-small.ts | 3.3
2 | --interval 1.1.FOO=3 | FOO
2 | --out 1.1=udp://127.0.0.1:70000 | udp://127.0.0.1:70000
2 | --manage 127.0.0.1:65536 | 65536
2 | --manage ::1:49160 | brackets
1 | --manage a..b:49160 | the host 'a..b' was not found
2 | --out 1.1=udp://::1:5000 | brackets
2 | --out 1.1=rtp://127.0.0.1:5000 | udp://ADDRESS:PORT.*without RTP
2 | --source 6=srt://127.0.0.1:5000 | udp://ADDRESS:PORT
2 | --out 1.1=out.ts --out 1.2=out.ts | out.ts
2 | --psi 1.1=out.ts --out 1.1=out.ts | out.ts
2 | --set 1.rfreq=51999 | 52000.*1000000
2 | --set 2.rfreq=500000 | --card 2
2 | --set 1.temperature1=nan | -55.*127
2 | --report flash/K717_QAM/qam.bin | the cards
2 | --power-cut 1=0 | power-cut
2 | --eeprom 1=0xFF | blank
2 | --eeprom 2=blank | --card 2
2 | --lock-time 1=60001 | 60000
0 | --lock-time 1=60000 --do '@2 rf' | oscillator: not locked yet
2 | --source 6=udp://127.0.0.1:0 | leave --fast away
2 | --source 1=psi-small.ts --card 1 | modulator card
2 | --fault 6.1.input-lost | no such input
2 | --fault 1.config-lost@3..4 | no end
0 | --watchdog 5 | tSlot1 has run for 0.0
2 | --fault 1.clock-no-ack@4..4 | after it begins
2 | --fault 1.config-lost | time
1 | --do 'fault add 1.clock-nack' | --fault help
1 | --do 'fault clear 1.clock-no-ack' | fault list
1 | --do 'fault add 6.1.input-lost' | no such input
1 | --do 'fault add 3.clock-no-ack' | no card
2 | --trace t.vcd --trace-lines lo3_* | lo3_
2 | --trace-lines lo1_* | --trace
2 | --trace t.vcd --trace-lines slot2.nrst | slot2.nrst
2 | --trace t.vcd --log t.vcd | --log
1 | --trace missing/t.vcd | missing/t.vcd
1 | --trace full | full
1 | --flash nowhere | nowhere.*init-flash
1 | --flash full.ts | full.ts is no folder
1 | --report missing/x --out 1.1=never.ts | missing/x: there is no folder
1 | --init-flash --flash full.ts | full.ts
1 | --manage TAKEN | TAKEN
1 | --psi 1.1=/nonexistent/x.ts | /nonexistent/x.ts
1 | --psi 1.1=not-a-stream.ts | not-a-stream.ts
1 | --psi 1.1=psi-too-many.ts | psi-too-many.ts.*(512|255)
1 | --psi 1.1=pipe | pipe: no file that can be read twice
0 | --psi 1.1=broken.ts | CRC
2 | --log report.json --report linked | report.json|linked
2 | --out 1.1=full.ts --out 1.2=hard.ts | hard.ts
0 | --report linked | cfg ok
0 | --report linked --card 2 | cfg ok
1 | --report loop | loop.*levels
1 | --out 1.1=missing/out.ts | missing/out.ts
1 | --out 1.1=/dev/full | /dev/full
1 | --source 6=psi-small.ts | psi-small.ts.*@RATE
1 | --source 6=/dev/zero | /dev/zero.*device
0 | --source 6=204.ts --programme 1.1=6.1:Harbour | programme add .*Harbour done
0 | --source 6=204.ts --programme 1.1=6.1:Harbour --do '@2 programme add 1.1 --from 6.1 --service 1' | was there already
0 | --fast --seconds 5 --source 6=204.ts --programme 1.1=6.1:Harbour --do '@3 psi search 1.1 0x11 SDT_C --seconds 1' --do '@3 psi load 1.1 psi-eit.ts' | section 0 of 0, seen [3-5] times\n.*network 7\n.*"Harbour" [\s\S]*stays: 0 of its 2 entries
0 | --source 6=broken.ts --programme 1.1=6.1:Harbour | broken.ts.*damaged: sync lost 1 time, 100 bytes behind
0 | --source 6=cut.ts --programme 1.1=6.1:Harbour | damaged: 87 bytes behind the last;
2 | --config absent.conf | absent.conf
2 | --config section.conf | section.conf line 2: headend .* no option '\[machine\]'
2 | --log "a'b\"c" --write-config | both kinds of quotes
0 | --config hash.conf --do '@2 var list' | psi load 1.1 a#b.ts
0 | --fast --seconds 9 --source 6=tail.ts --programme 1.1=6.1:Harbour | damaged: 2097152 bytes behind the last
2 | --config wrong.conf | wrong.conf line 2: headend .* no option 'fsat'
1 | --source 6=four-programmes-cbr.ts --pidmap 1.1=257.csv | 257.csv.*(257|256)
1 | --source 6=four-programmes-cbr.ts --pidmap 1.1=slot4.csv | slot4.csv.*(slot 4|4\\.1)
""".strip().splitlines()
CALLS += [f'2 | {flag} {value} | {flag}' for flag, value in (
    ('--card', 7), ('--heap', -1), ('--aux-hz', 0), ('--tick-hz', -5), ('--bus-ns', 'x'), ('--heap-fill', 256))]
CALLS += [f'1 | {flag} {file} | {file}' for flag in ('--log', '--bus-log', '--report') for file in ('missing/x', 'full')]


# The files of the calls, in the folder where they run.
def inputs(case):
    for name in os.listdir(case.args.samples):
        os.symlink(case.sample(name), case.path(name))
    packets = packets_of(read(case.sample('two-programmes.ts')))
    for name, content in {'full.ts': b'mine', 'wrong.conf': b'seconds=3\nfsat=true\n',
                          '204.ts': b''.join(packet + bytes(16) for packet in packets),
                          'cut.ts': b''.join(packets)[:-101], 'tail.ts': b''.join(packets) + bytes(2 << 20),
                          'section.conf': b'seconds=3\n[machine]\nheap=1\n', 'hash.conf': b'# none\npsi="1.1=a#b.ts"\n',
                          'a#b.ts': read(case.sample('psi-small.ts')),
                          '257.csv': pid_map(*((6, 1, pid, pid) for pid in range(32, 289))),
                          'slot4.csv': pid_map((4, 1, 768, 1024))}.items():
        write(case.path(name), content)
    os.symlink('/dev/full', case.path('full'))  # a link, so that a fault here replaces no device of this machine
    os.symlink('report.json', case.path('linked'))
    os.symlink('loop', case.path('loop'))
    os.mkfifo(case.path('pipe'))
    os.link(case.path('full.ts'), case.path('hard.ts'))


def a_call_that_cannot_be_done_is_refused_with_the_reason_and_changes_nothing(case):
    inputs(case)
    case.fast(case.flash('kept'), 1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(('127.0.0.1', 0))
        for line in CALLS:
            code, flags, text = line.replace('TAKEN', f'127.0.0.1:{taken.getsockname()[1]}').split(' | ')
            shutil.copytree(case.path('kept'), case.path('flash'))
            before = harness.tree(case.folder)
            duration = [] if '--fast' in flags else ['--fast', '--seconds', '3']
            call = [case.args.headend, *duration, *shlex.split(flags)]
            case.says(case.execute(call, (int(code),), cwd=case.folder), text)
            if code != '0':
                changed = {name for name, _ in before.items() ^ harness.tree(case.folder).items()}
                case.equal(changed, set(), f'files that {flags} has changed')
            shutil.rmtree(case.path('flash'))
    case.check(os.path.islink(case.path('full')) and os.path.islink(case.path('linked')), 'a report replaced a link')
    case.equal(json.loads(read(case.path('report.json')))['cards'][0]['slot'], 2, 'the report where the link leads')
    case.check(not os.path.exists(case.path('missing')), 'a folder was made for an output')
    flags = [word[2:] for line in CALLS for word in shlex.split(line.split(' | ')[1]) if word.startswith('--')]
    known = case.execute([case.args.headend, '--help']).text
    case.equal([flag for flag in flags if f'--{flag}' not in known and flag != 'nonsense'], [], 'flags without help')


# Content of the flash folder: file, size, exit code, message, state, attempts at loading the FPGA. The card's own tests
# cover the records that it replaces.
FLASHES = ((RECORD, 100000, 0, 'card1.dat', 'running', 1), (BITSTREAM, -1, 1, 'fpga_done is 0', 'config_error', 10))


def a_bad_file_in_the_flash_is_named_and_kept(case):
    case.fast(case.flash(), 1)
    for file, size, code, text, state, attempts in FLASHES:
        flash = shutil.copytree(case.path('flash'), case.path(state))
        given = read(os.path.join(flash, file))[:size]
        write(os.path.join(flash, file), given)
        run = case.fast(flash, 12, '--log', case.path('log'), codes=(code,))
        case.says(run._replace(text=run.text + read(case.path('log')).decode()), text)
        case.equal(case.card(run, 1, state)['fpga_attempts'], attempts, f'{file}: attempts')
        case.check(harness.tree(flash).get(file) == given, f'{file}: the file is another')
        case.tidy(flash)
    # What may not be entered or written: without the rights of root to do so all the same.
    owner = ['setpriv', '--bounding-set=-dac_override,-dac_read_search', '--inh-caps=-dac_override,-dac_read_search']
    for below, mode, text in (('', 0, 'cannot be entered'), ('para', 0, 'para cannot be entered'),
                              (BITSTREAM, 0o444, 'qam.bin cannot be opened for update')):
        path = case.path('flash', below)
        kept = os.stat(path).st_mode
        os.chmod(path, mode)
        run = case.execute([*(owner if os.getuid() == 0 else []), case.args.headend, '--fast', '--seconds', '1', '--flash',
                            case.path('flash')], (1,))
        case.says(run, f'{text}.*Permission denied')
        os.chmod(path, kept)


# Every file larger than this meets a full disk; the signal that would end the program is ignored.
def limited(size):
    def prepare():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))
    return dict(preexec_fn=prepare, restore_signals=False)


def a_full_or_write_protected_disk_is_named_and_leaves_the_old_record_and_whole_packets(case):
    flash, out, upload = case.flash(), case.path('out.ts'), ['--psi', f'1.1={case.sample("psi-small.ts")}']
    case.says(case.fast(flash, 3, codes=(1,), **limited(150000)), 'card1.dat: writing failed: File too large')
    case.check(RECORD not in harness.tree(flash), 'half a record was left')
    case.fast(flash, 1)
    before = harness.tree(flash)
    run = case.fast(flash, 3, *upload, codes=(1,), **limited(150000))
    case.says(run, 'card1.dat')
    case.card(run, 1)
    case.check(harness.tree(flash)[RECORD] == before[RECORD], 'the old record is gone, or half a new one was left')
    case.says(case.fast(flash, 3, '--out', f'1.1={out}', codes=(1,), **limited(1_000_050)), out)
    write(case.path('pages', 'r.html'), b'mine')
    case.says(case.fast(flash, 3, '--report', case.path('pages', 'r.html'), codes=(1,), **limited(90_000)), 'cannot write report')
    case.equal(harness.tree(case.path('pages')), {'r.html': b'mine'}, 'files after a report that does not fit')
    case.equal(os.path.getsize(out), 1_000_050 // PACKET * PACKET, 'size of an output cut by a full disk')
    shutil.rmtree(os.path.join(flash, 'para'))
    write(os.path.join(flash, 'para'), b'')  # a file in place of the folder also stops root
    case.says(case.fast(flash, 3, *upload, codes=(1,)), 'para')
    case.tidy(flash, 'para')


def a_file_of_any_size_needs_little_memory(case):
    flash, large, hole = case.flash(), case.path('large.ts'), case.path('hole.ts')
    with open(large, 'wb') as file:  # in parts: the memory of this program counts too
        for _ in range(150):
            file.write(read(case.sample('four-programmes-cbr.ts')))
    write(hole, b'')
    os.truncate(hole, 20 << 30)
    for code, text, *flags in ((0, r'programme add .* done', '--source', f'6={large}', '--programme', '1.1=6.1:One'),
                               (0, r'psi load .* done', '--psi', f'1.1={large}'),
                               (1, r'no packets found in its first [45]\d{6} bytes', '--psi', f'1.1={hole}'),
                               (1, r'no transport-stream packets', '--source', f'6={hole}')):
        case.says(case.fast(flash, 9, *flags, codes=(code,)), text)
    watched = [case.args.headend, '--fast', '--seconds', '1', '--flash', flash, '--psi', f'1.1={large}',
               '--source', f'6={large}']
    run = case.execute(['script', '-qec', shlex.join(watched), '/dev/null'])  # on a terminal
    case.says(run, *(rf'{what}: {percent} %' for percent in (11, 94)
                     for what in (r'reading \S+large\.ts', r'large\.ts \(1 of 2\)', r'large\.ts \(2 of 2\)')))
    os.remove(large)
    peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    case.check(peak < 200_000, f'{peak} kB of memory for a file of 290 MB')


harness.main(__name__)
