#!/usr/bin/env python3
"""Live, in real time: a programme comes over UDP, bare and in RTP, and goes out over UDP into a decoder, which must
find every picture and every tone of the source as it was. --seconds makes it longer."""
import os
import subprocess

import harness
from harness import RATE_DEN, RATE_NUM, Server, read

LATENT = 12  # frames that the decoder still keeps when its stream goes silent
FFMPEG = ['ffmpeg', '-nostdin', '-v', 'error']
STREAMS = ['-map', '0:v', '-map', '0:a']


def make_programme(case, path, seconds):
    case.execute([*FFMPEG, '-f', 'lavfi', '-i', 'testsrc=size=352x288:rate=25', '-f', 'lavfi', '-i', 'sine', '-t',
                  str(seconds), '-c:v', 'mpeg2video', '-b:v', '1M', '-c:a', 'mp2', '-metadata', 'service_name=Live',
                  path])


def frames(path):
    """Of each stream the digests of what was decoded, in order."""
    found = {}
    for line in (read(path).decode() if os.path.exists(path) else '').splitlines():
        fields = [field.strip() for field in line.split(',')]
        if not line.startswith('#') and len(fields) == 6:
            found.setdefault(fields[0], []).append(fields[5])
    return found


def live(case, sender):
    seconds, source, due_list, got_list = case.args.seconds, case.path('live.ts'), case.path('due'), case.path('got')
    make_programme(case, source, seconds)
    case.execute([*FFMPEG, '-i', source, *STREAMS, '-f', 'framemd5', due_list])
    due = frames(due_list)
    case.check(len(due['0']) == 25 * seconds and len(due['1']) > 38 * seconds, 'no source to compare with')

    # An operator maps the programme once, from a file; the flash brings the map back.
    flash, copy = case.flash(), case.path('copy.ts')
    case.fast(flash, 2, '--source', f'6={source}', '--programme', '1.1=6.1:Live', '--programme', '1.2=6.1:1')
    into, control, out = harness.free_ports(3)
    with Server(case, flash, '--source', f'6=udp://127.0.0.1:{into}', '--out', f'1.1=udp://127.0.0.1:{out}',
                '--out', f'1.2={copy}') as server:
        decoder = subprocess.Popen(
            [*FFMPEG, '-threads', '1', '-probesize', '100M', '-analyzeduration', '1M', '-i',
             f'udp://127.0.0.1:{out}?buffer_size=4000000', *STREAMS, '-f', 'framemd5', '-flush_packets', '1', got_list],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        try:
            server.wait_started()
            case.execute([*FFMPEG, '-re', '-i', source, *STREAMS, '-c', 'copy', *sender(into, control)],
                         timeout=seconds + harness.HANG_SECONDS)
            server.wait(lambda: all(len(frames(got_list).get(stream, [])) + LATENT >= len(digests)
                                    for stream, digests in due.items()))
            losses = harness.datagrams_lost(into), harness.datagrams_lost(out)
        finally:
            decoder.kill()
            said = decoder.communicate(timeout=harness.HANG_SECONDS)[1].decode(errors='replace')
        report = server.stop()
    case.equal(losses, (0, 0), 'datagrams that the host has dropped on their way in and out')
    case.equal(said, '', 'what the decoder says')
    got = frames(got_list)
    for stream, digests in due.items():
        decoded = got.get(stream, [])
        case.check(len(digests) - LATENT <= len(decoded) and decoded == digests[:len(decoded)],
                   f'stream {stream}: {len(decoded)} frames of {len(digests)}, or others')
    [channel, _] = report['cards'][0]['channels']
    case.equal(channel['packets']['dropped'], 0, 'packets dropped')
    seen = case.ts_judge(copy, '--rate', f'{RATE_NUM}/{RATE_DEN}')
    case.equal(seen.get('continuity_errors'), {}, 'continuity errors')
    case.equal(len(seen.get('pcr', {})), 1, f'PIDs with a clock: {seen.get("pcr")}')
    print(f'{len(got.get("0", []))} pictures, {len(got.get("1", []))} frames of sound, {seen.get("packets")} packets')


CASES = {
    'udp': lambda case: live(case, lambda port, _: ['-f', 'mpegts', f'udp://127.0.0.1:{port}?pkt_size=1316']),
    'rtp': lambda case: live(case, lambda port, control: [
        '-f', 'rtp_mpegts', f'rtp://127.0.0.1:{port}?pkt_size=1328&rtcpport={control}']),
}

harness.main(CASES)
