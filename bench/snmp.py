#!/usr/bin/env python3
"""Requests a second of the headend's SNMP agent, beside Net-SNMP's own agent in the same run, and a walk of six cards.
Both run with default settings of their kind on loopback; the clients take turns. For bench/figures.py."""
import argparse
import contextlib
import os
import socket
import subprocess
import tempfile
import time

import snmp_client

GETS = 20000  # a round
ROUNDS = 5
WALKS = 200
GOAL = 0.8  # relative to the other agent
COMMUNITY = 'look'
SEQUENCE = 1
BASE = '1.3.6.1.4.1.8072.9999.9999.27'
SYS_UPTIME = '1.3.6.1.2.1.1.3.0'
FREQUENCY = BASE + '.2.2.51.1.4.0'
SECONDS_TO_START = 20


def request(oid, kind=snmp_client.GET):
    return snmp_client.message(COMMUNITY, kind, [(snmp_client.name(oid), (snmp_client.NULL, b''))], SEQUENCE)


def value_of(answer, oid):
    """Of the object in a good answer."""
    said = snmp_client.answer_of(answer, SEQUENCE)
    (got, value), = said.bindings
    if said.error or got != snmp_client.name(oid) or value[0] >= 0x80:
        raise RuntimeError(f'{oid}: {answer.hex()} is no answer')
    return value


@contextlib.contextmanager
def running(command, port, **options):
    """The program, from its first answer on."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    try:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.connect(('127.0.0.1', port))
            s.settimeout(0.2)
            for _ in range(SECONDS_TO_START * 5):
                with contextlib.suppress(OSError):
                    s.send(request(SYS_UPTIME))
                    s.recv(2048)
                    break
                time.sleep(0.05)
            else:
                raise RuntimeError(f'{command[0]} does not answer')
        yield
    finally:
        process.terminate()
        process.wait()


def gets(exchange, port, name):
    done = subprocess.run([exchange, str(port), request(name).hex(), str(GETS)], check=True, capture_output=True,
                          text=True)
    seconds, answer = done.stdout.split()
    value_of(bytes.fromhex(answer), name)
    return GETS / float(seconds)


def walks(port, objects):
    """Walks a second of what is below the base, GETNEXT by GETNEXT."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.connect(('127.0.0.1', port))
        s.settimeout(2)
        start = time.monotonic()
        for _ in range(WALKS):
            for name in [BASE, *objects[:-1]]:
                s.send(request(name, snmp_client.GETNEXT))
                s.recv(2048)
        took = time.monotonic() - start
        s.send(request(objects[-2], snmp_client.GETNEXT))
        value_of(s.recv(2048), objects[-1])
    return WALKS / took


def measure(headend, exchange, folder):
    flash, secrets, conf = (os.path.join(folder, name) for name in ('flash', 'secrets', 'snmpd.conf'))
    subprocess.run([headend, '--init-flash', '--flash', flash], check=True, capture_output=True)
    for path, text in ((secrets, f'read-community {COMMUNITY}\n'), (conf, f'rocommunity {COMMUNITY}\n')):
        with open(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600), 'w', encoding='ascii') as file:
            file.write(text)
    ours, theirs = snmp_client.free_ports(2)
    slots = [word for slot in range(1, 7) for word in ('--card', str(slot))]
    environment = {**os.environ, 'SNMPCONFPATH': folder, 'SNMP_PERSISTENT_DIR': folder, 'MIBS': ''}
    suffixes = ([f'1.19.1.{n}' for n in (1, 2, 3)] + [f'2.51.1.{n}' for n in range(3, 9)]
                + [f'3.51.1.{n}' for n in range(11, 17)])
    objects = [f'{BASE}.{slot + 1}.{suffix}.0' for slot in range(1, 7) for suffix in suffixes]
    rates = {name: [] for name in ('card', 'sysUpTime', 'other', 'walk')}
    with (running([headend, *slots, '--flash', flash, '--snmp', f'127.0.0.1:{ours}', '--snmp-secrets', secrets,
                   '--manage', 'off', '--log', os.path.join(folder, 'log')], ours),
          running(['snmpd', '-f', '-Lf', os.devnull, '-C', '-c', conf, f'udp:127.0.0.1:{theirs}'], theirs,
                  env=environment)):
        for _ in range(SECONDS_TO_START * 10):  # until the last card's rows exist
            time.sleep(0.1)
            with contextlib.suppress(RuntimeError, subprocess.CalledProcessError):
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
                    s.connect(('127.0.0.1', ours))
                    s.send(request(objects[-1]))
                    s.settimeout(2)
                    value_of(s.recv(2048), objects[-1])
                    break
        for _ in range(ROUNDS):
            rates['other'].append(gets(exchange, theirs, SYS_UPTIME))
            rates['card'].append(gets(exchange, ours, FREQUENCY))
            rates['sysUpTime'].append(gets(exchange, ours, SYS_UPTIME))
            rates['walk'].append(walks(ours, objects))
    best = {name: max(values) for name, values in rates.items()}
    return {'rates': rates, 'best': best, 'ratio': best['card'] / best['other'], 'goal': GOAL}


def show(figures):
    print(f'{"SNMP over loopback":38}{"a second":>12}{"ms each":>12}')
    for name, title in (('card', "GET of a card's frequency"), ('sysUpTime', 'GET of sysUpTime'),
                        ('other', 'GET of sysUpTime from snmpd'), ('walk', 'walk of six cards, 90 objects')):
        rate = figures['best'][name]
        print(f'{title:38}{rate:12.0f}{1000 / rate:12.3f}')
    print(f'A GET of a card beside snmpd: {figures["ratio"]:.2f} (goal {figures["goal"]})')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--headend', required=True, metavar='FILE')
    parser.add_argument('--exchange', required=True, metavar='FILE')
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        show(measure(options.headend, options.exchange, folder))


if __name__ == '__main__':
    main()
