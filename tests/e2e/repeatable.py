#!/usr/bin/env python3
"""Equal arguments and equal flash folders give equal bytes, in two runs and from two builds."""
import os

import harness


def flags(case, flash, name):
    """A run with much in it: two cards, uploads at the start and on the way, a crowded bus."""
    upload = ['--psi', f'1.1={case.sample("psi-many.ts")}', '--psi', f'5.2={case.sample("psi-full.ts")}', '--psi',
              f'1.1={case.sample("psi-small.ts")}@2.5']
    pace = ['--interval', '1.1.PMT=1', '--interval', '5.2.SDT_O=2', '--bus-ns', '150']
    files = ['--out', f'1.1={case.path(name + "-1.1.ts")}', '--out', f'5.2={case.path(name + "-5.2.ts")}', '--log',
             case.path(name + '.log'), '--bus-log', case.path(name + '.bus')]
    return ['--fast', '--seconds', '4', '--flash', flash, '--card', '1', '--card', '5',
            '--any-bitstream', *upload, *pace, *files]


def compare(case, other):
    runs = {}
    for name, program in (('a', None), ('b', other)):
        flash = case.flash(f'flash-{name}')
        # A short one, so that loading it does not fill the bus log.
        harness.write(os.path.join(flash, harness.BITSTREAM), bytes(range(256)) * 10)
        run = case.headend(*flags(case, flash, name), other=program)
        suffixes = ('-1.1.ts', '-5.2.ts', '.log', '.bus')
        runs[name] = {suffix: harness.read(case.path(name + suffix)) for suffix in suffixes}
        runs[name]['report'] = harness.read(case.path(f'report{case.runs}.json'))
        runs[name] |= harness.tree(flash)
        case.card(run, 1)
        case.check(len(runs[name]['-5.2.ts']) > 10_000_000, 'the output is too short to say anything')
    case.equal(list(runs['a']), list(runs['b']), 'files')
    for name, data in runs['a'].items():
        other_data = runs['b'].get(name, b'')
        if data != other_data:
            at = next((i for i, (x, y) in enumerate(zip(data, other_data)) if x != y), 'the end')
            case.check(False, f'{name} differs at {at}')


def two_runs(case):
    compare(case, None)


def two_builds(case):
    if not case.args.other:
        raise harness.Skip('no headend of another build given (--other)')
    compare(case, case.args.other)


CASES = {'two-runs': two_runs, 'two-builds': two_builds}

if __name__ == '__main__':
    harness.main(CASES)
