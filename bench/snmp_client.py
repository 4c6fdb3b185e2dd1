"""SNMPv2c: requests and answers byte for byte, in BER (ITU-T X.690) by RFC 3416. Names are
tuples of numbers; values are (tag, content)."""
import collections
import contextlib
import socket

GET, GETNEXT, RESPONSE = 0xA0, 0xA1, 0xA2
INTEGER, STRING, NULL, OID = 2, 4, 5, 6
Answer = collections.namedtuple('Answer', 'error bindings')


def ber(tag, content):
    size = len(content)
    head = bytes([size]) if size < 128 else bytes([0x82]) + size.to_bytes(2, 'big')
    return bytes([tag]) + head + content


def integer(value):
    size = (value if value >= 0 else ~value).bit_length() // 8 + 1
    return value.to_bytes(size, 'big', signed=True)


def name(text):
    return tuple(int(part) for part in text.strip('.').split('.'))


def name_bytes(oid):
    content = b''
    for part in (40 * oid[0] + oid[1], *oid[2:]):
        digits = [part & 0x7F]
        while part := part >> 7:
            digits.append(0x80 | part & 0x7F)
        content += bytes(reversed(digits))
    return content


def name_of(content):
    parts, value = [], 0
    for byte in content:
        value = value << 7 | byte & 0x7F
        if not byte & 0x80:
            parts.append(value)
            value = 0
    first = min(parts[0] // 40, 2)
    return (first, parts[0] - 40 * first, *parts[1:])


def items(data):
    """The (tag, content) that stand one behind the other; raises where they do not fit."""
    found = []
    while data:
        size, at = data[1], 2
        if size & 0x80:
            at += size & 0x7F
            size = int.from_bytes(data[2:at], 'big')
        if len(data) < at + size:
            raise ValueError(f'cut short: {data.hex()}')
        found.append((data[0], data[at:at + size]))
        data = data[at + size:]
    return found


def message(community, kind, bindings, number_=1, first=0, second=0, version=1):
    listed = b''.join(ber(0x30, ber(OID, name_bytes(oid)) + ber(*value)) for oid, value in bindings)
    pdu = b''.join(ber(INTEGER, integer(n)) for n in (number_, first, second)) + ber(0x30, listed)
    return ber(0x30, ber(INTEGER, integer(version)) + ber(STRING, community.encode()) + ber(kind, pdu))


def answer_of(raw, sequence):
    """What a response says; None when it is the response to another request."""
    (_, content), = items(raw)
    _, _, (kind, pdu) = items(content)
    number_, error, _, (_, listed) = items(pdu)
    if int.from_bytes(number_[1], 'big') != sequence or kind != RESPONSE:
        return None
    pairs = [items(pair) for _, pair in items(listed)]
    return Answer(int.from_bytes(error[1], 'big'), [(name_of(oid[1]), value) for oid, value in pairs])


def free_ports(count):
    """Of this machine, for UDP."""
    with contextlib.ExitStack() as stack:
        sockets = [stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) for _ in range(count)]
        for each in sockets:
            each.bind(('127.0.0.1', 0))
        return [each.getsockname()[1] for each in sockets]
