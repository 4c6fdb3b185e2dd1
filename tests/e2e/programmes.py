#!/usr/bin/env python3
# Programmes and PID maps of real streams on the outputs, as a receiver sees them: ffprobe, libdvbpsi and tscheck, which
# share no code with the multiplexer, find what the source has, whole and on time. In real time a decoder finds every
# picture and every tone; QAM_LONG in the environment makes that longer.
import json
import os
import subprocess

import harness
from harness import NULL_PID, RATE, STATUS, Server, packets_of, pid_of, read, write

FOUR = 'four-programmes-cbr.ts'
SERVICES = {101: 'One', 102: 'Two', 103: 'Three', 104: 'Four'}
PLAN = {'1.1': (101, 102), '1.2': (103, 104), '2.1': (101, 103), '2.2': (102, 104)}


# By programme number its name and its streams: codec and PID, in order.
def streams(case, path):
    found = case.findings('ffprobe', '-v', 'quiet', '-show_programs', '-of', 'json', path)
    return {p['program_id']: (p.get('tags', {}).get('service_name'),
                              [(s['codec_name'], int(s['id'], 0)) for s in p['streams']])
            for p in found.get('programs', [])}


def two_programmes_on_each_output_arrive_whole_and_on_time(case):
    source, args = case.sample(FOUR), ['--card', '1', '--card', '2']
    for channel, numbers in PLAN.items():
        args += ['--programme', f'{channel}=6.1:{SERVICES[numbers[0]]}', '--programme',
                 f'{channel}=6.1:{numbers[1]}@1', '--out', f'{channel}={case.path(channel)}']
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
        seen = case.tscheck(case.path(channel), *RATE, '--source', source, '--constant-rate', '--map',
                             *maps)
        case.equal(seen['continuity_errors'], {}, f'{channel}: continuity errors')
        case.check(len(seen['streams']) == 4 and all(s['passes'] > 0 for s in seen['streams'].values()),
                   f'{channel}: {seen["streams"]}')


# A source of 35 Mb/s whose packets tell their numbers. The card in slot 5 has room for 27.6.
def ten_outputs_with_full_maps_carry_every_packet_in_order_as_far_as_there_is_room(case):
    pids, count = [0x200 + i for i in range(256)], 25600
    write(case.path('feed.ts'), harness.numbered_stream(pids, count))
    write(case.path('map.csv'), harness.pid_map(*((6, 1, pid, pid + 0x100) for pid in pids)))
    channels = [f'{slot}.{port}' for slot in range(1, 6) for port in (1, 2)]
    args = ['--source', f'6={case.path("feed.ts")}@35000000', '--set', '5.symbolrate=5000']
    args += [word for slot in range(1, 6) for word in ('--card', str(slot))]
    for channel in channels:
        args += ['--pidmap', f'{channel}={case.path("map.csv")}', '--out', f'{channel}={case.path(channel)}']
    run = case.fast(case.flash(), 4, *args)
    case.clean(run, assertions=3)
    for channel in channels:
        seen = case.card(run, int(channel[0]))['channels'][int(channel[2]) - 1]
        sent = [packet for packet in packets_of(read(case.path(channel))) if pid_of(packet) != NULL_PID]
        case.equal([packet for packet in sent if packet[4:] != packet[4:8] * 46][:1], [], f'{channel}: torn packets')
        case.equal({pid_of(packet) for packet in sent}, {pid + 0x100 for pid in pids}, f'{channel}: PIDs')
        numbers = [int.from_bytes(packet[4:8], 'big') for packet in sent][1000:]  # from the map's last position on
        missing = sum((b - a) % count - 1 for a, b in zip(numbers, numbers[1:]))
        dropped, full = seen['packets']['dropped'], channel[0] == '5'
        case.equal((seen['map']['entries'], seen['map']['overflow']), (256, full), f'{channel}: entries, overflow')
        behind = 500 if full else 0  # dropped in the last 100 ms; the packets sent do not show these
        case.check(len(numbers) > 5000 and missing <= dropped <= missing + behind and (dropped > 1000) == full,
                   f'{channel}: {len(numbers)} packets, {missing} are missing where {dropped} were dropped')


def a_programme_takes_the_numbers_that_its_options_give(case):
    add, file = 'programme add 1.1 --from 6.1 --service One --pid 0x400 --pass 0x12 --ts-id 77', case.path('out')
    run = case.fast(case.flash(), 6, '--source', f'6={case.sample(FOUR)}', '--out', f'1.1={file}', '--epoch', '2024-05-01',
                    '--set', '1.temperature2=-5@2', '--do', f'@1 {add} --dry-run', '--do', '@1.5 programme list 1.1',
                    '--do', f'@2 {add}', '--do', '@2.5 pidmap show 1.1', '--do', '@5 alarms --lang zh')
    case.says(run, r'PID 0x0300 to PID 0x0401[\s\S]*1\.1 has no programmes[\s\S]*added[\s\S]*\n.*0x0012',
              r'2024-05-01T00:00:0\dZ  1  major  调制卡1: 温度过高')
    packets = packets_of(read(file))
    case.equal({pid_of(packet) for packet in packets}, {0, 0x11, 0x400, 0x401, 0x402, NULL_PID}, 'PIDs')
    case.equal({packet[8:10] for packet in packets if pid_of(packet) == 0}, {b'\0\x4d'}, 'transport_stream_id')


# Removed and restored in one run, on the other channel in the next: the output has the same tables and PIDs as before.
def a_restored_channel_sends_what_it_sent_before_the_backup(case):
    flash, saved = case.flash(), case.path('saved.json')
    common = ['--source', f'6={case.sample(FOUR)}']
    case.fast(flash, 4, *common, '--out', f'1.1={case.path("before")}', '--interval', '1.1.SDT_C=700', '--interval',
              '1.1.CAT=55', '--programme', '1.1=6.1:One', '--programme', '1.1=6.1:Two', '--do', f'@2 backup 1.1 {saved}')
    run = case.fast(flash, 9, *common, '--out', f'1.2={case.path("after")}', '--do', '@1 psi clear 1.1', '--do',
                    '@1 pidmap clear 1.1', '--do', f'@2 restore 1.2 {saved} --dry-run', '--do', f'@2 restore 1.1 {saved}',
                    '--do', f'@3 backup 1.1 {case.path("again.json")}', '--do', f'@3 restore 1.2 {saved}',
                    '--do', f'@4 backup 1.2 {case.path("other.json")}')
    case.clean(run)
    case.says(run, 'backup of channel 1.1', 'PID map: 4 entries, 0 before')
    wanted = read(saved)
    case.equal(read(case.path('again.json')), wanted, 'backup of the restored channel')
    case.equal(read(case.path('other.json')), wanted.replace(b'"1.1"', b'"1.2"'), 'backup of the other channel')
    before, after = ({(pid_of(packet), packet[5:] if pid_of(packet) < 0x20 else None)
                      for packet in packets_of(read(case.path(name)))} for name in ('before', 'after'))
    case.check(after == before and len(after) > 6, f'{len(before)} and {len(after)} PIDs and tables')
    case.equal(streams(case, case.path('after')), streams(case, case.path('before')), 'programmes')


LATENT = 13  # frames that the decoder still keeps when its stream stops
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error']
STREAMS = ['-map', '0:v', '-map', '0:a']
DIGESTS = [*STREAMS, '-f', 'framemd5', '-flush_packets', '1']


# Of each stream the digests of what was decoded, in order.
def frames(path):
    found = {'0': [], '1': []}
    for line in (read(path).decode() if os.path.exists(path) else '').splitlines():
        fields = [field.strip() for field in line.split(',')]
        if not line.startswith('#') and len(fields) == 6:
            found[fields[0]].append(fields[5])
    return found


def every_picture_and_tone_arrives_over_udp_and_in_rtp(case):
    seconds = 120 if harness.LONG else 4
    source, due_list, got_list = case.path('live.ts'), case.path('due'), case.path('got')
    case.execute([*FFMPEG, '-f', 'lavfi', '-i', 'testsrc=size=352x288:rate=25', '-f', 'lavfi', '-i', 'sine', '-t',
                  str(seconds), '-c:v', 'mpeg2video', '-b:v', '1M', '-c:a', 'mp2', '-metadata', 'service_name=Live',
                  source])
    case.execute([*FFMPEG, '-i', source, *DIGESTS, due_list])
    due = frames(due_list)
    case.check(len(due['0']) == 25 * seconds and len(due['1']) > 38 * seconds, 'no source to compare with')

    # An operator maps the programme once, from a file; the flash restores the map.
    flash, copy = case.flash(), case.path('copy.ts')
    case.fast(flash, 2, '--source', f'6={source},{source}', '--programme', '1.1=6.1:Live', '--programme', '1.2=6.2:1')
    udp, rtp, control, out = harness.free_ports(4)
    host = '[::1]' if os.path.exists('/proc/net/if_inet6') and read('/proc/net/if_inet6') else '127.0.0.1'
    with Server(case, flash, '--source', f'6=udp://{host}:{udp},udp://127.0.0.1:{rtp}', '--out',
                f'1.1=udp://{host}:{out}', '--out', f'1.2={copy}') as server:
        decoder = subprocess.Popen(
            [*FFMPEG, '-threads', '1', '-probesize', '100M', '-analyzeduration', '1M', '-i',
             f'udp://{host}:{out}?buffer_size=4000000', *DIGESTS, got_list],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

        def lost():
            channels = json.loads(client.request(STATUS, 0).data)['cards'][0]['channels']
            return all(channel['map']['input_lost'] for channel in channels)

        try:
            client = server.wait_started()
            case.check(server.wait(lost), 'nothing tells that there is no input yet')
            case.execute([*FFMPEG, '-re', '-i', source, *STREAMS, '-c', 'copy', '-f', 'mpegts',
                          f'udp://{host}:{udp}?pkt_size=1316', *STREAMS, '-c', 'copy', '-f', 'rtp_mpegts',
                          f'rtp://127.0.0.1:{rtp}?pkt_size=1328&rtcpport={control}'],
                         timeout=seconds + harness.HANG_SECONDS)
            server.wait(lambda: all(len(frames(got_list)[stream]) + LATENT >= len(due[stream]) + 1 for stream in due))
            case.check(server.wait(lost), 'nothing tells that the input has ended')
        finally:
            decoder.kill()
            said = decoder.communicate(timeout=harness.HANG_SECONDS)[1].decode(errors='replace')
        report = server.stop()
    case.equal(said, '', 'what the decoder says')
    channels = report['cards'][0]['channels']
    case.equal([channel['packets']['dropped'] for channel in channels], [0, 0], 'packets dropped')
    case.execute([*FFMPEG, '-probesize', '100M', '-i', copy, *DIGESTS, case.path('copied')])
    for name in (got_list, case.path('copied')):
        for stream, got in frames(name).items():
            count = len(got) - 1  # the last one may be incomplete
            case.check(count >= len(due[stream]) - LATENT and got[:count] == due[stream][:count],
                       f'{name}: stream {stream}: {count} frames of {len(due[stream])}, or others')
    seen = case.tscheck(copy, *RATE)
    case.equal((seen['continuity_errors'], len(seen['pcr'])), ({}, 1), 'continuity errors, PIDs with a clock')


harness.main(__name__)
