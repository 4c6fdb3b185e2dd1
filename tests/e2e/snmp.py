#!/usr/bin/env python3
"""The SNMP agent as managers meet it: Net-SNMP's programs with names of our MIB, and a client of the tests' own that
sends what those cannot. With QAM_LONG in the environment the storm of damaged requests has 10,000 packets, not 1000."""
import json
import os
import random
import re
import subprocess
import sys

import harness
import mib
from alarms import too_much
from harness import Server, poll, read, record_file, write
from snmp_client import (COUNTER, END_OF_VIEW, GET, GETBULK, GETNEXT, INTEGER, NO_SUCH_OBJECT, NULL, SET,
                         STRING, Client, integer, message, name, number)

BASE = name(mib.DEFAULT)
SUFFIX = mib.SUFFIX
LINES = ('read-community look', 'write-community change', 'user mon read SHA-256 "monitor pass" AES monitorpriv',
         'user adm write SHA-512 adminauth123 AES-256 adminpriv123', 'user half read SHA halfauth123')
ADM_AUTH, ADM_PRIV = ('-a', 'SHA-512', '-A', 'adminauth123'), ('-x', 'AES-256', '-X', 'adminpriv123')
ADM = ('-v3', '-l', 'authPriv', '-u', 'adm', *ADM_AUTH, *ADM_PRIV)
ENGINE = 'snmp/engine.txt'
SYS_NAME, ENGINE_BOOTS = name('1.3.6.1.2.1.1.5.0'), name('1.3.6.1.6.3.10.2.1.2.0')
PATIENT, QUICK = ('-r', '9', '-t', '2'), ('-r', '0', '-t', '0.25')  # quick for requests without an answer


def instance(slot, stem):
    return (*BASE, slot + 1, *SUFFIX[stem], 0)


def dotted(oid):
    return '.'.join(map(str, oid))


def secrets(case, *lines, mode=0o600):
    path = case.path('secrets')
    write(path, '\n'.join(lines or LINES).encode() + b'\n')
    os.chmod(path, mode)
    return path


class Agent(Server):
    """A headend whose agent is open; `slots` are those whose rows are waited for."""

    def __init__(self, case, flash, *args, slots=(1,), lines=LINES, writes=True):
        self.slots = slots
        cards = [word for slot in slots for word in ('--card', str(slot))]
        super().__init__(case, flash, *cards, '--snmp', '127.0.0.1:0', '--snmp-secrets', secrets(case, *lines),
                         *(['--snmp-write-community'] if writes else []), *args)

    def __enter__(self):
        super().__enter__()
        found = self.wait(lambda: re.search(r'SNMP on 127\.0\.0\.1:(\d+), engine ID (0x\w+)', self.text()))
        self.snmp, self.engine = int(found.group(1)), found.group(2)
        self.reader, self.writer = Client(self.snmp), Client(self.snmp, 'change')
        for slot in self.slots:
            self.wait(lambda: self.reader.value(instance(slot, 'Ch2SymbolRate')) == 6875)
        return self

    def variables(self, slot):
        text = self.case.qamctl(self.address, 'var', 'get', str(slot), '--json', *mib.VARIABLES.values()).text
        return {row['name']: row['value'] for row in json.loads(text)}

    def rf(self, slot):
        return json.loads(self.case.qamctl(self.address, 'rf', str(slot), '--json').text)


class Programs(mib.Tools):
    """Those of Net-SNMP."""

    def ask(self, program, agent, *arguments, codes=(0,), **more):
        """The address stands where '@' is."""
        address = f'127.0.0.1:{agent.snmp}'
        return self.run(program, *(address if word == '@' else word for word in arguments), codes=codes, **more)


LOOK, CHANGE = ('-v2c', '-c', 'look'), ('-v2c', '-c', 'change')


def cards_are_read_and_set_by_name(case):
    """What a person types, over SNMPv2c and SNMPv3; what is set is on the air."""
    programs = Programs(case)
    with Agent(case, case.flash(), slots=(1, 3)) as agent:
        for who, program, khz in ((CHANGE, 'snmpwalk', 474000), (ADM, 'snmpbulkwalk', 482000)):
            programs.ask('snmpset', agent, *who, '@', 'slot3Frequency.0', 'i', str(khz),
                         'slot3Constellation.0', 'i', 'qam256')
            case.equal([row['frequency_khz'] for row in agent.rf(3)], [khz, khz + 8000], 'on the air')
            lines = programs.ask(program, agent, *who, '@', 'QAM-HEADEND-MIB::qamHeadendMIB').splitlines()
            case.equal(len(lines), 30, f'lines of {program}')
            for text in (f'slot3Frequency.0 = INTEGER: {khz} kHz', 'slot3Constellation.0 = INTEGER: qam256(7)',
                         'slot1Frequency.0 = INTEGER: 554000 kHz', 'slot1Constellation.0 = INTEGER: qam64(5)',
                         'slot1Level.0 = INTEGER: 100.0 dBuV', 'slot1Ch2PowerSwitch.0 = INTEGER: on(15)',
                         'slot1SoftwareVersion.0 = STRING: V2.1.05A'):
                case.check(f'QAM-HEADEND-MIB::{text}' in lines, f'{program}: no {text} in {lines}')
            case.equal(programs.ask('snmpget', agent, *who, '@', '-Oqv', 'sysName.0'), 'headend\n', 'sysName')


SEEN = [name(text) for text in ('1.3.6.1.2.1.1', '1.3.6.1.2.1.11', mib.DEFAULT, '1.3.6.1.6.3.1.1.6.1',
                                '1.3.6.1.6.3.10.2.1', '1.3.6.1.6.3.11.2.1', '1.3.6.1.6.3.15.1.1')]


def within(oid, subtree):
    return oid[:len(subtree)] == subtree


def a_walk_finds_all_cards_and_nothing_of_the_host(case):
    """In order; what it finds is what qamctl tells; and from everywhere there is a way to the next."""
    with Agent(case, case.flash(), slots=range(1, 7)) as agent:
        for slot in range(1, 7):
            agent.writer.set((instance(slot, 'Frequency'), number(400000 + 8000 * slot)))
            rows = {mib.VARIABLES[stem]: agent.reader.value(instance(slot, stem)) for stem in SUFFIX}
            case.equal(rows, agent.variables(slot), f'slot {slot} by SNMP and by qamctl')
            case.equal(rows['rfreq2'], 408000 + 8000 * slot, f'channel 2 of slot {slot}')
        found = agent.reader.walk()
        oids = [oid for oid, _ in found]
        case.equal(oids, sorted(set(oids)), 'order of the walk')
        cards = [instance(slot, stem) for slot in range(1, 7) for stem in SUFFIX]
        case.equal([oid for oid in oids if within(oid, BASE)], cards, 'objects of the cards')
        case.equal([dotted(oid) for oid in oids if not any(within(oid, subtree) for subtree in SEEN)], [],
                   'objects that should not be seen')
        case.equal([dotted(subtree) for subtree in SEEN if not any(within(oid, subtree) for oid in oids)], [],
                   'groups that are missing')
        host = os.uname()
        for word in (host.nodename, host.release, host.machine, os.environ.get('USER', 'root')):
            case.equal([dotted(oid) for oid, (tag, content) in found if tag == STRING and word.encode() in content], [],
                       f'objects with {word}')
        tries = {*oids, *(oid[:-1] for oid in cards), *((*oid, 0) for oid in cards), BASE, (*BASE, 1), (*BASE, 8)}
        for oid in sorted(tries):
            wanted = next((each for each in oids if each > oid), None)
            (got, value), = agent.reader.next(oid).bindings
            case.equal(None if value == END_OF_VIEW else got, wanted, f'GETNEXT of {dotted(oid)}')


def v3(user, level, *more):
    return ('-v3', '-l', level, '-u', user, *more)


MON_AUTH, MON_PRIV = ('-a', 'SHA-256', '-A', 'monitor pass'), ('-x', 'AES', '-X', 'monitorpriv')
NOTHING = (r'Timeout|authorizationError|[Uu]nknown user|Authentication failure|[Dd]ecryption error|'
           r'Unsupported security level|Error in packet')
WHO = {  # user: whether reading and setting a card are allowed
    'the read community': (LOOK, True, False),
    'the write community': (CHANGE, True, True),
    'a wrong community': (('-v2c', '-c', 'Look'), False, False),
    'the trap community': (('-v2c', '-c', 'alarm'), False, False),
    'a reader with privacy': (v3('mon', 'authPriv', *MON_AUTH, *MON_PRIV), True, False),
    'a reader below his level': (v3('mon', 'authNoPriv', *MON_AUTH), False, False),
    'a wrong passphrase': (v3('mon', 'authPriv', '-a', 'SHA-256', '-A', 'monitor past', *MON_PRIV), False, False),
    'a reader with authentication only': (v3('half', 'authNoPriv', '-a', 'SHA', '-A', 'halfauth123'), True, False),
    'the writer': (ADM, True, True),
    'the writer without privacy': (v3('adm', 'authNoPriv', *ADM_AUTH), False, False),
}


def everyone_may_do_what_the_secrets_allow(case):
    programs, target = Programs(case), dotted(instance(1, 'Frequency'))
    programs.environment['MIBS'] = ''  # only numbers: the programs start faster
    flash, khz = case.flash(), 400000
    path = os.path.join(flash, record_file(1))
    with Agent(case, flash, '--snmp-trap', '127.0.0.1:9', lines=(*LINES, 'trap-community alarm')) as agent:
        for who, (flags, reads, writes) in WHO.items():
            khz += 8000
            before, flags = read(path), (*(PATIENT if reads else QUICK), *flags)
            got = programs.ask('snmpget', agent, *flags, '@', target, codes=(0, 1, 2))
            case.equal('INTEGER: ' in got, reads, f'{who} reads: {got}')
            case.check(reads or re.search(NOTHING, got), f'{who} reads: {got}')
            got = programs.ask('snmpset', agent, *flags, '@', target, 'i', str(khz), codes=(0, 1, 2))
            case.equal('INTEGER: ' in got, writes, f'{who} sets: {got}')
            case.equal(read(path) != before, writes, f'{who} changes the record')
            if reads:
                got = programs.ask('snmpset', agent, *flags, '@', dotted(SYS_NAME), 's', 'mine', codes=(1, 2))
                case.check('noAccess' in got, f'{who} sets sysName: {got}')
                got = programs.ask('snmpwalk', agent, *flags, '@', '1.3.6.1.6.3.15.1.2')
                case.check('No more variables' in got, f'{who} sees users: {got}')
        case.equal(agent.reader.value(SYS_NAME), 'headend', 'sysName')
        engine, boots = agent.engine, agent.reader.value(ENGINE_BOOTS)
    with Agent(case, flash, writes=False) as agent:
        case.equal((agent.engine, agent.reader.value(ENGINE_BOOTS)), (engine, boots + 1), 'engine after a restart')
        case.check('write-community is not used' in agent.text(), agent.text())
        case.equal(Client(agent.snmp, 'change', 0.3, 2).get(SYS_NAME), None, 'the write community without its flag')


def calls_that_open_too_much_or_nothing_are_refused(case):
    flash, anywhere, base = case.flash(), '--snmp 127.0.0.1:0', '1.3.6.1.4.1.32473.1.2.3'
    for code, flags, said, *lines in (
            (1, anywhere, 'no manager may read'), (2, f'{anywhere} --snmp-base {base}.4', '--snmp-base'),
            (2, f'{anywhere} --snmp-base 1.3.6.1.6.3.15.1.1.1', '--snmp-base'), (2, '', 'needs --snmp', *LINES),
            (1, f'{anywhere} --snmp-write-community', 'no write-community', LINES[0]),
            (1, '--snmp-trap 127.0.0.1:9', 'no trap-community', LINES[0]),
            (1, '--snmp 192.0.2.1:0', 'cannot listen for SNMP on 192.0.2.1', *LINES)):
        given = ['--snmp-secrets', secrets(case, *lines)] if lines else []
        case.says(case.fast(flash, 1, *flags.split(), *given, codes=(code,)), said)
    case.says(case.fast(flash, 1, *anywhere.split(), '--snmp-secrets', secrets(case, mode=0o640), codes=(1,)), 'chmod 600')
    case.tidy(flash, ENGINE)
    with Server(case, flash) as server:
        server.wait_started()
        open_files = f'/proc/{server.process.pid}/fd'
        links = [os.readlink(os.path.join(open_files, fd)) for fd in os.listdir(open_files)]
        case.equal(sum(link.startswith('socket:') for link in links), 1, 'sockets of a headend without --snmp')
    environment = {**os.environ, 'HEADEND_SNMP_SECRETS': 'read-community look'}
    run = case.fast(flash, 1, *anywhere.split(), '--snmp-base', base, env=environment)
    case.says(run, r'SNMP on 127\.0\.0\.1:\d+')


I, S = number, (lambda text: (STRING, text))
GOOD = (instance(1, 'Level'), I(1055))
BAD = {  # bindings, of which by default the last is refused: the error, and the index of the refused one
    'below': ([(instance(1, 'Frequency'), I(51999))], 'wrongValue'),
    'between steps': ([(instance(1, 'Level'), I(1001))], 'wrongValue'),
    'no such constellation': ([(instance(1, 'Constellation'), I(8))], 'wrongValue'),
    'a text': ([(instance(1, 'Frequency'), S(b'474000'))], 'wrongType'),
    'a counter': ([(instance(1, 'Frequency'), (COUNTER, integer(474000)))], 'wrongType'),
    'a reading': ([(instance(1, 'Ch2Frequency'), I(482000))], 'notWritable'),
    'behind the instance': ([((*instance(1, 'Frequency'), 0), I(474000))], 'noCreation'),
    'second of three': ([GOOD, (instance(1, 'Ch2Level'), I(1055)), (instance(1, 'Level'), I(1055))], 'notWritable', 2),
    'third of three': ([GOOD, (instance(1, 'Constellation'), I(7)), (instance(1, 'Frequency'), S(b'x'))], 'wrongType'),
}

def a_set_is_done_whole_or_refused_by_name(case):
    flash = case.flash()
    with Agent(case, flash, slots=(1, 3)) as agent:
        def state():
            return [(read(os.path.join(flash, record_file(slot))), agent.rf(slot)) for slot in (1, 3)]
        before = state()
        for what, (bindings, error, *which) in BAD.items():
            answer = agent.writer.set(*bindings)
            case.check(answer and re.fullmatch(error, answer.error), f'{what}: {answer}')
            case.equal(answer and answer.index, which[0] if which else len(bindings), f'{what}: which binding')
        hasty = Client(agent.snmp, 'change', 0.3, 1)
        answer = hasty.set((instance(1, 'Frequency'), (INTEGER, integer(2 ** 32 + 474000))))
        case.check(answer is None or answer.error != 'noError', f'an INTEGER of more than 32 bits: {answer}')
        case.equal(state(), before, 'records and readouts after all of them')
        both = agent.writer.set((instance(1, 'Level'), I(1055)), (instance(3, 'Constellation'), I(7)))
        case.equal((both.error, agent.rf(1)[0]['level_dbuv'], agent.rf(3)[0]['constellation']),
                   ('noError', 105.5, '256-QAM'), 'two good ones')


def a_storm_of_damaged_requests_leaves_all_as_it_was(case):
    """While a manager goes on asking. What they set, no card takes."""
    count, chance, flash = 10000 if harness.LONG else 1000, random.Random(8), case.flash()
    path = os.path.join(flash, record_file(1))
    requests = [message('change', kind, [(instance(1, stem), value), (BASE, (NULL, b''))], 7, 0, 5)
                for kind in (GET, GETNEXT, GETBULK, SET)
                for stem, value in (('Frequency', I(5)), ('SoftwareVersion', S(b'x' * 449)), ('Level', (COUNTER, b'')))]
    with Agent(case, flash) as agent:
        before, hostile = (agent.variables(1), read(path)), Client(agent.snmp)
        for sent in range(count):
            packet = bytearray(chance.choice(requests))
            for _ in range(chance.choice((0, 1, 4))):
                value = chance.choice((0, 2, 6, 0x7F, 0x82, 0xFF, chance.randrange(256)))
                packet[chance.randrange(len(packet))] = value
            hostile.socket.send(packet[:chance.choice((None, None, -1, 20))])
            if sent % 50 == 0:
                case.equal(agent.reader.value(SYS_NAME), 'headend', f'the manager after {sent} packets')
        case.equal((agent.variables(1), read(path)), before, 'the card after the storm')
        arrived = int.from_bytes(agent.reader.get(name('1.3.6.1.2.1.11.1.0')).bindings[0][1][1], 'big')  # snmpInPkts
        case.check(arrived > count, f'only {arrived} packets came in')


TRAPS = {  # received notifications: from which virtual second on. The second run finds its PID map in the flash
    ('Raised', '3', '1', '770', 'High Temperature', '温度过高'): 2,
    ('Cleared', '3', '1', '770', 'qam card 3 normal temperature', '调制卡3温度恢复正常'): 5,
    ('Raised', '1', '2', '771', 'QAM Card1 port2 rate overflow', '调制卡1端口2码率溢出'): 2,
    ('Cleared', '1', '2', '771', 'QAM Card1 port2 rate resume', '调制卡1端口2码率恢复'): 8,
}


def alarms_come_as_notifications(case):
    programs, flash = Programs(case), case.flash()
    # Of two slots and both ports.
    causes = ('--fast', '--seconds', '12', '--card', '1', '--card', '3', '--set', '3.temperature2=70@2',
              '--set', '3.temperature2=69@5', *too_much(case, '1.2'), '--set', '1.symbolrate=6875@8')
    with Agent(case, flash) as agent:
        engine = agent.engine
    for line, configuration in (
            ('trap-community alarm', 'authCommunity log alarm\n'),
            ('trap-user adm',
             f'createUser -e {engine} adm SHA-512 adminauth123 AES-256 adminpriv123\nauthUser log adm priv\n'),
            ('trap-user half', f'createUser -e {engine} half SHA halfauth123\nauthUser log half\n')):
        port, = harness.free_ports(1)
        write(case.path('trapd.conf'), configuration.encode())
        received = open(case.path('received'), 'wb')
        command = ['snmptrapd', '-f', '-Lo', '-C', '-c', case.path('trapd.conf'), '-Oqs', '-F', '%v\n',
                   f'127.0.0.1:{port}']
        receiver = subprocess.Popen(command, env=programs.environment, stdout=received, stderr=received)
        try:
            poll(lambda: f':{port:04X} ' in read('/proc/net/udp').decode())
            case.headend('--flash', flash, *causes, '--snmp-trap', f'127.0.0.1:{port}',
                         '--snmp-secrets', secrets(case, *LINES, line))
            poll(lambda: read(case.path('received')).decode().count('ChineseText') >= len(TRAPS))
        finally:
            receiver.terminate()
            receiver.wait()
            received.close()
        got = read(case.path('received')).decode()
        found = re.findall(r'sysUpTime.0 0:0:00:(\d+)\.\d+\tsnmpTrapOID.0 qamAlarm(Raised|Cleared)\t'
                           r'qamAlarmSlot.0 (\d+)\tqamAlarmPort.0 (\d+)\tqamAlarmType.0 (\d+)\t'
                           r'qamAlarmEnglishText.0 (.*?)\tqamAlarmChineseText.0 (.*)', got)
        case.equal(sorted(tuple(words) for _, *words in found), sorted(TRAPS), f'{line}: {got[-900:]!r}')
        for second, *words in found:
            start, = (TRAPS[each] for each in TRAPS if each == tuple(words))
            case.check(start <= int(second) <= start + 3, f'{line}: {words} at {second} s, {start} s are due')


def a_card_that_hangs_or_is_not_configured_holds_up_no_other(case):
    flash = case.flash()
    with Agent(case, flash, '--fault', '1.sensor2-scl-low@2', slots=(1, 3)) as agent:
        first, third = instance(1, 'Frequency'), instance(3, 'Frequency')
        agent.wait(lambda: agent.reader.value(first) != 554000)
        case.equal(agent.reader.value(first), 'resourceUnavailable', 'GET')
        case.equal(agent.reader.next(first[:-1]).error, 'resourceUnavailable', 'GETNEXT')
        both = agent.writer.set((third, number(474000)), (first, number(474000)))
        case.equal(both.error, 'resourceUnavailable', 'SET')
        case.equal(agent.reader.value(third), 554000, 'another card')
        for start in (BASE, instance(1, 'Ch2SymbolRate')):
            case.equal(agent.reader.next(start).bindings[0][0], instance(3, 'HardwareVersion'), 'the way past it')
        case.equal(len(agent.reader.bulk(BASE, 15).bindings), 15, 'GETBULK past it')
        agent.stop(code=1)
    write(os.path.join(flash, harness.BITSTREAM), b'no bitstream')
    with Agent(case, flash, slots=()) as agent:
        agent.wait(lambda: 'config_error' in case.qamctl(agent.address, 'status').text)
        answers = [agent.reader.value(instance(1, stem)) for stem in SUFFIX]  # a walk also skips a card that hangs
        case.equal(answers, [NO_SUCH_OBJECT[0]] * len(SUFFIX), 'rows of a card without configuration')
        agent.stop(code=1)


def the_agent_looks_for_no_files_of_this_machine(case):
    """Open and sending, with neither configuration nor MIB of the library's."""
    if 'ptrace' in case.execute(['strace', '-o', '/dev/null', 'true'], (0, 1)).text:
        print('skipped: this process may not trace another')
        sys.exit(harness.SKIPPED)
    trace = case.path('trace')
    case.execute(['strace', '-f', '-e', 'trace=%file', '-o', trace, case.args.headend, '--fast', '--seconds', '4',
                  '--flash', case.flash(), '--set', '1.temperature2=80', '--snmp', '127.0.0.1:0', '--snmp-trap',
                  '127.0.0.1:9', '--snmp-secrets', secrets(case, *LINES, 'trap-user adm')])
    paths = {os.path.abspath(path) for path in re.findall(r'\w+\((?:AT_FDCWD, )?"([^"]*)"', read(trace).decode())}
    case.check(case.path('secrets') in paths, f'no secrets in {sorted(paths)}')
    system = r'\.so\b|^/usr/(lib|share)/(locale|.*/gconv)/|^/(proc|sys|dev)/|^/etc/ld\.so'
    others = [path for path in paths - {case.args.headend} if not re.search(system, path)
              and os.path.commonpath((path, case.folder)) not in (path, case.folder)]
    case.equal(sorted(others), [], 'files of this machine')


harness.main(__name__)
