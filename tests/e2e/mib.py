#!/usr/bin/env python3
# The MIB module in the eyes of programs that others wrote: four compilers find no fault in it, and what it says of the
# cards' objects is what qamctl lets an operator set.
import json
import os
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import harness
from harness import write

MIBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'mibs')
FILE = 'QAM-HEADEND-MIB.txt'
DEFAULT = '1.3.6.1.4.1.8072.9999.9999.27'
BASES = (DEFAULT, '1.3.5.1.4.1.9999.1.2.3', '0.39.0.0.0.0.0.0.0.4294967295', '2.4294967215.6.1.4.1.1.2.3.4')
VARIABLES = {  # object of a slot: qamctl's name; those of channel 2 begin with Ch2, and its names end in 2
    'HardwareVersion': 'hardware_version', 'SoftwareVersion': 'software_version', 'FpgaVersion': 'fpga_version',
    'Constellation': 'qammode', 'Frequency': 'rfreq', 'Level': 'rflevel', 'RfSwitch': 'rfswitch',
    'PowerSwitch': 'power', 'SymbolRate': 'symbolrate'}
VARIABLES |= {'Ch2' + stem: name + '2' for stem, name in VARIABLES.items() if not stem.endswith('Version')}
SUFFIX = dict(zip(VARIABLES, [*((1, 19, 1, n) for n in range(1, 4)), *((2, 51, 1, n) for n in range(3, 9)),
                              *((3, 51, 1, n) for n in range(11, 17))]))  # of its OID, after the slot's component
STEPS = {'Level': ['0.5 dBuV'], 'Ch2Level': ['0.5 dBuV'], 'SymbolRate': ['125 kBd']}  # told in the description
ALARM = ['qamAlarm' + name for name in (
    'Slot', 'Port', 'Type', 'EnglishText', 'ChineseText', 'Number', 'Time', 'Severity', 'State', 'EnglishTitle',
    'EnglishContent', 'ChineseTitle', 'ChineseContent')]
NOTIFICATIONS = {'qamAlarmRaised': '0.1', 'qamAlarmCleared': '0.2'}


# The programs, with the module in a folder of its own, and deaf to what a user or an administrator configured.
class Tools:

    def __init__(self, case, base=DEFAULT):
        self.case, self.folder = case, case.path(base)
        self.file = os.path.join(self.folder, FILE)
        write(self.file, case.execute([case.args.qamctl, 'mib', '--base', base]).text.encode())
        write(case.path('.smirc'), b'level 0\nsmilint: level 0\n')
        paths = subprocess.run(['bash', '-euo', 'pipefail', '-c', '. "$0"; env -0', os.path.join(MIBS, 'paths.sh')],
                               capture_output=True, check=True).stdout.decode()
        self.environment = dict(line.split('=', 1) for line in paths.split('\0') if line)
        os.makedirs(case.path('persistent', 'cert_indexes'), exist_ok=True)  # prevents a message about its creation
        self.environment |= {name: f'{self.environment[name]}:{self.folder}' for name in ('MIBDIRS', 'SMIPATH')}
        self.environment |= {'HOME': case.folder, 'SNMPCONFPATH': case.folder,
                             'SNMP_PERSISTENT_DIR': case.path('persistent')}

    def run(self, *command, codes=(0,), **more):
        return self.case.execute(command, codes, env=self.environment | more).text

    # By Erlang, pysmi and Net-SNMP.
    def compile(self, case):
        standard, copy = self.environment['SMIPATH'].split(':')[1], case.path('erlang', 'QAM-HEADEND-MIB.mib')
        write(copy, harness.read(self.file))
        said = self.run('erlc', '-I', standard, '-o', os.path.dirname(copy), copy)
        case.equal(re.sub('.*No RowStatus column in table .*\n', '', said), '', 'erlc')  # its remark on any table
        self.run('mibdump', '--destination-format=null', '--no-mib-writes', '--mib-borrower=' + case.folder,
                 *(f'--mib-source=file://{folder}' for folder in (standard, self.folder)), 'QAM-HEADEND-MIB')
        said = self.run('snmptranslate', '-Pw', '-On', 'QAM-HEADEND-MIB::qamHeadendMIB')
        case.equal([line for line in said.splitlines() if FILE in line or 'QAM' in line], [], 'Net-SNMP')

    def module(self):
        return ElementTree.fromstring(self.run('smidump', '-c', '/dev/null', '-f', 'xml', self.file))


def other_programs_find_no_fault_below_any_base(case):
    for base in BASES:
        tools = Tools(case, base)
        said = tools.run('smilint', '-c', '/dev/null', '-l', '6', tools.file)  # its exit code says nothing
        case.equal(said, '', f'smilint of the module below {base}')
        if base == DEFAULT:
            tools.compile(case)
        case.check(max(map(len, harness.read(tools.file).splitlines())) <= 80, f'long lines below {base}')
        tree = tools.module()
        got = {node.get('name'): node.get('oid') for node in (*tree.iter('scalar'), *tree.iter('notification'))}
        wanted = {f'slot{slot}{stem}': '.'.join(map(str, (base, slot + 1, *suffix)))
                  for slot in range(1, 7) for stem, suffix in SUFFIX.items()}
        wanted |= {name: f'{base}.1.{number}' for number, name in enumerate(ALARM, 1)}
        wanted |= {name: f'{base}.{suffix}' for name, suffix in NOTIFICATIONS.items()}
        case.equal(sorted(got.items()), sorted(wanted.items()), f'names and OIDs below {base}')


def objects_are_described_as_qamctl_sets_them(case):
    tree = Tools(case).module()
    listed = case.execute([case.args.qamctl, 'var', 'list', '--json']).text
    variables = {each['name']: each for each in json.loads(listed)}
    conventions = {each.get('name'): sorted((int(label.get('number')), label.get('name'))
                                            for label in each.iter('namednumber')) for each in tree.find('typedefs')}
    scalars = {scalar.get('name'): scalar for scalar in tree.iter('scalar')}
    for stem, name in VARIABLES.items():
        variable, limits = variables[name], variables[VARIABLES[stem.removeprefix('Ch2')]]  # a reading has no limits
        writes, above = variable['writable'] or stem == 'Ch2PowerSwitch', 8000 if stem == 'Ch2Frequency' else 0
        for slot in range(1, 7):
            scalar = scalars[f'slot{slot}{stem}']
            described = ' '.join(scalar.findtext('description').split())
            case.equal(re.findall(r'in steps of (\S+ \w+)', described, re.I), STEPS.get(stem, []), f'steps of {stem}')
            case.equal(scalar.findtext('access'), 'readwrite' if writes else 'readonly', f'access of {stem}')
            if 'values' in variable:
                labels = conventions[scalar.find('syntax/type').get('name')]
                case.equal(labels, sorted((each['value'], re.sub(r'(\d+)-QAM', r'qam\1', each['name']))
                                          for each in variable['values']), f'values of {stem}')
            elif variable['kind'] != 'text':
                limit = scalar.find('.//range')
                case.equal((int(limit.get('min')), int(limit.get('max'))),
                           (limits['least'] + above, limits['most'] + above), f'limits of {stem}')
                case.equal(scalar.findtext('units'), variable['unit'].removeprefix('0.1 '), f'unit of {stem}')


harness.main(__name__)
