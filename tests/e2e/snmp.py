#!/usr/bin/env python3
# The SNMP agent as managers meet it: Net-SNMP's programs, with names of our MIB or with numbers, and damaged requests.
# With QAM_LONG in the environment the storm of these has 10,000 packets, not 1000.
import itertools
import json
import os
import random
import re
import select
import shlex
import shutil
import socket
import subprocess
import sys
import time

import harness
import mib
from alarms import lost
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
        # A sensor has rows after the card's first status check. From then on no row comes or goes.
        sensors = [(*BASE, 11, 3, 1, 2, slot, 2) for slot in range(1, 7)]
        agent.wait(lambda: agent.get(*sensors) == [25] * 6)
        lines = agent.ask('snmpwalk', LOOK, '1.3').splitlines()
        case.check('No more variables' in lines.pop(), f'the walk ends early: {lines[-1]}')
        oids = [name(line.split()[0]) for line in lines]
        case.equal(oids, sorted(set(oids)), 'order of the walk')
        cards = [instance(slot, stem) for slot in range(1, 7) for stem in SUFFIX]
        case.equal([oid for oid in oids if BASE < oid < (*BASE, 8)], cards, 'objects of the cards')
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


TABLES = {  # columns and values
    'Standing': 'Slot.1 3 Channel.1 0 Type.1 770 Severity.1 major Slot.2 1 Channel.2 1 Type.2 769 Severity.2 critical '
                'EnglishTitle.2 Card1 EnglishContent.2 Ch.1_Error ChineseTitle.2 卡1 ChineseContent.2 频点一错误 '
                'EnglishText.2 No_Input ChineseText.2 无输入',
    'Card': 'State.1 running State.3 running',
    'Sensor': 'Temperature.1.1 -5_degrees_Celsius Temperature.1.2 25_degrees_Celsius Temperature.3.2 70_degrees_Celsius',
    'Channel': 'Input.1.1 lost Input.1.2 present Input.3.2 present InputRate.1.1 0_bit/s'}


def the_chassis_is_walked_by_name(case):
    causes = (*lost(case, '1.1', '5'), '--set', '3.temperature2=70@1', '--set', '1.temperature1=-5@1')
    with Agent(case, case.flash(), *causes, slots=(1, 3)) as agent:
        agent.wait(lambda: agent.get((*BASE, 11, 1, 1, 2, 2)) == [1])
        time.sleep(1.2)  # for a whole second without input
        said = agent.ask('snmpwalk', '-v2c -c look -Oqs', 'qamChassis', MIBS=agent.tools.environment['MIBS'])
        got = dict(re.findall(r'qam(\S+) (.*)', said))
        for table, columns in TABLES.items():
            for column, value in zip(columns.split()[::2], columns.split()[1::2]):
                case.equal(got.get(table + column), value.replace('_', ' '), table + column)
        case.check(got['ChannelNullRate.3.1'] == got['ChannelTotalRate.3.1'] > '37', f'rates in {got}')
        ages = [value for column, value in got.items() if 'Age' in column]
        case.check(len(ages) == 12 and all(re.match('0:0:00:0[01]', age) for age in ages), f'ages {ages}')
        case.check(re.match('20..-', got['StandingSince.1']), got['StandingSince.1'])


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


# The same SET with lengths in the long form, and with another request-id.
def long_lengths(message, request_id=None):
    out = b''
    while message:
        tag, end = message[0], 2 + message[1]
        content, message = message[2:end], message[end:]
        if tag == 0xA3 and request_id:
            content = bytes((2, len(request_id))) + request_id + content[2 + content[1]:]
        content = long_lengths(content, request_id) if tag & 0x20 else content
        out += bytes((tag, 0x83)) + len(content).to_bytes(3, 'big') + content
    return out


# The error status of a reply, which follows the request-id.
def error_of(reply):
    at = reply.index(b'change') + 8
    return reply[at + 4 + reply[at + 1]]


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
        link, errors = harness.Client(agent.snmp).socket, name('1.3.6.1.2.1.11.6.0')  # snmpInASNParseErrs
        for stem in ('Frequency', 'Ch2PowerSwitch'):  # 2^32 + 474000, in a value that Net-SNMP sends as a text
            large = request('snmpset', dotted(instance(1, stem)), 'x', '0100073B90').replace(b'\4\5\1\0', b'\2\5\1\0')
            link.send(large)
            case.equal(error_of(link.recv(65536)), 8, f'wrongLength of {stem}')
            link.send(long_lengths(large, request_id=b'\1\0\7\x3B\x90'))
        case.equal(agent.get(errors), [2], 'requests whose request-id has more than 32 bits')
        case.equal(state(), before, 'records and readouts after all of them')
        link.send(long_lengths(request('snmpset', level, 'i', '1000')))
        case.equal(error_of(link.recv(65536)), 0, 'a request with lengths in the long form')
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


# State, slot, channel, type, number, severity and texts of a notification: from which virtual second on it is received.
HEAT = 'QAM Card3 High Temperature', '调制卡3 温度过高'
NOTES = {
    ('raised', '3', '0', '770', '1', 'major', 'High Temperature', '温度过高', *HEAT): 2,
    ('cleared', '3', '0', '770', '1', 'major', 'qam card 3 normal temperature', '调制卡3温度恢复正常', *HEAT): 5,
    **{(state, '1', channel, '769', number, 'critical', english, chinese, f'Card1 Ch.{channel} Error', f'卡1 频点{digit}错误'):
       at for channel, number, digit in (('1', '3', '一'), ('2', '4', '二')) for state, english, chinese, at in (
           ('raised', 'No Input', '无输入', 6),
           ('cleared', f'qam card 1 ch.{channel} input OK!', f'QAM卡1频点{digit}输入恢复正常', 9))}}
TRAPS, PRIVATE = 'authCommunity log alarm\n', 'adm SHA-512 adminauth123 AES-256 adminpriv123\nauthUser log adm priv\n'
RECEIVERS = (  # a line of the secrets, the receiver's configuration, flags
    ('trap-community alarm', TRAPS), ('trap-community alarm', TRAPS, '--snmp-inform'),
    ('trap-user adm', 'createUser -e {} ' + PRIVATE), ('trap-user adm', 'createUser ' + PRIVATE, '--snmp-inform'),
    ('trap-user half', 'createUser -e {} half SHA halfauth123\nauthUser log half\n'))


# Each is received once, on time, and an end has the number of its alarm.
def alarms_come_as_notifications(case):
    flash = case.flash()
    causes = ('--card', '1', '--card', '3', '--set', '3.temperature2=70@2', '--set', '3.temperature2=69@5',
              *lost(case, '1.1', '6..9'), '--programme', '1.2=6.1:One')
    with Agent(case, flash) as agent:
        engine, environment = agent.engine, agent.tools.environment
    for line, configuration, *flags in RECEIVERS:
        shutil.rmtree(os.path.join(flash, 'alarms'), ignore_errors=True)
        port, = harness.free_ports(1)
        write(case.path('trapd.conf'), configuration.format(engine).encode())
        received = open(case.path('received'), 'wb')
        command = ['snmptrapd', '-f', '-Lo', '-C', '-c', case.path('trapd.conf'), '-Oqs', '-F', '%v\n',
                   f'127.0.0.1:{port}']
        receiver = subprocess.Popen(command, env=environment, stdout=received, stderr=received)
        try:
            poll(lambda: f':{port:04X} ' in read('/proc/net/udp').decode())
            pace = ('--manage', 'off') if flags else ('--fast',)  # an answer takes wall time
            case.headend('--flash', flash, *pace, '--epoch', '2000-01-01', '--seconds', '12', *causes,
                         '--snmp-trap', f'127.0.0.1:{port}', '--snmp-secrets', secrets(case, *LINES, line), *flags)
            poll(lambda: read(case.path('received')).decode().count('ChineseContent') >= len(NOTES))
        finally:
            receiver.terminate()
            receiver.wait()
            received.close()
        got, late = read(case.path('received')).decode(), []
        case.equal(got.count('snmpTrapOID.0 coldStart\n'), 1, f'{line} {flags}: coldStart')
        found = re.findall(r'sysUpTime.0 0:0:00:(\d+)\.\d+\tsnmpTrapOID.0 qamAlarm(?:Rais|Clear)ed\t(.*)', got)
        for second, note in found:
            of = dict(re.findall(r'qamAlarm(\w+)\.0 ([^\t]+)', note))
            words = (*(of[field] for field in ('State', 'Slot', 'Port', 'Type', 'Number', 'Severity', 'EnglishText', 'ChineseText')),
                     *(of[language + 'Title'] + ' ' + of[language + 'Content'] for language in ('English', 'Chinese')))
            late.append(int(second) - NOTES.get(words, 99))
            case.equal(of['Time'], f'2000-1-1,0:0:{int(second)}.0,+0:0', f'{line}: {words}')
        case.equal(len(found), len(NOTES), f'{line} {flags}: {got[-900:]!r}')
        case.check(min(late) >= 0 and max(late) <= 3, f'{line} {flags}: {late} s late in {got}')


def a_silent_receiver_delays_nothing_and_failures_of_authentication_are_told(case):
    flash, community, failure = case.flash(), (*LINES, 'trap-community alarm'), bytes.fromhex('06092b0601060301010505')
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sink:
        sink.bind(('127.0.0.1', 0))
        sink.settimeout(harness.RETRY_SECONDS)
        to = ('--snmp-trap', f'127.0.0.1:{sink.getsockname()[1]}')
        with Agent(case, flash, *to, '--snmp-inform', lines=community) as agent:
            case.equal(sink.recv(65536), sink.recv(65536), 'an INFORM that is sent again')
            case.equal(agent.get(name(SYS_NAME)), ['headend'], 'the agent meanwhile')
        heat = [word for at in range(1, 141) for word in ('--set', f'1.temperature2={69 + at % 2}@{at}')]
        run = case.headend('--flash', flash, '--fast', '--seconds', '142', *heat, *to, '--snmp-inform',
                           '--snmp-secrets', secrets(case, *community))
        case.says(run, r'the oldest is dropped \(32 so far\)')
        with Agent(case, flash, *to, lines=community) as agent:
            began = time.monotonic()
            for who in ('-v2c -c wrong', '-v2c -c wrong', ADM.replace('auth123', 'auth124')):
                agent.ask('snmpget', who + ' -r 12 -t 0.1', SYS_NAME)  # for more than a second
            lasted, got = time.monotonic() - began, []
            while not got or select.select([sink], [], [], 0.2)[0]:
                got.append(sink.recv(65536))
            found = sum(failure in each for each in got)
            case.check(3 <= found <= lasted + 1, f'{found} failures of authentication in {lasted} s')


def a_card_that_hangs_or_is_not_configured_holds_up_no_other(case):
    flash = case.flash()
    with Agent(case, flash, '--fault', '1.sensor2-scl-low@2', slots=(1, 3)) as agent:
        first, third = dotted(instance(1, 'Frequency')), dotted(instance(3, 'Frequency'))
        agent.wait(lambda: agent.get(name(first)) != [554000])
        for program, *words in (('snmpget', first), ('snmpgetnext', first[:-2]),
                                ('snmpset', third, 'i', '474000', first, 'i', '474000')):
            said = agent.ask(program, CHANGE, *words)
            case.check('Reason: resourceUnavailable' in said, f'{program}: {said}')
        case.equal(agent.get(name(third), (*BASE, 11, 2, 1, 2, 1)), [554000, 5], 'another card, and the state of this one')
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
