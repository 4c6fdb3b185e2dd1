#!/usr/bin/env python3
# The SNMP agent as managers meet it: Net-SNMP's programs, with names of our MIB or with numbers, and damaged requests.
# With QAM_LONG in the environment the storm of these has 10,000 packets, not 1000.
import itertools
import json
import os
import random
import re
import shlex
import socket
import subprocess
import sys

import harness
import mib
from alarms import too_much
from harness import Server, poll, read, record_file, write

def name(text):
    return tuple(int(part) for part in text.strip('.').split('.'))


def dotted(oid):
    return '.'.join(map(str, oid))


BASE = name(mib.DEFAULT)
SUFFIX = mib.SUFFIX
LINES = ('read-community look', 'write-community change', 'user mon read SHA-256 "monitor pass" AES monitorpriv',
         'user adm write SHA-512 adminauth123 AES-256 adminpriv123', 'user half read SHA halfauth123')
LOOK, CHANGE = '-v2c -c look -On', '-v2c -c change -On'
ADM = '-v3 -l authPriv -u adm -a SHA-512 -A adminauth123 -x AES-256 -X adminpriv123'
ENGINE = 'snmp/engine.txt'
SYS_NAME, ENGINE_BOOTS = '1.3.6.1.2.1.1.5.0', '1.3.6.1.6.3.10.2.1.2.0'
PATIENT, QUICK = ' -r 9 -t 2', ' -r 0 -t 0.25'  # quick for requests without an answer


def instance(slot, stem):
    return (*BASE, slot + 1, *SUFFIX[stem], 0)


def secrets(case, *lines, mode=0o600):
    path = case.path('secrets')
    write(path, '\n'.join(lines or LINES).encode() + b'\n')
    os.chmod(path, mode)
    return path


# A headend whose agent is open; `slots` are those whose rows are waited for.
class Agent(Server):

    def __init__(self, case, flash, *args, slots=(1,), lines=LINES, writes=True):
        self.slots, self.tools = slots, mib.Tools(case)
        cards = [word for slot in slots for word in ('--card', str(slot))]
        super().__init__(case, flash, *cards, '--snmp', '127.0.0.1:0', '--snmp-secrets', secrets(case, *lines),
                         *(['--snmp-write-community'] if writes else []), *args)

    def __enter__(self):
        super().__enter__()
        found = self.wait(lambda: re.search(r'SNMP on 127\.0\.0\.1:(\d+), engine ID (0x\w+)', self.text()))
        self.snmp, self.engine = int(found.group(1)), found.group(2)
        for slot in self.slots:
            self.wait(lambda: self.get(instance(slot, 'Ch2SymbolRate')) == [6875])
        return self

    # What a program of Net-SNMP prints: by default numbers, because it starts faster without MIBs.
    def ask(self, program, who, *words, **environment):
        command = [program, *shlex.split(PATIENT + ' ' + who), f'127.0.0.1:{self.snmp}', *words]
        return self.tools.run(*command, codes=(0, 1, 2), **{'MIBS': ''} | environment)

    # Numbers and texts; or the lines of a message.
    def get(self, *oids):
        lines = self.ask('snmpget', LOOK + ' -Oqv', *map(dotted, oids)).splitlines()
        return [int(line) if line.isdigit() else line.strip('"') for line in lines]

    def variables(self, slot):
        text = self.case.qamctl(self.address, 'var', 'get', str(slot), '--json', *mib.VARIABLES.values()).text
        return {row['name']: row['value'] for row in json.loads(text)}

    def rf(self, slot):
        return json.loads(self.case.qamctl(self.address, 'rf', str(slot), '--json').text)


# What a person types, over SNMPv2c and SNMPv3, and values as the MIB has them shown.
def cards_are_read_and_set_by_name(case):
    names = ('slot1Frequency', 'slot1Level', 'slot1Constellation', 'slot1Ch2PowerSwitch', 'slot1SoftwareVersion', 'sysName')
    with Agent(case, case.flash()) as agent:
        mibs = agent.tools.environment['MIBS']
        for who, khz in ((CHANGE, '474000'), (ADM, '482000')):
            agent.ask('snmpset', who, 'slot1Frequency.0', 'i', khz, 'slot1Constellation.0', 'i', 'qam256', MIBS=mibs)
            shown = agent.ask('snmpget', who + ' -Oqv', *(f'{stem}.0' for stem in names), MIBS=mibs)
            case.equal(shown.splitlines(), [khz + ' kHz', '100.0 dBuV', 'qam256', 'on', 'V2.1.05A', 'headend'], who)


SEEN = [name(text) for text in ('1.3.6.1.2.1.1', '1.3.6.1.2.1.11', mib.DEFAULT, '1.3.6.1.6.3.1.1.6.1',
                                '1.3.6.1.6.3.10.2.1', '1.3.6.1.6.3.11.2.1', '1.3.6.1.6.3.15.1.1')]


# In order; what it finds is what qamctl shows; and from everywhere there is a way to the next.
def a_walk_finds_all_cards_and_nothing_of_the_host(case):
    with Agent(case, case.flash(), slots=range(1, 7)) as agent:
        for slot in range(1, 7):
            agent.ask('snmpset', CHANGE, dotted(instance(slot, 'Frequency')), 'i', str(400000 + 8000 * slot))
            rows = dict(zip(mib.VARIABLES.values(), agent.get(*(instance(slot, stem) for stem in SUFFIX))))
            case.equal(rows, agent.variables(slot), f'slot {slot} by SNMP and by qamctl')
            case.equal(rows['rfreq2'], 408000 + 8000 * slot, f'channel 2 of slot {slot}')
        lines = agent.ask('snmpwalk', LOOK, '1.3').splitlines()
        case.check('No more variables' in lines.pop(), f'the walk ends early: {lines[-1]}')
        oids = [name(line.split()[0]) for line in lines]
        case.equal(oids, sorted(set(oids)), 'order of the walk')
        cards = [instance(slot, stem) for slot in range(1, 7) for stem in SUFFIX]
        case.equal([oid for oid in oids if oid[:len(BASE)] == BASE], cards, 'objects of the cards')
        groups = {oid: [subtree for subtree in SEEN if oid[:len(subtree)] == subtree] for oid in oids}
        case.equal([oid for oid in oids if not groups[oid]], [], 'objects that should not be seen')
        case.equal({*SEEN} - {*itertools.chain(*groups.values())}, set(), 'groups that are missing')
        for word in (os.uname().nodename, os.uname().release, os.uname().machine, os.environ.get('USER', 'root')):
            case.equal([line for line in lines if word in line], [], f'objects with {word}')
        tries = sorted({*oids, *(oid[:-1] for oid in cards), *((*oid, 0) for oid in cards), BASE, (*BASE, 1), (*BASE, 8)})
        for part in (tries[at:at + 60] for at in range(0, len(tries), 60)):
            wanted = [next((each for each in oids if each > oid), None) for oid in part]
            lines = agent.ask('snmpgetnext', LOOK, *map(dotted, part)).splitlines()
            got = [None if 'No more variables' in line else name(line.split()[0]) for line in lines]
            case.equal(got, wanted, f'GETNEXT of {part}')


MON = '-a SHA-256 -A "monitor pass" -x AES -X monitorpriv'
NOTHING = (r'Timeout|authorizationError|[Uu]nknown user|Authentication failure|[Dd]ecryption error|'
           r'Unsupported security level|Error in packet')
WHO = {  # whether reading and setting a card are allowed
    LOOK: (True, False),
    CHANGE: (True, True),
    '-v2c -c Look': (False, False),
    '-v2c -c alarm': (False, False),  # that of notifications
    f'-v3 -l authPriv -u mon {MON}': (True, False),
    f'-v3 -l authNoPriv -u mon {MON}': (False, False),
    f'-v3 -l authPriv -u mon {MON.replace("pass", "past")}': (False, False),
    '-v3 -l authNoPriv -u half -a SHA -A halfauth123': (True, False),
    ADM: (True, True),
    ADM.replace('authPriv', 'authNoPriv'): (False, False),
}


def everyone_may_do_what_the_secrets_allow(case):
    target, flash, khz = dotted(instance(1, 'Frequency')), case.flash(), 400000
    path = os.path.join(flash, record_file(1))
    with Agent(case, flash, '--snmp-trap', '127.0.0.1:9', lines=(*LINES, 'trap-community alarm')) as agent:
        for who, (reads, writes) in WHO.items():
            khz += 8000
            before, flags = read(path), who + ('' if reads else QUICK)
            got = agent.ask('snmpget', flags, target)
            case.equal('INTEGER: ' in got, reads, f'{who} reads: {got}')
            case.check(reads or re.search(NOTHING, got), f'{who} reads: {got}')
            got = agent.ask('snmpset', flags, target, 'i', str(khz))
            case.equal('INTEGER: ' in got, writes, f'{who} sets: {got}')
            case.equal(read(path) != before, writes, f'{who} changes the record')
            if reads:
                got = agent.ask('snmpset', flags, SYS_NAME, 's', 'mine')
                case.check('noAccess' in got, f'{who} sets sysName: {got}')
                got = agent.ask('snmpwalk', flags, '1.3.6.1.6.3.15.1.2')
                case.check('No more variables' in got, f'{who} sees users: {got}')
        (system, boots), engine = agent.get(name(SYS_NAME), name(ENGINE_BOOTS)), agent.engine
        case.equal(system, 'headend', 'sysName')
    with Agent(case, flash, writes=False) as agent:
        case.equal([agent.engine, *agent.get(name(ENGINE_BOOTS))], [engine, boots + 1], 'engine after a restart')
        case.check('write-community is not used' in agent.text(), agent.text())
        case.check('Timeout' in agent.ask('snmpget', CHANGE + QUICK, SYS_NAME), 'the write community without its flag')


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


BAD = """
wrongValue  Frequency     Frequency i 51999
wrongValue  Level         Level i 1001
wrongValue  Constellation Constellation i 8
wrongType   Frequency     Frequency s 474000
wrongType   Frequency     Frequency u 474000
notWritable Ch2Frequency  Ch2Frequency i 482000
noCreation  Frequency.0   Frequency.0 i 474000
notWritable Ch2Level      Level i 1055 Ch2Level i 1055 Level i 1055
wrongType   Frequency     Level i 1055 Constellation i 7 Frequency s x
""".strip().splitlines()  # error, the object that it names, request


# The bytes that a program of Net-SNMP sends.
def request(program, *words):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sink:
        sink.bind(('127.0.0.1', 0))
        subprocess.run([program, *shlex.split(CHANGE + QUICK), f'127.0.0.1:{sink.getsockname()[1]}', *words],
                       capture_output=True, check=False)
        return sink.recv(65536)


def a_set_is_done_whole_or_refused_by_name(case):
    flash = case.flash()
    with Agent(case, flash, slots=(1, 3)) as agent:
        def state():
            return [(read(os.path.join(flash, record_file(slot))), agent.rf(slot)) for slot in (1, 3)]
        before, level = state(), dotted(instance(1, 'Level'))
        for row in BAD:
            numbers = re.sub(r'\b[A-Z]\w+', lambda stem: dotted(instance(1, stem[0])), row)
            error, failed, *words = numbers.split()
            said = agent.ask('snmpset', CHANGE, *words)
            case.check(re.search(rf'Reason: {error} [^$]*Failed object: \.{failed}\n', said), f'{row}: {said}')
        large = request('snmpset', dotted(instance(1, 'Frequency')), 'x', '0100073B90')  # 2^32 + 474000
        harness.Client(agent.snmp).socket.send(large.replace(b'\4\5\1\0', b'\2\5\1\0'))
        case.equal(agent.get(instance(1, 'Frequency')), [554000], 'frequency after an INTEGER of more than 32 bits')
        case.equal(state(), before, 'records and readouts after all of them')
        agent.ask('snmpset', CHANGE, level, 'i', '1055', dotted(instance(3, 'Constellation')), 'i', '7')
        case.equal((agent.rf(1)[0]['level_dbuv'], agent.rf(3)[0]['constellation']), (105.5, '256-QAM'), 'two good ones')


# While a manager goes on asking. What they set, no card takes.
def a_storm_of_damaged_requests_leaves_all_as_it_was(case):
    count, chance, flash = 10000 if harness.LONG else 1000, random.Random(8), case.flash()
    path = os.path.join(flash, record_file(1))
    values = {'Frequency': ('i', '5'), 'SoftwareVersion': ('s', 'x' * 449), 'Level': ('u', '0')}
    requests = [request(program, dotted(instance(1, stem)), *(value if program == 'snmpset' else (mib.DEFAULT,)))
                for program in ('snmpget', 'snmpgetnext', 'snmpbulkget', 'snmpset') for stem, value in values.items()]
    with Agent(case, flash) as agent:
        before, hostile = (agent.variables(1), read(path)), harness.Client(agent.snmp)
        for sent in range(count):
            hostile.socket.send(harness.damaged(chance, chance.choice(requests)))
            if sent % 50 == 0:
                case.equal(agent.get(name(SYS_NAME)), ['headend'], f'the manager after {sent} packets')
        case.equal((agent.variables(1), read(path)), before, 'the card after the storm')
        arrived, = agent.get(name('1.3.6.1.2.1.11.1.0'))  # snmpInPkts
        case.check(arrived > count, f'only {arrived} packets came in')


TRAPS = {  # received notifications: from which virtual second on. The second run finds its PID map in the flash
    ('Raised', '3', '1', '770', 'High Temperature', '温度过高'): 2,
    ('Cleared', '3', '1', '770', 'qam card 3 normal temperature', '调制卡3温度恢复正常'): 5,
    ('Raised', '1', '2', '771', 'QAM Card1 port2 rate overflow', '调制卡1端口2码率溢出'): 2,
    ('Cleared', '1', '2', '771', 'QAM Card1 port2 rate resume', '调制卡1端口2码率恢复'): 8,
}


def alarms_come_as_notifications(case):
    flash = case.flash()
    # Of two slots and both ports.
    causes = ('--fast', '--seconds', '12', '--card', '1', '--card', '3', '--set', '3.temperature2=70@2',
              '--set', '3.temperature2=69@5', *too_much(case, '1.2'), '--set', '1.symbolrate=6875@8')
    with Agent(case, flash) as agent:
        engine, environment = agent.engine, agent.tools.environment
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
        receiver = subprocess.Popen(command, env=environment, stdout=received, stderr=received)
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
        late = [int(second) - TRAPS.get(tuple(words), 0) for second, *words in found]
        case.check(0 <= min(late) and max(late) <= 3, f'{line}: {late} s late')


def a_card_that_hangs_or_is_not_configured_holds_up_no_other(case):
    flash = case.flash()
    with Agent(case, flash, '--fault', '1.sensor2-scl-low@2', slots=(1, 3)) as agent:
        first, third = dotted(instance(1, 'Frequency')), dotted(instance(3, 'Frequency'))
        agent.wait(lambda: agent.get(name(first)) != [554000])
        for program, *words in (('snmpget', first), ('snmpgetnext', first[:-2]),
                                ('snmpset', third, 'i', '474000', first, 'i', '474000')):
            said = agent.ask(program, CHANGE, *words)
            case.check('Reason: resourceUnavailable' in said, f'{program}: {said}')
        case.equal(agent.get(name(third)), [554000], 'another card')
        beyond = f'.{dotted(instance(3, "HardwareVersion"))} = '
        for start in (mib.DEFAULT, dotted(instance(1, 'Ch2SymbolRate'))):
            said = agent.ask('snmpgetnext', LOOK, start)
            case.check(said.startswith(beyond), f'the way past it from {start}: {said}')
        found = agent.ask('snmpbulkget', LOOK + ' -Cr15', mib.DEFAULT).splitlines()
        case.equal(len(found), 15, f'GETBULK past it: {found}')
        agent.stop(code=1)
    write(os.path.join(flash, harness.BITSTREAM), b'no bitstream')
    with Agent(case, flash, slots=()) as agent:
        agent.wait(lambda: 'config error' in case.qamctl(agent.address, 'status').text)
        answers = agent.get(*(instance(1, stem) for stem in SUFFIX))  # a walk also skips a card that hangs
        case.equal({each[:14] for each in answers}, {'No Such Object'}, 'rows of a card without configuration')
        agent.stop(code=1)


# Open and sending, with neither configuration nor MIB of the library's.
def the_agent_looks_for_no_files_of_this_machine(case):
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
