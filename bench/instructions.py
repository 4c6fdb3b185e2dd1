#!/usr/bin/env python3
"""Instruction counts of the module's hot routines under callgrind, and their ratio to bare loops of the same
accesses. Counts are no times: nothing else that runs here changes them, so this is a test too.

Exit code: 0 when all ratios keep the limit, 1 when one does not or nothing could be counted, 2 for a wrong call,
77 when valgrind is missing."""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77
PATIENCE_SECONDS = 240  # a count takes seconds

# name of the row: (case and routine of the module, case and routine of the bare loop, callgrind's options, limit)
#
# The configuration runs into page faults on purpose (status_port.h). Callgrind counts by blocks and is wrong for
# good once a fault has left one in its middle; blocks of a single instruction have none.
RATIOS = {
    'qamWritePsi': (('psi-packets', 'qamWritePsi(*'), ('bare-psi-packets', 'barePsiPacket(*'), [], 1.2),
    'cfg_qam_fpga': (('configuration', 'cfg_qam_fpga(*'),
                     ('bare-configuration', 'bareConfiguration(brdFpgaCfg_t*'), ['--vex-guest-max-insns=1'], 1.2),
    'CdceRegWrite': (('register-writes', 'CdceRegWrite(*'),
                     ('bare-register-writes', 'bareClockRegisterWrite(*'), [], 1.1),
}
TICKS = {'qamIntr': 'ticks', 'qamIntr, all intervals 1': 'busy-ticks'}


class CannotCount(Exception):
    pass


def callgrind(program, case, capture, routine, options):
    """What the program says it did, and callgrind's counts: one, or with --dump-after one a call."""
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, 'counts')
        command = ['valgrind', '--quiet', '--tool=callgrind', f'--callgrind-out-file={out}', '--combine-dumps=yes',
                   f'--toggle-collect={routine}', *options, program, case, capture]
        run = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_SECONDS)
        if run.returncode != 0:
            raise CannotCount(f'{" ".join(command)}: exit code {run.returncode}\n{run.stderr}')
        with open(out, encoding='utf-8') as file:
            counts = [int(number) for number in re.findall(r'^totals: (\d+)$', file.read(), re.M)]
    return {key: int(value) for key, value in (line.split() for line in run.stdout.splitlines())}, counts


def count(program, case, capture, routine, options):
    """Instructions of a call, on average."""
    did, counts = callgrind(program, case, capture, routine, options)
    total = max(counts, default=0)
    if total < did['accesses']:  # the toggle did not fire, or callgrind lost count
        raise CannotCount(f'{case}: {total} instructions cannot make {did["accesses"]} register accesses')
    return total / did['calls'], total / did['accesses']


def ratios(program, capture):
    rows = {}
    for name, (module, bare, options, limit) in RATIOS.items():
        mine, each = count(program, module[0], capture, module[1], options)
        theirs, _ = count(program, bare[0], capture, bare[1], options)
        rows[name] = {'instructions': mine, 'per_access': each, 'bare_loop': theirs, 'ratio': mine / theirs,
                      'limit': limit}
    return rows


def ticks(program, capture):
    """Instructions of `qamIntr`, tick by tick; posting a packet into this bench's queue is in the count."""
    rows = {}
    for name, case in TICKS.items():
        did, counts = callgrind(program, case, capture, 'qamIntr', ['--dump-after=qamIntr'])
        each = [n for n in counts if n > 0]
        if len(each) != did['calls']:
            raise CannotCount(f'{case}: {did["calls"]} ticks, but {len(each)} counts')
        rows[name] = {'ticks': len(each), 'mean': sum(each) / len(each), 'worst': max(each),
                      'posted_a_tick': did['posted'] / did['calls'], 'stored_a_channel': did['stored']}
    return rows


def measure(modules, capture):
    return {level: {'ratios': ratios(program, capture), 'ticks': ticks(program, capture)}
            for level, program in modules.items()}


def kept(results):
    return all(row['ratio'] <= row['limit'] for level in results.values() for row in level['ratios'].values())


def show(results):
    print(f'{"Instructions a call":34} {"module":>12} {"bare loop":>12} {"ratio":>7} {"at most":>8}')
    for level, result in results.items():
        for name, row in result['ratios'].items():
            verdict = 'ok' if row['ratio'] <= row['limit'] else 'not kept'
            print(f'{name + " " + level:34} {row["instructions"]:12,.0f} {row["bare_loop"]:12,.0f} '
                  f'{row["ratio"]:7.3f} {row["limit"]:8}   {verdict}')
    print(f'\n{"Instructions a tick, full card":34} {"mean":>12} {"worst":>12} {"posted a tick":>15}')
    for level, result in results.items():
        for name, row in result['ticks'].items():
            print(f'{name + " " + level:34} {row["mean"]:12,.0f} {row["worst"]:12,} {row["posted_a_tick"]:15.2f}')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--module', action='append', required=True, metavar='LEVEL=FILE',
                        help='a module_bench and the level it was compiled at (repeatable)')
    parser.add_argument('--capture', required=True, help='a capture that fills a channel')
    options = parser.parse_args()
    if shutil.which('valgrind') is None:
        print('valgrind is missing: nothing counted. As root: apt-get install valgrind', file=sys.stderr)
        return SKIPPED
    try:
        results = measure(dict(module.split('=', 1) for module in options.module), options.capture)
    except (CannotCount, subprocess.TimeoutExpired) as error:
        print(error, file=sys.stderr)
        return 1
    show(results)
    return 0 if kept(results) else 1


if __name__ == '__main__':
    sys.exit(main())
