#!/usr/bin/env python3
"""Instruction counts of the module's hot routines under callgrind, and their ratio to bare loops of the same
accesses; and of a packet through router and multiplexer, for short and long maps. Counts are no times: nothing else
that runs here changes them, so this is a test too.

Exit code: 0 when all ratios keep their limits, 1 when one does not or nothing could be counted, 2 for a wrong call,
77 when valgrind is missing."""
import argparse
import concurrent.futures
import json
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
# The configuration causes page faults intentionally (status_port.h). Callgrind counts by blocks and is permanently
# wrong after a fault in the middle of a block; blocks of a single instruction avoid this.
RATIOS = {
    'qamWritePsi': (('psi-packets', 'qamWritePsi'), ('bare-psi-packets', 'barePsiPacket(*'), [], 1.2),
    'cfg_qam_fpga': (('configuration', 'cfg_qam_fpga'),
                     ('bare-configuration', 'bareConfiguration(brdFpgaCfg_t*'), ['--vex-guest-max-insns=1'], 1.2),
    'CdceRegWrite': (('register-writes', 'CdceRegWrite'),
                     ('bare-register-writes', 'bareClockRegisterWrite(*'), [], 1.1),
}
MAP_ENTRIES = (1, 16, 256)
FLAT = 1.1  # a packet with the longest map against one with the shortest
SPANS = (0.02, 0.06)  # virtual seconds; the difference between the two is only packets
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
    if total < did['accesses']:  # the toggle did not work, or callgrind counted wrong
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


def status_pass(program, capture):
    """Instructions of the longest status pass."""
    did, counts = callgrind(program, 'status-passes', capture, 'qamStatusCheck', [])
    return max(counts, default=0) / did['calls']


def total(program, entries, seconds):
    """All instructions of a multiplexer_bench, and the packets that it brought out."""
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, 'counts')
        command = ['valgrind', '--quiet', '--tool=callgrind', f'--callgrind-out-file={out}', program, str(entries),
                   str(seconds)]
        run = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_SECONDS)
        if run.returncode != 0:
            raise CannotCount(f'{" ".join(command)}: exit code {run.returncode}\n{run.stderr}')
        with open(out, encoding='utf-8') as file:
            count_of_all = int(re.search(r'^totals: (\d+)$', file.read(), re.M)[1])
    return count_of_all, json.loads(run.stdout)['packets']


def routed_packets(program):
    """Instructions of a packet through router, buffer and output, by entries of each map; 0 is a plain copy."""
    rows = {}
    for entries in (0, *MAP_ENTRIES):
        taken = [total(program, entries, seconds) for seconds in SPANS]
        rows[entries] = (taken[1][0] - taken[0][0]) / (taken[1][1] - taken[0][1])
    return rows


def flat(rows):
    return rows[MAP_ENTRIES[-1]] <= FLAT * rows[MAP_ENTRIES[0]]


def show_routed(rows):
    print(f'\n{"Instructions a routed packet":34} {"count":>12} {"to 1 entry":>12} {"to a copy":>10}')
    for entries in MAP_ENTRIES:
        print(f'{f"maps of {entries} entries":34} {rows[entries]:12,.0f} {rows[entries] / rows[1]:12.3f} '
              f'{rows[entries] / rows[0]:10.1f}')
    print(f'{"plain copy":34} {rows[0]:12,.0f}   {"ok" if flat(rows) else "not flat"}, at most {FLAT} wanted')


def measured(program, capture):
    return {'ratios': ratios(program, capture), 'ticks': ticks(program, capture),
            'status_pass': status_pass(program, capture)}


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
    print(f'\n{"Instructions a status pass":34} {"longest":>12}')
    for level, result in results.items():
        print(f'{"qamStatusCheck " + level:34} {result["status_pass"]:12,.0f}')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--module', action='append', required=True, metavar='LEVEL=FILE',
                        help='a module_bench and the level it was compiled at (repeatable)')
    parser.add_argument('--capture', required=True, help='a capture that fills a channel')
    parser.add_argument('--multiplexer', required=True, metavar='FILE', help='a multiplexer_bench')
    options = parser.parse_args()
    if shutil.which('valgrind') is None:
        print('valgrind is missing: nothing counted. As root: apt-get install valgrind', file=sys.stderr)
        return SKIPPED
    try:
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            routing = pool.submit(routed_packets, options.multiplexer)
            modules = dict(module.split('=', 1) for module in options.module)
            counting = {level: pool.submit(measured, program, options.capture) for level, program in modules.items()}
            results, routed = {level: each.result() for level, each in counting.items()}, routing.result()
    except (CannotCount, subprocess.TimeoutExpired) as error:
        print(error, file=sys.stderr)
        return 1
    show(results)
    show_routed(routed)
    return 0 if kept(results) and flat(routed) else 1


if __name__ == '__main__':
    sys.exit(main())
