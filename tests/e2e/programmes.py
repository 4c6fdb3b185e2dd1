#!/usr/bin/env python3
"""Programmes and PID maps of real streams on the outputs, as a receiver sees them: ffprobe, libdvbpsi and ts_judge, which
share no code with the multiplexer, find what the source has, whole and on time."""
import harness
from harness import NULL_PID, RATE_DEN, RATE_NUM, packets_of, pid_of, read, write

BITRATE = f'{RATE_NUM}/{RATE_DEN}'
FOUR = 'four-programmes-cbr.ts'
SERVICES = {101: 'One', 102: 'Two', 103: 'Three', 104: 'Four'}
PLAN = {'1.1': (101, 102), '1.2': (103, 104), '2.1': (101, 103), '2.2': (102, 104)}


def streams(case, path):
    """By programme number its name and its streams: codec and PID, in order."""
    found = case.findings('ffprobe', '-v', 'quiet', '-show_programs', '-of', 'json', path)
    return {p['program_id']: (p.get('tags', {}).get('service_name'),
                              [(s['codec_name'], int(s['id'], 0)) for s in p['streams']])
            for p in found.get('programs', [])}


def two_programmes_on_each_output_arrive_whole_and_on_time(case):
    source, args = case.sample(FOUR), ['--card', '1', '--card', '2']
    for channel, numbers in PLAN.items():
        args += ['--programme', f'{channel}=6.1:{SERVICES[numbers[0]]}', '--programme', f'{channel}=6.1:{numbers[1]}@1',
                 '--out', f'{channel}={case.path(channel)}']
    case.clean(case.fast(case.flash(), 13, *args, '--source', f'6={source}'))
    known = streams(case, source)
    for channel, numbers in PLAN.items():
        found = streams(case, case.path(channel))
        if not case.equal(sorted(found), sorted(numbers), f'{channel}: programmes'):
            continue
        maps = []
        for number in numbers:
            (name, theirs), (our_name, ours) = known[number], found[number]
            case.equal((our_name, [codec for codec, _ in ours]), (name, [codec for codec, _ in theirs]), f'{number}')
            maps += [f'{their_pid:#x}={our_pid:#x}' for (_, their_pid), (_, our_pid) in zip(theirs, ours)]
        case.judge('--self', case.path(channel))
        seen = case.ts_judge(case.path(channel), '--rate', BITRATE, '--source', source, '--constant-rate', '--map', *maps)
        case.equal(seen['continuity_errors'], {}, f'{channel}: continuity errors')
        case.check(len(seen['streams']) == 4 and all(s['passes'] > 0 for s in seen['streams'].values()),
                   f'{channel}: {seen["streams"]}')


def ramp(case, pids, count):
    """Flags of a source of 30 Mb/s that is mapped to PIDs 0x100 higher. Every packet tells its number."""
    packets = [bytes([0x47, pids[n % len(pids)] >> 8, pids[n % len(pids)] & 255, 0x10 | n // len(pids) % 16]) +
               n.to_bytes(4, 'big') * 46 for n in range(count)]
    write(case.path('feed.ts'), b''.join(packets))
    rows = ''.join(f'6,1,{pid},1,{pid + 0x100},1,2\n' for pid in pids)
    write(case.path('map.csv'), ('src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n' + rows).encode())
    return ['--source', f'6={case.path("feed.ts")}@30000000']


def numbers_on(case, path):
    """Those of the packets that are neither stuffing nor tables, all of them whole."""
    sent = [packet for packet in packets_of(read(path)) if 0x200 < pid_of(packet) < NULL_PID]
    case.equal([packet for packet in sent if packet[4:] != packet[4:8] * 46][:1], [], 'torn packets')
    return [int.from_bytes(packet[4:8], 'big') for packet in sent], {pid_of(packet) for packet in sent}


def an_output_that_overflows_drops_whole_packets_and_no_table(case):
    """A channel of 27.6 Mb/s gets 30."""
    out, psi = case.path('out.ts'), case.sample('psi-small.ts')
    run = case.fast(case.flash(), 5, *ramp(case, [0x200], 60000), '--pidmap', f'1.1={case.path("map.csv")}', '--psi',
                    f'1.1={psi}', '--set', '1.symbolrate=5000', '--out', f'1.1={out}')
    case.clean(run)
    seen = case.card(run, 1)['channels'][0]
    dropped, (numbers, _) = seen['packets']['dropped'], numbers_on(case, out)
    case.check(seen['map']['overflow'] and dropped > 5000, f'no overflow: {seen["packets"]}')
    missing = sum((b - a) % 60000 - 1 for a, b in zip(numbers, numbers[1:]))
    behind = 160  # dropped in the last 100 ms; what was sent does not show these
    case.check(missing <= dropped <= missing + behind, f'{missing} numbers are missing where {dropped} were dropped')
    found = case.judge('--source', psi, '--out', out, '--rate-num', str(5000 * 6 * 1000 * 188), '--rate-den', '204',
                       '--from', '1', codes=(1,))
    case.equal(set(found['faults']), {'continuity', 'stray'}, 'beside the gaps and a PID without tables')


def an_input_that_is_lost_is_told_and_comes_back_sound(case):
    """Away in two seconds of four, from the third on."""
    out = case.path('out.ts')
    run = case.fast(case.flash(), 8, '--source', f'6={case.sample(FOUR)}', '--programme', '1.1=6.1:One', '--out',
                    f'1.1={out}', '--fault', '6.1.input-lost@3/4')
    case.check(case.card(run, 1)['channels'][0]['map']['input_lost'], 'nothing is told')
    seen = case.ts_judge(out, '--rate', BITRATE, codes=(0, 1))
    case.check(0 < sum(seen['continuity_errors'].values()) <= 2, f'gaps: {seen["continuity_errors"]}')
    case.equal(set(case.judge('--self', out, codes=(1,))['faults']), {'continuity'}, 'beside the gaps')


def ten_outputs_with_full_maps_carry_every_packet_in_order(case):
    pids = [0x200 + i for i in range(256)]
    channels = [f'{slot}.{port}' for slot in range(1, 6) for port in (1, 2)]
    args = [word for slot in range(1, 6) for word in ('--card', str(slot))]
    for channel in channels:
        args += ['--pidmap', f'{channel}={case.path("map.csv")}', '--out', f'{channel}={case.path(channel)}']
    run = case.fast(case.flash(), 3, *ramp(case, pids, 25600), *args)
    case.clean(run, assertions=3)
    for channel in channels:
        seen = case.card(run, int(channel[0]))['channels'][int(channel[2]) - 1]
        case.equal((seen['map']['entries'], seen['packets']['dropped']), (256, 0), f'{channel}: entries and drops')
        numbers, found = numbers_on(case, case.path(channel))
        case.equal(found, {pid + 0x100 for pid in pids}, f'{channel}: PIDs')
        # From the last position of the map on nothing is missing.
        broken = [i for i, (a, b) in enumerate(zip(numbers, numbers[1:])) if b != (a + 1) % 25600]
        case.check(len(numbers) > 6000 and (not broken or broken[-1] < 1000), f'{channel}: gaps at {broken[-3:]}')


harness.main([two_programmes_on_each_output_arrive_whole_and_on_time, an_output_that_overflows_drops_whole_packets_and_no_table,
              an_input_that_is_lost_is_told_and_comes_back_sound, ten_outputs_with_full_maps_carry_every_packet_in_order])
