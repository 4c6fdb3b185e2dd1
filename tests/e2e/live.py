#!/usr/bin/env python3
"""Live, in real time: a programme comes over UDP, bare and in RTP, and goes out over UDP and into a file. A decoder
must find every picture and every tone of the source as it was. QAM_LONG makes it longer."""
import json
import os
import subprocess

import harness
from harness import RATE, STATUS, Client, Server, read

LATENT = 13  # frames that the decoder still keeps when its stream stops
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error']
STREAMS = ['-map', '0:v', '-map', '0:a']
DIGESTS = [*STREAMS, '-f', 'framemd5', '-flush_packets', '1']


def frames(path):
    """Of each stream the digests of what was decoded, in order."""
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
    with Server(case, flash, '--source', f'6=udp://127.0.0.1:{udp},udp://127.0.0.1:{rtp}', '--out',
                f'1.1=udp://127.0.0.1:{out}', '--out', f'1.2={copy}') as server:
        decoder = subprocess.Popen(
            [*FFMPEG, '-threads', '1', '-probesize', '100M', '-analyzeduration', '1M', '-i',
             f'udp://127.0.0.1:{out}?buffer_size=4000000', *DIGESTS, got_list],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

        def lost():
            channels = json.loads(client.request(STATUS, 0).data)['cards'][0]['channels']
            return all(channel['map']['input_lost'] for channel in channels)

        try:
            server.wait_started()
            client = Client(server.port)
            case.check(server.wait(lost), 'nothing tells that there is no input yet')
            case.execute([*FFMPEG, '-re', '-i', source, *STREAMS, '-c', 'copy', '-f', 'mpegts',
                          f'udp://127.0.0.1:{udp}?pkt_size=1316', *STREAMS, '-c', 'copy', '-f', 'rtp_mpegts',
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
