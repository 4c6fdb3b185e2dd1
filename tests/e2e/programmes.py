#!/usr/bin/env python3
"""Programmes of real streams on the outputs, as a receiver sees them: ffprobe, ffmpeg, libdvbpsi and ts_judge, which
share no code with the multiplexer, find what the source has, whole and on time."""
import collections
import re

import harness
from harness import NULL_PID, PACKET, RATE_DEN, RATE_NUM, packets_of, pid_of, read, write

BITRATE = f'{RATE_NUM}/{RATE_DEN}'
FOUR = 'four-programmes-cbr.ts'
SERVICES = {101: 'One', 102: 'Two', 103: 'Three', 104: 'Four'}
HEADER = 'src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n'


def csv(rows):
    """Rows of (input, PID there, PID here) of the card in slot 6."""
    return (HEADER + ''.join(f'6,{port},{pid},1,{out},1,2\n' for port, pid, out in rows)).encode()


def streams(case, path):
    """By programme number its name and its streams: codec and PID, in order."""
    found = case.findings('ffprobe', '-v', 'quiet', '-show_programs', '-of', 'json', path)
    return {p['program_id']: (p.get('tags', {}).get('service_name'),
                              [(s['codec_name'], int(s['id'], 0)) for s in p['streams']])
            for p in found.get('programs', [])}


def codecs(programme):
    return programme[0], [codec for codec, _ in programme[1]]


def complaints(case, path):
    """What a decoder says of all streams, each kind once."""
    run = case.execute(['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', '0:v', '-map', '0:a', '-f', 'null',
                        '-'])
    return {re.sub(r'0x[0-9a-f]+|\d+', 'N', line) for line in run.text.splitlines()}


def ramp(pids, count):
    """A stream without clock; every packet tells its number."""
    counters = collections.Counter()
    packets = []
    for n in range(count):
        pid = pids[n % len(pids)]
        packets.append(bytes([0x47, pid >> 8, pid & 255, 0x10 | counters[pid] % 16]) + n.to_bytes(4, 'big') * 46)
        counters[pid] += 1
    return b''.join(packets)


def four_outputs(case):
    """Two programmes on each channel of two cards: everything of them arrives, and twice the same bytes."""
    source = case.sample(FOUR)
    plan = {'1.1': (101, 102), '1.2': (103, 104), '2.1': (101, 103), '2.2': (102, 104)}
    args = ['--card', '1', '--card', '2', '--source', f'6={source}']
    for channel, numbers in plan.items():
        args += ['--programme', f'{channel}=6.1:{SERVICES[numbers[0]]}', '--programme', f'{channel}=6.1:{numbers[1]}@1']
    runs = []
    for turn in 'ab':
        outs = {channel: case.path(f'{turn}{channel}.ts') for channel in plan}
        run = case.fast(case.flash(turn), 16, *args, *(w for c, path in outs.items() for w in ('--out', f'{c}={path}')))
        case.clean(run)
        runs.append([read(path) for path in outs.values()])
    case.check(runs[0] == runs[1], 'two runs give different bytes')

    known, said = streams(case, source), complaints(case, source)
    for channel, numbers in plan.items():
        path = case.path(f'a{channel}.ts')
        found = streams(case, path)
        case.equal({n: codecs(p) for n, p in found.items()}, {n: codecs(known[n]) for n in numbers},
                   f'{channel}: programmes')
        case.judge('--self', path)
        maps = [f'{theirs:#x}={ours:#x}' for n in numbers
                for (_, theirs), (_, ours) in zip(known[n][1], found.get(n, known[n])[1])]
        seen = case.ts_judge(path, '--rate', BITRATE, '--source', source, '--constant-rate', '--map', *maps)
        case.equal(seen.get('continuity_errors'), {}, f'{channel}: continuity errors')
        passes = seen.get('streams', {})
        case.check(len(passes) == 4 and all(s['passes'] > 1 for s in passes.values()), f'{channel}: passes {passes}')
        # Each stream from its first seam on, up to its last start of a picture or frame; the rest is cut off.
        packets = packets_of(read(path))
        first = {int(pid, 0): s.get('first_packet', 0) for pid, s in passes.items()}
        last = {pid_of(p): i for i, p in enumerate(packets) if p[1] & 0x40 and pid_of(p) in first}
        write(case.path('tail.ts'), b''.join(p for i, p in enumerate(packets) if pid_of(p) != NULL_PID and
                                             first.get(pid_of(p), 0) <= i < last.get(pid_of(p), len(packets))))
        case.equal(complaints(case, case.path('tail.ts')) - said, set(), f'{channel}: what the decoder says')


def overflow(case):
    """A channel of 27.6 Mb/s gets 30: whole packets go, the tables stay, and the overflow ends two seconds after it."""
    feed, rows = case.path('feed.ts'), [(1, 0x200, 0x300)]
    write(feed, ramp([0x200], 60000))
    write(case.path('map.csv'), csv(rows))
    psi, rate = case.sample('psi-small.ts'), (5000 * 6 * 1000 * 188, 204)

    def run(name, seconds, *more):
        result = case.fast(case.flash(name), seconds, '--source', f'6={feed}@30000000', '--pidmap',
                           f'1.1={case.path("map.csv")}', '--psi', f'1.1={psi}', '--set', '1.symbolrate=5000', *more)
        case.clean(result)
        return case.card(result, 1)['channels'][0]

    out = case.path('out.ts')
    seen = run('over', 5, '--out', f'1.1={out}')
    case.check(seen['map']['overflow'] and seen['packets']['dropped'] > 5000, f'no overflow: {seen["packets"]}')
    sent = [packet for packet in packets_of(read(out)) if pid_of(packet) == 0x300]
    case.equal([packet for packet in sent if packet[4:] != packet[4:8] * 46][:1], [], 'torn packets')
    numbers = [int.from_bytes(packet[4:8], 'big') for packet in sent]
    missing = sum((b - a) % 60000 - 1 for a, b in zip(numbers, numbers[1:]))
    behind = 160  # dropped in the last 100 ms; what was sent does not show these
    case.check(missing <= seen['packets']['dropped'] <= missing + behind,
               f'{missing} numbers are missing where {seen["packets"]["dropped"]} packets were dropped')
    found = case.judge('--source', psi, '--out', out, '--rate-num', str(rate[0]), '--rate-den', str(rate[1]),
                       '--from', '1', codes=(1,))
    case.equal(set(found.get('faults', {})), {'continuity', 'stray'}, 'beside the gaps and a PID without tables')
    for seconds, expected in ((4.9, True), (5.5, False)):
        seen = run(f'after{seconds}', seconds, '--set', '1.symbolrate=6875@3')
        case.equal(seen['map']['overflow'], expected, f'overflow {seconds - 3:.1f} s after the last drop')


def input_lost(case):
    """Away for two seconds of four: the card says so after half a second, and what comes then is sound."""
    out = case.path('out.ts')
    args = ['--source', f'6={case.sample(FOUR)}', '--programme', '1.1=6.1:One', '--fault', '6.1.input-lost@3/4']
    for seconds, lost in ((3.4, False), (3.8, True), (4.9, True), (5.2, False), (9.2, False)):
        run = case.fast(case.flash(f'at{seconds}'), seconds, *args, '--out', f'1.1={out}')
        case.equal(case.card(run, 1)['channels'][0]['map']['input_lost'], lost, f'input lost at {seconds} s')
    seen = case.ts_judge(out, '--rate', BITRATE, codes=(0, 1))
    case.check(sum(seen['continuity_errors'].values()) <= 2 * 2, f'gaps: {seen["continuity_errors"]}')
    case.equal(set(case.judge('--self', out, codes=(1,)).get('faults', {})), {'continuity'}, 'beside the gaps')


MAPS = {  # name: (CSV, exit code, entries in the router, what is said)
    'none': (HEADER.encode(), 0, 0, None),
    'one': (csv([(1, 0x300, 0x400)]), 0, 1, None),
    '256': (csv((1, 32 + i, 32 + i) for i in range(256)), 0, 256, None),
    '257': (csv((1, 32 + i, 32 + i) for i in range(257)), 1, None, r'257|256'),
    'no-slot': (csv([(1, 0x300, 0x400)]).replace(b'\n6,', b'\n7,'), 1, None, r'line 2'),
    'no-card': (csv([(1, 0x300, 0x400)]).replace(b'\n6,', b'\n4,'), 1, None, r'slot 4|4\.1'),
    'no-input': (csv([(2, 0x300, 0x400)]), 1, None, r'6\.2|input 2|port'),
    'no-header': (b'6,1,768,1,1024,1,2\n', 1, None, r'header|line 1'),
}


def maps(case):
    for name, (text, code, entries, said) in MAPS.items():
        path = case.path(name + '.csv')
        write(path, text)
        run = case.fast(case.flash(name), 2, '--source', f'6={case.sample(FOUR)}', '--pidmap', f'1.1={path}',
                        codes=(code,))
        if said:
            case.says(run, said)
        if entries is not None:
            case.equal(case.card(run, 1)['channels'][0]['map']['entries'], entries, f'{name}: entries')


def full_chassis(case):
    """Ten outputs with full maps: every packet of every PID, in order, to all of them."""
    pids = [0x200 + i for i in range(256)]
    write(case.path('feed.ts'), ramp(pids, 256 * 100))
    write(case.path('map.csv'), csv((1, pid, pid + 0x100) for pid in pids))
    args, outs = ['--source', f'6={case.path("feed.ts")}@30000000'], {}
    for slot in range(1, 6):
        args += ['--card', str(slot)]
        for port in (1, 2):
            outs[f'{slot}.{port}'] = case.path(f'{slot}.{port}.ts')
            args += ['--pidmap', f'{slot}.{port}={case.path("map.csv")}']
            args += ['--out', f'{slot}.{port}={outs[f"{slot}.{port}"]}']
    run = case.fast(case.flash(), 3, *args)
    case.clean(run, assertions=3)
    for channel, path in outs.items():
        card = case.card(run, int(channel[0]))
        seen = card['channels'][int(channel[2]) - 1]
        case.equal((seen['map']['entries'], seen['packets']['dropped']), (256, 0), f'{channel}: entries and drops')
        counts, numbers = collections.Counter(), []
        for packet in packets_of(read(path)):
            if pid_of(packet) != NULL_PID:
                counts[pid_of(packet)] += 1
                numbers.append(int.from_bytes(packet[4:8], 'big'))
        case.equal(sorted(counts), [pid + 0x100 for pid in pids], f'{channel}: PIDs')
        # From the last position of the map on nothing is missing.
        broken = [i for i, (a, b) in enumerate(zip(numbers, numbers[1:])) if b != (a + 1) % (256 * 100)]
        case.check(len(numbers) > 6000 and (not broken or broken[-1] < 1000),
                   f'{channel}: {len(numbers)} packets, gaps at {broken[-3:]}')


if __name__ == '__main__':
    harness.main({'four-outputs': four_outputs, 'overflow': overflow, 'input-lost': input_lost, 'maps': maps,
                  'full-chassis': full_chassis})
