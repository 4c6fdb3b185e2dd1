#!/usr/bin/env python3
# The web page's service: what it gives is what qamctl says, to whom it gives nothing, and that no client of it harms
# another.
import base64
import concurrent.futures
import contextlib
import hashlib
import http.client
import itertools
import json
import os
import random
import re
import socket
import subprocess

import harness
from harness import Server, poll, read

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGE = os.path.join(ROOT, 'tools', 'web', 'page')
MARKUP = '<b a="1">'
VIEWERS = 32


# A headend with its page, and the page's port.
@contextlib.contextmanager
def page(case, *args):
    with Server(case, case.flash(f'flash{case.runs}'), '--web', '127.0.0.1:0', *args) as server:
        found = server.wait(lambda: re.search(r'web page on http://127\.0\.0\.1:(\d+)/', server.text()))
        server.wait_started()
        yield server, int(found[1])


# Status, headers and body of one request.
def ask(port, path, method='GET', body=None, **headers):
    connection = http.client.HTTPConnection('127.0.0.1', port, timeout=harness.HANG_SECONDS)
    with contextlib.closing(connection):
        connection.request(method, path, body, {name.replace('_', '-'): value for name, value in headers.items()})
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read().decode()


# The states that an open stream gives, one after the other.
def states(port):
    connection = http.client.HTTPConnection('127.0.0.1', port, timeout=harness.HANG_SECONDS)
    connection.request('GET', '/api/1/events')
    answer = connection.getresponse()
    while answer.status == 200:
        line = answer.readline()
        if line.startswith(b'data: '):
            yield json.loads(line[6:])
    yield answer.status


# The first of the next states that fulfils the condition.
def await_state(view, condition):
    return next(each for each in itertools.islice(view, 300) if condition(each))


# The JSON that a command of qamctl prints: of alarms it is an object a line.
def printed(case, server, command):
    calibration = re.search('calibration on ([0-9.:]+)', server.text())
    text = case.qamctl(calibration[1] if command.startswith('cal ') else server.address, *command.split()).text
    return {'events': [json.loads(line) for line in text.splitlines()]} if command.startswith('alarms') else json.loads(text)


# Without what changes all the time: of groups the intervals, of PIDs those in the tables and their uses.
def steady(answer):
    if 'now_tick' in answer:
        return answer['channel'], [(row['table'], row['set_ticks'], {g['interval_ticks'] for g in row['groups'][1:]}) for row in answer['tables']]
    if 'counted_ms' in answer:
        return answer['kind'], [(row['pid'], row['pcr'], row['uses']) for row in answer['pids'] if row['uses'] and row['packets'] > 50]
    return answer


def the_page_and_its_numbers_are_those_of_qamctl(case):
    with page(case, '--source', f'6={case.sample("two-programmes.ts")}', '--programme', '1.1=6.1:1',
              '--calibration', '127.0.0.1:0', '--psi', f'1.2={case.sample("psi-small.ts")}') as (server, port):
        for path, files in (('/', ['page.html']), ('/page.css', ['page.css']), ('/page.js', ['texts.js', 'frame.js'])):
            status, headers, body = ask(port, path)
            case.equal((status, [name for name in files if read(os.path.join(PAGE, name)).decode() not in body]), (200, []), path)
            case.check("default-src 'none'; script-src 'self';" in headers['Content-Security-Policy'], path)
        server.wait(lambda: re.search('programme add .* done', server.text()))
        # Each path that the guide's table names, beside the command that it names.
        guide = read(os.path.join(ROOT, 'docs', 'web.md')).decode()
        rows = re.findall(r'^\| `/api/N/([^`]+)` \| `qamctl ([^`]+)`', guide, re.MULTILINE)
        for path, command in rows:
            path, command = (text.replace('CHANNEL', '1.1').replace('SLOT', '1').replace('PLACE', '6.1') for text in (path, command))
            case.check(poll(lambda: steady(json.loads(ask(port, '/api/1/' + path)[2])) == steady(printed(case, server, command))), path)
        case.equal(len(rows), 12, 'rows of the guide')
        case.qamctl(server.address, 'var', 'set', '1', 'rfreq', '666000')
        view = states(port)
        await_state(view, lambda it: it['status']['cards'][0]['channels'][0]['rf']['frequency_khz'] == 666e3)
        lcd = (case.args.qamctl, '--server', server.address, 'lcd', '--json')
        await_state(view, lambda it: it['lcd'] == case.findings(*lcd))
        case.check('headend_frequency_khz{headend="headend",slot="1",channel="2"} 674000.0'
                   in ask(port, '/metrics')[2], 'no carrier in the metrics')
        rates = lambda: json.loads(ask(port, '/api/1/history')[2])['channels'].get('1.2', {'psi': []})
        case.check(poll(lambda: any(rates()['psi'])), 'no rates of PSI')
        for path, wanted in (('/api/2/state', 404), ('/api/1/psi/7.1', 404), ('/api/1/psi/2.1', 409), ('/x', 404)):
            case.equal(ask(port, path)[0], wanted, path)


def nobody_else_reads_or_writes_and_no_client_harms_another(case):
    with page(case, '--web-write', '--web-token-file', case.path('token')) as (_, port):
        for wanted, method, headers in ((403, 'GET', {'Host': 'rebound.example'}), (200, 'GET', {'Host': 'LOCALHOST:8080'}),
                                        (403, 'GET', {'Origin': 'http://foreign.example'}), (200, 'GET', {'Host': '[::1]:80'}),
                                        (403, 'GET', {'Sec_Fetch_Site': 'cross-site'}), (405, 'POST', {}), (405, 'DELETE', {}),
                                        (200, 'GET', {'Origin': f'http://127.0.0.1:{port}'})):
            for path in ('/', '/api/1/history', '/metrics'):
                case.equal(ask(port, path, method, **headers)[0], wanted, f'{method} {path} {headers}')
        viewers = [states(port) for _ in range(VIEWERS + 1)]
        case.equal([type(next(each)) for each in viewers], [dict] * VIEWERS + [int], f'{VIEWERS} viewers')
        slow, chance = [], random.Random(7)
        storm = [b'GET /api/1/state HTTP/1.1\r\nHost: localhost\r\n\r\n', b'GET / HTTP/9.9\r\n', b'',
                 *(b'POST /api/%s HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n%s\r\n\r\n' % each for each in itertools.product(
                     (b'session', b'1/do', b'1/upload?word=psi&word=load&word=1.1&word=@'),
                     (b'Content-Length: 100', b'Content-Length: -1', b'Transfer-Encoding: chunked\r\n\r\nfff', b'Content-Encoding: gzip\r\nContent-Length: 50')))]

        def send(number):
            each = socket.create_connection(('127.0.0.1', port))
            each.sendall(chance.choice(storm) + chance.randbytes(chance.randrange(200)))
            slow.append(each) if number < 8 else each.close()
        with concurrent.futures.ThreadPoolExecutor(32) as pool:  # the queue of those that connect is short
            list(pool.map(send, range(10_000 if harness.LONG else 100)))
        began = viewers[0].send(None)['sequence']
        case.check(all(next(each)['sequence'] >= began for each in viewers[:VIEWERS]), 'a viewer gets no more')
        case.equal(ask(port, '/')[0], 200, 'after the storm')


# The frequency is changed by the last request of each row, or not. A request: status, path, words or body, headers.
def who_knows_the_token_changes_something_and_nobody_else(case):
    file, setting = case.path('token'), ['var', 'set', '1', 'rfreq']
    with page(case, '--web-write', '--web-token-file', file) as (server, port):
        token, origin = read(file).decode().strip(), f'http://127.0.0.1:{port}'
        case.equal((len(token), os.stat(file).st_mode & 0o777, token in server.text()), (32, 0o600, False), 'token')
        bearer, wrong = {'Authorization': f'Bearer {token}'}, {'Authorization': f'Bearer {token[:-1]}'}
        send = lambda body, path='1/do', method='POST', **headers: ask(  # noqa: E731
            port, '/api/' + path, method, body if isinstance(body, str) else json.dumps(body), **{'Content_Type': 'application/json', **headers})
        before = {'path': 'settings/1', 'value': json.loads(ask(port, '/api/1/settings/1')[2])}
        status, headers, _ = send({'token': token}, 'session', Origin=origin)
        cookie = headers['Set-Cookie']
        case.equal((status, re.sub('=[0-9a-f]{32};|_[0-9a-f]{16}', '', cookie)), (200, 'qamweb Path=/; HttpOnly; SameSite=Strict'), 'cookie')
        inside = {'Cookie': 'a=b; ' + cookie.split(';')[0], 'Origin': origin}
        order = lambda number, **more: {'words': [*setting, str(number)], **more}  # noqa: E731
        deep = '{"token":' + '[' * 300_000 + ']' * 300_000 + '}'
        for wanted, frequency, body, request in (
                (401, None, order(601000), {}), (403, None, order(601000), wrong), (401, None, order(601000), {'Cookie': cookie.split('=')[0] + '=' + token}),
                (403, None, order(601000), {**inside, 'Origin': 'http://foreign.example'}), (403, None, order(601000), {'Cookie': inside['Cookie']}),
                (403, None, order(601000), {**bearer, 'Host': 'rebound.example'}), (415, None, order(601000), {**inside, 'Content_Type': 'text/plain'}),
                (400, None, order(4), inside), (400, None, {'words': ['psi', 'show', '1.1', '--save', case.path('x')]}, inside),
                (400, None, {'words': ['psi', 'load', '1.1', case.sample('psi-small.ts')]}, inside), (400, None, {'words': ['key', '--help']}, inside),
                (413, None, ' ' * 1_100_000, inside), (400, None, deep, inside), (400, None, deep, {'path': 'session'}), (400, None, '', inside),
                (409, None, {'words': ['var', 'set', '2', 'rfreq', '601000']}, inside), (404, None, order(601000), {**bearer, 'path': '2/do'}),
                (405, None, order(601000), {**inside, 'path': '1/state'}), (405, None, 'x', {'path': 'session', 'method': 'DELETE'}),
                (200, 601, order(601000), bearer), (200, 602, order(602000), inside), (409, None, order(603000, expect=before), inside),
                (200, 554, order(554000), inside), (200, 604, order(604000, expect=before), inside),
                (403, None, {'token': 'x'}, {'path': 'session'})):
            old = case.findings(case.args.qamctl, '--server', server.address, 'var', 'get', '1', 'rfreq', '--json')[0]['value']
            answer = send(body, **request)
            case.equal(answer[0], wanted, f'{str(body)[:60]} {request} {answer[2]}')
            now = case.findings(case.args.qamctl, '--server', server.address, 'var', 'get', '1', 'rfreq', '--json')[0]['value']
            case.equal(now, frequency * 1000 if frequency else old, f'frequency after {str(body)[:60]} {request}')
        case.check('127.0.0.1, session 1: headend: var set 1 rfreq 604000: done' in server.text(), server.text())
        for _ in range(8):  # two were wrong before
            case.equal(send({'token': token[::-1]}, 'session')[0], 403, 'a wrong token')
        case.equal([send(order(605000), **each)[0] for each in (wrong, bearer, inside)], [429, 429, 200], 'after ten wrong tokens')
        case.equal(send('', 'session', 'DELETE', **{**inside, 'Content_Length': '0'})[0], 405, 'a body')
        case.equal(ask(port, '/api/session', 'DELETE', **inside)[0], 200, 'log out')
        case.equal(send(order(606000), **inside)[0], 401, 'after it')
    case.check(not os.path.exists(file), 'the token is left')
    with page(case) as (server, port):
        case.equal(ask(port, '/api/1/do', 'POST', '{}', Authorization='Bearer ')[0], 403, 'without --web-write')


def an_upload_is_whole_or_changes_nothing(case):
    file, folder = case.path('token'), case.path('uploads')
    os.mkdir(folder)
    os.environ['TMPDIR'] = folder
    with page(case, '--web-write', '--web-token-file', file, '--psi', f'1.1={case.sample("psi-small.ts")}') as (server, port):
        bearer, path = {'Authorization': 'Bearer ' + read(file).decode().strip()}, '/api/1/upload?word=psi&word=load&word=1.1&word=@'
        good, tables = read(case.sample('two-programmes.ts')), lambda: case.findings(case.args.qamctl, '--server', server.address, 'psi', 'show', '1.1', '--json')
        poll(lambda: tables()['tables'])
        before, kept = tables(), json.loads(ask(port, '/api/1/backup/1.1')[2])

        def begin(length, to=path):
            connection = http.client.HTTPConnection('127.0.0.1', port, timeout=harness.HANG_SECONDS)
            connection.putrequest('POST', to)
            for name, value in {**bearer, 'Content-Length': length}.items():
                connection.putheader(name, value)
            connection.endheaders(good[:100_000])
            return connection
        halts = []  # the first may come while the other upload, which is none, is looked at
        case.check(poll(lambda: halts.append(begin(len(good))) or 'another upload' in ask(port, path, 'POST', b'x', **bearer)[2]),
                   'two uploads for a channel')
        other = path.replace('1.1', '1.2')
        for wanted, to, body, headers in ((200, other, good, bearer), (422, other, random.Random(7).randbytes(3 << 20), bearer),
                                          (409, other, b'x' * 5000, bearer), (401, other, good, {}), (400, other.replace('@', 'x'), good, bearer),
                                          (415, other, b'--x--', {**bearer, 'Content_Type': 'multipart/form-data; boundary=x'})):
            case.equal(ask(port, to, 'POST', body, **headers)[0], wanted, f'{to} {headers}')
        case.equal(begin(10 ** 10, other).getresponse().status, 413, 'more than a capture may have')
        for each in halts:
            each.close()
        case.check(poll(lambda: 'not completed' in server.text()), 'the upload that ended')
        case.equal((tables(), os.listdir(folder)), (before, []), 'after it')
        os.rmdir(folder)
        case.equal(ask(port, path, 'POST', good, **bearer)[0], 507, 'without the folder')
        os.mkdir(folder)
        case.equal(ask(port, path, 'POST', iter([good[at:at + 70_000] for at in range(0, len(good), 70_000)]), **bearer)[0], 200, 'in chunks')
        case.check(tables() != before, 'tables')
        case.equal(ask(port, '/api/1/do', 'POST', json.dumps({'words': ['restore', '1.1', '@'], 'file': kept}), Content_Type='application/json', **bearer)[0],
                   200, 'restore')
        case.equal(tables(), before, 'after restore')
        if harness.LONG:
            much = itertools.repeat(good * 10, (2 << 30) // (10 * len(good)))
            case.equal(ask(port, path, 'POST', much, **bearer)[0], 200, '2 GB')
            web = subprocess.run(['pgrep', '-P', str(server.process.pid), 'qamweb'], capture_output=True, check=True).stdout.decode().strip()
            memory = int(re.search(r'VmHWM:\s+(\d+)', read(f'/proc/{web}/status').decode())[1])
            case.check(memory < 100_000, f'{memory} kB of memory for an upload of 2 GB')
        begin(len(good))
    case.equal(os.listdir(folder), [], 'files left')


def a_headend_that_stops_and_comes_back_is_shown_as_such(case):
    flash = case.flash()
    with contextlib.ExitStack() as stack:
        first = Server(case, flash).__enter__()
        stack.callback(first.process.kill)
        first.wait_started()
        web = subprocess.Popen([case.args.qamctl.replace('qamctl', 'qamweb'), '--server', f'{MARKUP}={first.address}',
                                '--listen', '127.0.0.1:0', '--web-name', 'LAB.example', '--web-write', '--web-token-file', case.path('token'),
                                '--web-behind-tls'], stdout=subprocess.PIPE)
        stack.callback(web.kill)
        port = int(re.search(rb':(\d+)/', web.stdout.readline())[1])
        view = states(port)
        case.equal(await_state(view, lambda it: it['status'])['error'], '', 'error')
        proxied, bearer = {'Host': 'lab.EXAMPLE'}, {'Authorization': 'Bearer ' + read(case.path('token')).decode().strip()}
        key = {'method': 'POST', 'body': '{"words": ["key", "up"]}', 'Content_Type': 'application/json', **proxied}
        for wanted, path, request in ((200, '/', proxied), (401, '/metrics', proxied), (200, '/metrics', {**proxied, **bearer}),
                                      (401, '/api/1/do', key), (200, '/api/1/do', {**key, **bearer})):
            case.equal(ask(port, path, **request)[0], wanted, f'{path} {request}')
        cookie = ask(port, '/api/session', 'POST', json.dumps({'token': bearer['Authorization'][7:]}), Content_Type='application/json')[1]
        case.check(cookie['Set-Cookie'].endswith('; Secure'), 'cookie')
        first.stop()
        case.check(await_state(view, lambda it: it['error'])['status'], 'the last state is not kept')
        name = MARKUP.replace('"', '\\"')
        case.check(f'headend_up{{headend="{name}"}} 0\n' in ask(port, '/metrics')[2], 'the metrics say that it is up')
        with Server(case, flash, manage=first.address) as second:
            second.wait_started()
            await_state(view, lambda it: not it['error'])
        web.terminate()
        case.equal(web.wait(harness.HANG_SECONDS), 0, 'exit code')


def a_report_is_the_page_in_one_file_with_what_qamctl_says(case):
    os.makedirs(case.path('<'))
    source = case.path('<', 'script><b>.ts')  # its whole name ends a script
    os.symlink(case.sample('two-programmes.ts'), source)
    commands = [(f'/api/1/{path}', command) for path, command in (
        ('alarms', 'alarms --history'), ('pidmap/2.1', 'pidmap show 2.1'), ('programmes/2.1', 'programme list 2.1'),
        ('psi/5.2', 'psi show 5.2'), ('psi/2.1', 'psi show 2.1'))]
    names = [case.path(name) for name in ('r.html', 'r.json')]
    run = case.fast(case.flash(), 8, *(word for slot in '12345' for word in ('--card', slot)), '--source', f'6={source}',
                    '--programme', '2.1=6.1:1', '--psi', f'5.2={case.sample("psi-many.ts")}', '--fault', '6.1.input-lost@4',
                    *(word for _, command in commands for word in ('--do', f'@7.9 {command} --json')),
                    *(word for name in names for word in ('--report', name)))
    page, report = read(names[0]).decode(), json.loads(read(names[1]))
    data = re.search(r'<script type="application/json" id="data">(.*?)</script>', page, re.DOTALL)[1]
    answers = json.loads(data)['answers']
    case.equal(('<' in data, page.count('</script'), '<b>' in page), (False, 2, False), 'texts that are markup')
    case.check(len(page.encode()) < 500_000, f'{len(page)} bytes')
    case.check("default-src 'none';" in page and not re.search('(src|href)="[^"#d]', page), 'something is loaded')
    for kind, element in ('script', '<script>'), ('style', '<style>'):
        digest = base64.b64encode(hashlib.sha256(page.split(element)[1].split(f'</{kind}>')[0].encode()).digest()).decode()
        case.check(f"{kind}-src 'sha256-{digest}';" in page, f'the policy does not allow the {kind}')
    kept = {name: value for name, value in report.items() if name not in ('watchdog', 'commands')}
    case.equal(answers['/api/1/state']['status'], kept, 'state')
    case.equal(answers['/api/1/state']['lcd']['rows'][0].strip() != '', True, 'text of the LCD')
    printed = {each['command']: each['output'] for each in report['commands']}
    for path, command in commands:
        text, got = printed[command + ' --json'], answers[path]
        if path.endswith('alarms'):
            cells = lambda row: [got['texts'][cell[0]] if isinstance(cell, list) else cell for cell in row]  # noqa: E731
            got = [dict(zip(got['columns'], cells(row))) for row in got['rows']]
            text = '[' + ','.join(text.splitlines()) + ']'
        case.check(case.equal(got, json.loads(text), command) and got, f'nothing in {command}')
    rates = answers['/api/1/history']['channels']['2.1']
    case.equal(({name: sum(each) for name, each in rates.items()}, [len(each) for each in rates.values()]),
               ({name: report['cards'][1]['channels'][0]['rates'][name] for name in rates}, [8] * 3), 'rates of the last second')
    case.check(len(answers) == 4 + 3 * 10, f'{len(answers)} answers')


def a_page_that_cannot_be_shown_is_refused_with_the_reason(case):
    flash = case.flash()
    with socket.create_server(('127.0.0.1', 0), reuse_port=True) as taken:
        busy = f'127.0.0.1:{taken.getsockname()[1]}'
        for code, text, args in ((1, 'cannot listen on ' + busy, ['--web', busy]), (2, 'real time', ['--web', '--fast', '--seconds', '1']),
                                 (2, '--manage', ['--web', '--manage', 'off']), (2, 'ADDRESS', ['--web', 'here']),
                                 (1, 'File exists', ['--web', '127.0.0.1:0', '--web-write', '--web-token-file', case.sample('psi-small.ts')]),
                                 (1, 'ssh -L', ['--web', '0.0.0.0:0', '--web-write', '--web-token-file', case.path('t')])):
            case.says(case.execute([case.args.headend, '--flash', flash, '--manage', '127.0.0.1:0', *args], (code,)), text)


harness.main(__name__)
