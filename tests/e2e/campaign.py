#!/usr/bin/env python3
# The campaign finds what is planted, and counts right over ranges, processes and interruptions.
import json
import os
import subprocess

import harness
from harness import read, write


class Campaign:

    def __init__(self, case):
        self.case = case
        self.program = os.path.join(os.path.dirname(case.args.headend), '../campaign/headend-campaign')
        self.samples = ['--samples', case.args.samples]

    def run(self, *arguments, code=0):
        return self.case.execute([self.program, *arguments], (code,)).text

    def summary(self, name, *arguments, code=0):
        self.run(*arguments, '--summary', self.case.path(name), code=code)
        return json.loads(read(self.case.path(name)))

    def histories(self, name, first, count, *arguments, code=0):
        return self.summary(name, 'run', *self.samples, '--first', str(first), '--count', str(count), *arguments,
                            code=code)


# What two runs of the same histories have in common.
def counted(summary):
    return {key: value for key, value in summary.items() if key not in ('cpu_seconds', 'elapsed_seconds')}


def each_check_finds_its_planted_fault(case):
    campaign = Campaign(case)
    text = campaign.run('plants', *campaign.samples, '--count', '20')
    case.equal(text.count(': history '), 18, f'plants found, of 18: {text}')


# All checks hold in a slice of histories; two halves, in processes of their own, add up to the whole. An ended campaign
# goes on.
def ranges_add_up_and_an_ended_range_goes_on(case):
    campaign = Campaign(case)
    whole = campaign.histories('whole', 900, 60)
    case.check(whole['histories'] == 60 and whole['failures'] == [], f'not all held: {whole["failures"]}')
    case.check(min(whole['checks'].values()) > 20, f'too few checks: {whole["checks"]}')
    parts = [case.path(f'part{first}') for first in (900, 930)]
    write(case.path('commands'), ''.join(
        f'{campaign.program} run --samples {case.args.samples} --first {first} --count 30 --jobs 1 --summary {part}\n'
        for first, part in zip((900, 930), parts)).encode())
    case.execute(['parallel', '--will-cite', '--jobs', '2', '--arg-file', case.path('commands')])
    merged = campaign.summary('merged', 'merge', *parts)
    case.check(counted(merged) == counted(whole), f'the sum {merged} is not the whole {whole}')
    campaign.run('merge', parts[0], case.path('whole'), code=3)  # both have the seed 900
    write(case.path('notes'), b'hello\n')
    campaign.run('run', *campaign.samples, '--results', case.path('notes'), code=3)
    case.equal(read(case.path('notes')), b'hello\n', 'a file that is not of a campaign')
    other = json.loads(read(parts[0])) | {'version': 'another'}
    write(case.path('other'), json.dumps(other).encode())
    text = campaign.run('merge', parts[1], case.path('other'), code=3)
    case.check("version 'another'" in text, f'another version is not refused by name: {text}')

    results = case.path('results')
    process = subprocess.Popen([campaign.program, 'run', *campaign.samples, '--first', '900', '--count', '60', '--jobs',
                                '1', '--results', results], stderr=subprocess.DEVNULL)
    harness.poll(lambda: os.path.exists(results) and read(results).count(b'\n') > 10,
                 lambda: process.poll() is not None)
    process.terminate()
    case.equal(process.wait(harness.HANG_SECONDS), 3, 'exit code of a campaign that was ended')
    before = read(results).count(b'\n')
    case.check(before < 60, 'it did not end early')
    again = campaign.histories('again', 900, 60, '--results', results)
    case.check(counted(again) == counted(whole), f'continued: {again}, not {whole}')


# A planted fault needs no step of the history: all of them are taken away. The replay leaves what it did.
def a_failing_history_is_replayed_and_shrunk(case):
    campaign = Campaign(case)
    failing = ['--plant', 'memory is not freed', '--preparation', 'programmes']
    summary = campaign.histories('failing', 4, 1, *failing, code=1)
    case.equal(summary['failures'][0]['replay'], "headend-campaign replay 4 --preparation 'programmes' --plant 'memory is not freed'", 'the replay line')
    text = campaign.run('replay', '4', *campaign.samples, *failing, '--folder', case.path('replay'), code=1)
    case.check('no leak' in text, f'the replay shows no leak: {text}')
    left = [name for name in ('log', 'trace.vcd', 'report.json', '1.1.ts') if not read(case.path('replay/history/' + name))]
    case.check(not left, f'the replay left nothing in {left}')
    write(case.path('mine/file'), b'kept')
    campaign.run('replay', '4', *campaign.samples, '--folder', case.path('mine'), code=3)
    text = campaign.run('shrink', '4', *campaign.samples, *failing, code=1)
    case.check('no leak: 0 of' in text, f'it did not shrink: {text}')


harness.main(__name__)
