"""An SNMPv2c client of the tests' own: requests and answers byte for byte, in BER (ITU-T X.690) by RFC 3416. Names are
tuples of numbers; values are (tag, content)."""
import collections
import socket

GET, GETNEXT, RESPONSE, SET, GETBULK = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5
INTEGER, STRING, NULL, OID, COUNTER = 2, 4, 5, 6, 0x41
NO_SUCH_OBJECT, END_OF_VIEW = (0x80, b''), (0x82, b'')
ERRORS = {0: 'noError', 7: 'wrongType', 10: 'wrongValue', 11: 'noCreation', 13: 'resourceUnavailable', 17: 'notWritable'}
Answer = collections.namedtuple('Answer', 'error index bindings')


def ber(tag, content):
    size = len(content)
    head = bytes([size]) if size < 128 else bytes([0x82]) + size.to_bytes(2, 'big')
    return bytes([tag]) + head + content


def integer(value):
    size = (value if value >= 0 else ~value).bit_length() // 8 + 1
    return value.to_bytes(size, 'big', signed=True)


def number(value):
    return INTEGER, integer(value)


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
    number_, error, index, (_, listed) = items(pdu)
    if int.from_bytes(number_[1], 'big') != sequence or kind != RESPONSE:
        return None
    pairs = [items(pair) for _, pair in items(listed)]
    status = int.from_bytes(error[1], 'big')
    return Answer(ERRORS.get(status, status), int.from_bytes(index[1], 'big'),
                  [(name_of(oid[1]), value) for oid, value in pairs])


class Client:
    def __init__(self, port, community='look', patience=2, tries=10):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(('127.0.0.1', port))
        self.socket.settimeout(patience)
        self.community, self.tries, self.sequence = community, tries, 0

    def ask(self, kind, bindings, first=0, second=0, version=1):
        """The answer, or None when there is none."""
        self.sequence += 1
        raw = message(self.community, kind, bindings, self.sequence, first, second, version)
        for _ in range(self.tries):
            self.socket.send(raw)
            try:
                while True:
                    answer = answer_of(self.socket.recv(65536), self.sequence)
                    if answer is not None:
                        return answer
            except (TimeoutError, ConnectionRefusedError):
                pass
        return None

    def get(self, *oids):
        return self.ask(GET, [(oid, (NULL, b'')) for oid in oids])

    def value(self, oid):
        """A number or a text; or the tag of what is none."""
        answer = self.get(oid)
        tag, content = answer.bindings[0][1]
        if answer.error != 'noError':
            return answer.error
        return int.from_bytes(content, 'big', signed=True) if tag == INTEGER else content.decode() if content else tag

    def next(self, oid):
        return self.ask(GETNEXT, [(oid, (NULL, b''))])

    def bulk(self, oid, repetitions):
        return self.ask(GETBULK, [(oid, (NULL, b''))], 0, repetitions)

    def set(self, *bindings):
        return self.ask(SET, bindings)

    def walk(self, oid=(1, 3)):
        found = []
        while True:
            answer = self.next(oid)
            (got, value), = answer.bindings
            if value == END_OF_VIEW:
                return found
            if answer.error != 'noError' or got <= oid:
                raise ValueError(f'a walk comes no further than {oid}: {answer}')
            oid = got
            found.append((oid, value))
