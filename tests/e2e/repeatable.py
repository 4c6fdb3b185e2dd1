#!/usr/bin/env python3
"""Equal arguments and equal flash folders give equal bytes, in two runs and from two builds."""
import os

import harness


def run(case, program):
    """Every file that a run with much in it leaves: two cards, uploads on the way, a crowded bus, a programme."""
    folder = case.path(f'run{case.runs}')
    flash, outs = case.flash(folder), {channel: os.path.join(folder, channel) for channel in ('1.1', '1.2', '5.2')}
    # A short one, so that loading it does not fill the bus log.
    harness.write(os.path.join(flash, harness.BITSTREAM), bytes(range(256)) * 10)
    done = case.headend(
        '--fast', '--seconds', '4', '--card', '1', '--card', '5', '--any-bitstream', '--bus-ns', '150',
        '--flash', flash, '--psi', f'1.1={case.sample("psi-many.ts")}', '--psi', f'1.1={case.sample("psi-small.ts")}@2.5',
        '--psi', f'5.2={case.sample("psi-full.ts")}', '--interval', '1.1.PMT=1', '--interval', '5.2.SDT_O=2',
        '--source', f'6={case.sample("two-programmes.ts")}', '--programme', '1.2=6.1:Harbour',
        '--do', '@2.5 var set 1 rfreq 474000', '--do', '@3.5 rf 1', '--do', '@3 cal read 1',
        *[word for channel, file in outs.items() for word in ('--out', f'{channel}={file}')],
        *[word for name in ('log', 'trace', 'bus-log', 'report') for word in ('--' + name, os.path.join(folder, name))],
        other=program)
    case.equal(done.code, 0, done.text)
    case.says(done, r'slot 1\n  common  ff[\s\S]*1\.1  on air    474\.0000 .*\n1\.2')  # what the commands show, in order
    return harness.tree(folder)


def two_runs_give_equal_bytes(case):
    """The second one is by a headend of another build if one is given."""
    first, second = run(case, None), run(case, case.args.other)
    case.check(len(first['5.2']) > 10_000_000, 'the output is too short to say anything')
    differ = [name for name in sorted({*first, *second}) if first.get(name) != second.get(name)]
    case.equal(differ, [], 'files that differ')


harness.main(__name__)
