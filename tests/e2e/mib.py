#!/usr/bin/env python3
"""The MIB module as other programs read it: libsmi finds no fault in it, and finds the objects that a card has. (snmp.py
has Net-SNMP use their names.)"""
import os
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import harness
from harness import read, write

MIBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'mibs')
MODULE = 'QAM-HEADEND-MIB'
FILE = MODULE + '.txt'
DEFAULT = '1.3.6.1.4.1.8072.9999.9999.27'
BASES = (DEFAULT, '1.3.6.1.4.1.8072.9999.9999.2147483647', '1.3.5.1.4.1.9999.1.2.3', '2.999.1.2.3.4.5.6.7.8')

RO, RW, NOTIFY = 'readonly', 'readwrite', 'notifyonly'
VERSION = ('DisplayString', (0, 15), None)
CONSTELLATION = ('QamConstellation', None, None)
FREQUENCY = ('Integer32', (52000, 1000000), 'kHz')
FREQUENCY_2 = ('Integer32', (60000, 1008000), 'kHz')
LEVEL = ('QamTenthDBuV', (950, 1150), 'dBuV')
RF = ('QamRfSwitch', None, None)
POWER = ('QamPowerSwitch', None, None)
RATE = ('Integer32', (5000, 7000), 'kBd')
ROWS = (
    ('HardwareVersion', '1.19.1.1', RO, *VERSION),
    ('SoftwareVersion', '1.19.1.2', RO, *VERSION),
    ('FpgaVersion', '1.19.1.3', RO, *VERSION),
    ('Constellation', '2.51.1.3', RW, *CONSTELLATION),
    ('Frequency', '2.51.1.4', RW, *FREQUENCY),
    ('Level', '2.51.1.5', RW, *LEVEL),
    ('RfSwitch', '2.51.1.6', RW, *RF),
    ('PowerSwitch', '2.51.1.7', RW, *POWER),
    ('SymbolRate', '2.51.1.8', RW, *RATE),
    ('Ch2Constellation', '3.51.1.11', RO, *CONSTELLATION),
    ('Ch2Frequency', '3.51.1.12', RO, *FREQUENCY_2),
    ('Ch2Level', '3.51.1.13', RO, *LEVEL),
    ('Ch2RfSwitch', '3.51.1.14', RO, *RF),
    ('Ch2PowerSwitch', '3.51.1.15', RW, *POWER),
    ('Ch2SymbolRate', '3.51.1.16', RO, *RATE),
)
ALARM_ROWS = (
    ('qamAlarmSlot', '1.1', NOTIFY, 'Integer32', (1, 6), None),
    ('qamAlarmPort', '1.2', NOTIFY, 'Integer32', (1, 2), None),
    ('qamAlarmType', '1.3', NOTIFY, 'Unsigned32', (0, 65535), None),
    ('qamAlarmEnglishText', '1.4', NOTIFY, 'SnmpAdminString', (0, 255), None),
    ('qamAlarmChineseText', '1.5', NOTIFY, 'SnmpAdminString', (0, 255), None),
)
CONVENTIONS = {
    'QamConstellation': ('Enumeration', None, {'qam64': '5', 'qam128': '6', 'qam256': '7'}),
    'QamRfSwitch': ('Enumeration', None, {'on': '0', 'off': '1'}),
    'QamPowerSwitch': ('Enumeration', None, {'off': '0', 'on': '15'}),
    'QamTenthDBuV': ('Integer32', 'd-1', {}),
}
NOTIFICATIONS = {'qamAlarmRaised': '0.1', 'qamAlarmCleared': '0.2'}


def objects(base):
    """name: (OID, access, type, range, units) of all that a module must have."""
    rows = [(f'slot{slot}{stem}', f'{slot + 1}.{suffix}', *rest)
            for slot in range(1, 7) for stem, suffix, *rest in ROWS]
    return {name: (f'{base}.{suffix}', *rest) for name, suffix, *rest in (*rows, *ALARM_ROWS)}


class Tools:
    """The programs, with the module in a folder of its own; they read no configuration of a user or an administrator."""

    def __init__(self, case, base):
        self.case, self.folder = case, case.path(base)
        write(os.path.join(self.folder, FILE), case.execute([case.args.qamctl, 'mib', '--base', base]).text.encode())
        write(case.path('.smirc'), b'level 0\nsmilint: level 0\n')
        paths = subprocess.run(['bash', '-euo', 'pipefail', '-c', '. "$0"; env -0', os.path.join(MIBS, 'paths.sh')],
                               capture_output=True, check=True).stdout.decode()
        self.environment = dict(line.split('=', 1) for line in paths.split('\0') if line)
        self.environment |= {'HOME': case.folder, 'SNMPCONFPATH': case.folder,
                             'SNMP_PERSISTENT_DIR': case.path('persistent')}

    def run(self, *command, codes=(0,)):
        return self.case.execute(command, codes, env=self.environment).text

    def lint(self, path=None):
        """smilint's exit code says nothing."""
        return self.run('smilint', '-c', '/dev/null', '-l', '6', path or os.path.join(self.folder, FILE))


def lint(case):
    for base in BASES:
        case.equal(Tools(case, base).lint(), '', f'smilint of the module below {base}')
    case.equal(Tools(case, DEFAULT).lint(os.path.join(MIBS, FILE)), '', f'smilint of {FILE}')


def described(scalar):
    """The type is the convention's name where there is one."""
    syntax = scalar.find('syntax')
    kind, derived, limits = syntax.find('type'), syntax.find('typedef'), syntax.find('typedef/range')
    if derived is not None:
        parent = derived.find('parent')
        name = derived.get('basetype') if parent is None else parent.get('name')
    else:
        name = kind.get('name')
    return (scalar.get('oid'), scalar.findtext('access'), name,
            None if limits is None else (int(limits.get('min')), int(limits.get('max'))), scalar.findtext('units'))


def read_objects(case):
    for base in BASES:
        tools = Tools(case, base)
        tree = ElementTree.fromstring(tools.run('smidump', '-c', '/dev/null', '-f', 'xml',
                                                os.path.join(tools.folder, FILE)))
        got, wanted = {each.get('name'): described(each) for each in tree.iter('scalar')}, objects(base)
        case.equal(sorted(got), sorted(wanted), f'objects below {base}')
        for name in wanted:
            case.equal(got.get(name), wanted[name], f'{name} below {base}')
        conventions = {each.get('name'): (each.get('basetype'), each.findtext('format'),
                                          {label.get('name'): label.get('number') for label in each.iter('namednumber')})
                       for each in tree.find('typedefs')}
        case.equal(conventions, CONVENTIONS, f'textual conventions below {base}')
        notifications = {each.get('name'): (each.get('oid'), [part.get('name') for part in each.iter('object')])
                         for each in tree.iter('notification')}
        case.equal(notifications, {name: (f'{base}.{suffix}', [row[0] for row in ALARM_ROWS])
                                   for name, suffix in NOTIFICATIONS.items()}, f'notifications below {base}')


CASES = {'smilint-finds-no-fault': lint, 'it-has-the-objects-of-a-card': read_objects}

if __name__ == '__main__':
    harness.main(CASES)
