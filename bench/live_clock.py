#!/usr/bin/env python3
"""Follows the clock of an input from the network in real time: ffmpeg sends a programme over UDP, the headend sends it on,
and both are compared with this machine's clock. Prints the rates of their PCRs in ppm, one line per window; the last column
is how far the output's rate is from the sender's. A busy machine adds some ppm: look at several windows."""
import argparse
import selectors
import socket
import subprocess
import sys
import tempfile
import time

PACKET = 188
PCR_WRAP = (1 << 33) * 300
CLOCK_HZ = 27_000_000
GROUP = 1316  # bytes of a datagram
MAP = 'src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n6,1,256,1,256,1,2\n'  # ffmpeg's video


def listener():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
    s.bind(('127.0.0.1', 0))
    return s


def pcrs_in(datagram):
    """PID and ticks of 27 MHz of each PCR."""
    for at in range(0, len(datagram) - PACKET + 1, PACKET):
        packet = datagram[at:at + PACKET]
        if packet[3] & 0x20 and packet[4] >= 7 and packet[5] & 0x10:
            field = int.from_bytes(packet[6:12], 'big')
            yield (packet[1] & 0x1F) << 8 | packet[2], (field >> 15) * 300 + (field & 0x1FF)


class Clock:
    """The PCRs of the first PID that has any, against the time of arrival."""

    def __init__(self):
        self.pid, self.points = None, []

    def take(self, datagram, now):
        for pid, ticks in pcrs_in(datagram):
            self.pid = pid if self.pid is None else self.pid
            if pid == self.pid:
                last = self.points[-1][2] if self.points else ticks
                whole = self.points[-1][1] if self.points else 0
                self.points.append((now, whole + (ticks - last) % PCR_WRAP, ticks))

    def ppm(self, begin, end):
        """The slope of a line through the points of a window (least squares)."""
        window = [(now - begin, ticks / CLOCK_HZ) for now, ticks, _ in self.points if begin <= now < end]
        if len(window) < 100:
            return None
        x, y = (sum(each) / len(window) for each in zip(*window))
        slope = sum((a - x) * (b - y) for a, b in window) / sum((a - x) ** 2 for a, _ in window)
        return (slope - 1) * 1e6


def measure(options, folder):
    flash = f'{folder}/flash'
    subprocess.run([options.headend, '--init-flash', '--flash', flash], check=True, stdout=subprocess.DEVNULL)
    sender, output, relay = listener(), listener(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    with listener() as free:
        port = free.getsockname()[1]
    headend = subprocess.Popen(
        [options.headend, '--flash', flash, '--source', f'6=udp://127.0.0.1:{port}', '--pidmap', f'1.1={folder}/map.csv',
         '--out', f'1.1=udp://127.0.0.1:{output.getsockname()[1]}'], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    ffmpeg = subprocess.Popen(
        ['ffmpeg', '-nostdin', '-v', 'error', '-re', '-f', 'lavfi', '-i', 'testsrc=size=176x144:rate=25', '-c:v', 'mpeg2video',
         '-b:v', '1M', '-f', 'mpegts', '-muxrate', '1500k', '-pcr_period', '40',
         f'udp://127.0.0.1:{sender.getsockname()[1]}?pkt_size={GROUP}'])
    try:
        yield from follow(options, {sender: Clock(), output: Clock()}, sender, output, lambda d: relay.sendto(d, ('127.0.0.1', port)))
    finally:
        for process in (ffmpeg, headend):
            process.terminate()
            process.wait()


def follow(options, clocks, sender, output, forward):
    selector = selectors.DefaultSelector()
    for each in clocks:
        selector.register(each, selectors.EVENT_READ)
    begin = None
    while begin is None or time.monotonic() < begin + options.seconds:
        for key, _ in selector.select(1):
            datagram = key.fileobj.recv(2048)
            now = time.monotonic()
            clocks[key.fileobj].take(datagram, now)
            if key.fileobj is sender:
                forward(datagram)
        if begin is None and clocks[output].points:
            begin = due = time.monotonic()
        if begin is not None and time.monotonic() >= due + options.window:
            yield due - begin, *(clocks[each].ppm(due, due + options.window) for each in (sender, output))
            due += options.window


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--headend', default='build/gcc/headend/headend')
    parser.add_argument('--seconds', type=int, default=300)
    parser.add_argument('--window', type=int, default=30, metavar='SECONDS')
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        with open(f'{folder}/map.csv', 'w') as file:
            file.write(MAP)
        print('from s  sender ppm  output ppm  difference')
        for start, sent, came in measure(options, folder):
            known = sent is not None and came is not None
            print(f'{start:6.0f}  {sent:10.1f}  {came:10.1f}  {came - sent:10.1f}' if known else f'{start:6.0f}  too few PCRs',
                  flush=True)


if __name__ == '__main__':
    sys.exit(main())
