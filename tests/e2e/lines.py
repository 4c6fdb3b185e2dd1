"""What the tests of the trace share: reading the file, and sigrok-cli, which decodes its buses and knows nothing of
this card."""
import collections
import re

import harness

MS = 1_000_000
START, REPEATED, STOP, ACK, NACK = '[ [[ ] + -'.split()
# What the decoder says, and how it is written in expectations; after 'Write' and 'Read' comes the address.
I2C = {'Start': START, 'Start repeat': REPEATED, 'Stop': STOP, 'ACK': ACK, 'NACK': NACK, 'Write': None, 'Read': None}
Change = collections.namedtuple('Change', 'time slot name value')


def chosen(*patterns):
    return [word for pattern in patterns for word in ('--trace-lines', pattern)]


def changes(case, file, seconds=1):
    """Checks the form of the file on the way: known names, values that change, times that grow, the end last (of a run
    of so many seconds; None: of one that was stopped)."""
    names, values, time, found = {}, {}, None, []
    head, _, body = harness.read(file).decode('ascii').partition('$enddefinitions $end\n')
    case.check('$timescale 1 ns $end' in head and '$date' not in head, f'head: {head[:200]}')
    for scope, code, name in re.findall(r'^\$(?:scope module (\S+)|var wire \d+ (\S+) (\S+)) \$end$', head, re.M):
        if scope:
            slot = scope
            continue
        case.check(code not in names, f'{name} and {names.get(code)} are both {code}')
        names[code] = slot, name
    for line in body.splitlines():
        if line in ('$dumpvars', '$end'):
            continue
        if line[0] == '#':
            case.check(time is None or int(line[1:]) > time, f'{line} after {time}')
            time = int(line[1:])
            continue
        value, code = line[1:].split(' ') if line[0] == 'b' else (line[0], line[1:])
        name, value = names[code], int(value, 2)
        case.check(values.get(name) != value, f'{name} is {value} at {time} and was before')
        if name in values:
            found.append(Change(time, *name, value))
        else:
            case.equal((time, value), (0, 0), f'first value of {name}')
        values[name] = value
    case.equal(set(values), set(names.values()), 'registers with a value')
    if seconds is not None:
        case.equal(time, seconds * 1000 * MS, 'last time stamp')
    return found


def lines_only(file):
    """The same trace without 16-bit registers, at which the decoder would stop."""
    lines = file + '.lines'
    harness.write(lines, b''.join(line for line in harness.read(file).splitlines(True) if not line.startswith(b'b')))
    return lines


def decoded(case, file, decoder, channels, options, rows, show=None):
    """What sigrok-cli says, an annotation an entry; `show` names rows of a decoder on top of this one. Order is judged,
    not time: long pauses are shortened."""
    stack = ':'.join([decoder, *(f'{key}={value}' for key, value in (channels | options).items())])
    run = case.execute(['sigrok-cli', '-I', 'vcd:compress=1000', '-i', file, '-P', stack, '-A', show or f'{decoder}={rows}'])
    return [line.partition(': ')[2] for line in run.text.splitlines()]


def i2c(case, file, bus):
    """Transfers of a bus, each in one line."""
    words = []
    for text in decoded(case, file, 'i2c', {'scl': f'{bus}_scl', 'sda': f'{bus}_sda'}, {}, 'addr-data:warnings'):
        word = I2C[text] if text in I2C else re.sub(r'^(Address|Data) (write|read): ', '', text)
        if text.startswith('Address'):
            word += 'r' if 'read' in text else 'w'
        words += [word] if word else []
    return ' '.join(words).replace(f' {STOP} {START}', f' {STOP}\n{START}').split('\n')
