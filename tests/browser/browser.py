#!/usr/bin/env python3
# The web page in Chromium: what it shows is what qamctl says. With --pictures FOLDER it only makes the documents' pictures
# of the page, from a chassis that has run for some minutes. With --axe FILE each view is also examined by that axe.min.js,
# which finds what programs for blind users cannot read.
import base64
import contextlib
import datetime
import itertools
import os
import re
import shutil
import signal
import subprocess
import sys

try:
    from selenium import webdriver
    from selenium.common import exceptions
    from selenium.webdriver.common.keys import Keys
except ImportError:
    webdriver = None
if not (webdriver and shutil.which('chromedriver')):
    print('no Chromium: ./test --browser installs it')
    sys.exit(1 if 'CI' in os.environ else 77)

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), 'e2e'))
import harness  # noqa: E402
import tscheck  # noqa: E402

PICTURES = {('overview', 0, 'light', 1280): 'web-overview', ('rf', 0, 'dark', 1280): 'web-rf-dark',
            ('streams/1.1', 0, 'light', 1280): 'web-streams', ('settings/1', 0, 'light', 1280): 'web-settings',
            ('overview', 1, 'light', 390): 'web-phone-zh'}
folder, axe = (os.path.abspath(sys.argv.pop(sys.argv.index(each) + 1)) if each in sys.argv else None for each in ('--pictures', '--axe'))
sys.argv = [each for each in sys.argv if each not in ('--pictures', '--axe')]
RATE_SECONDS = 100  # of the pictures' rates
SCENE = ['--card', '1', '--card', '2', '--card', '3', '--calibration', '127.0.0.1:0', '--set', '1.rfreq=666000', '--set', '1.qammode=7', '--set', '2.rflevel=1050',
         '--set', '2.temperature2=90', '--fault', '3.config-lost@4', '--programme', '1.1=6.2:1', '--programme', '2.2=6.2:2']
MARKUP = '<b a=1>'  # as long as the name that it replaces
CHINESE = {'running': '运行', 'config error': '配置错误', 'empty': '空', 'on air': '正常播出', 'off': '关闭', 'delivers': '正常', 'none': '无',
           'unknown': '未知',
           'critical': '严重', 'major': '主要',}
AXE = "axe.run().then((all) => arguments[0](all.violations.map((one) => `${one.id}: ${one.nodes[0].html}`)))"
KEYS = {'up': Keys.ARROW_UP, 'down': Keys.ARROW_DOWN, 'ok': Keys.ENTER, 'cancel': Keys.ESCAPE}
TABLES = '''return [...document.querySelectorAll('#view table')].map((table) =>
    [...table.tBodies[0].rows].map((row) => [...row.cells].map((cell) => cell.textContent)))'''
VALUES = 'return [...document.querySelectorAll(`input[id^="${arguments[0]}"], select[id^="${arguments[0]}"]`)].map((one) => one.value)'
SLOTS = '''return [...document.querySelectorAll('.slot')].map((slot) =>
    [...slot.querySelectorAll(':scope > .state, .port > .line .state')].map((one) => one.textContent))'''
PIXELS = '''const data = document.querySelector('canvas.lcd').getContext('2d').getImageData(0, 0, 128, 64).data;
    return Array.from({ length: 64 }, (_, y) => Array.from({ length: 32 }, (_, x) => [0, 1, 2, 3].reduce((all, bit) =>
      2 * all + (data[4 * (128 * y + 4 * x + bit)] < 100), 0).toString(16)).join(''))'''
# Carrier, width and level of each drawn channel in the picture's own scales, rounded to a quarter of a MHz and dB.
TRACES = '''return [...document.querySelectorAll('.rfcard > svg')].flatMap((svg) => {
    const scale = (labels, at) => {
      const marks = [...svg.querySelectorAll(labels)].filter((one) => /^[0-9]+$/.test(one.textContent));
      const [[a, first], [b, last]] = [marks[0], marks.at(-1)].map((one) => [one.getAttribute(at), one.textContent].map(Number));
      return (to) => first + (to - a) * (last - first) / (b - a);
    };
    const all = [...svg.querySelectorAll('.trace')].map((one) => one.getBBox());
    const [mhz, dbuv] = all.length ? [scale('.label.middle', 'x'), scale('.label.end', 'y')] : [];
    return all.map((box) => [mhz(box.x + box.width / 2), mhz(box.x + box.width) - mhz(box.x), dbuv(box.y + 4)])
      .map((values) => values.map((one) => Math.round(one * 4) / 4)); })'''
FILL = '''const one = document.getElementById(arguments[0]);
    if (arguments[1] !== '') one.value = arguments[1];
    one.dispatchEvent(new Event('input'));
    one.form.requestSubmit();'''
# Texts with less than 4.5 times the luminance of what is behind them, or more than its 4.5th part.
FAINT = '''const light = (colour) => colour.match(/[0-9.]+/g).slice(0, 3).map((one) => one / 255).map((one) =>
      one <= 0.04045 ? one / 12.92 : ((one + 0.055) / 1.055) ** 2.4).reduce((all, one, index) =>
      all + one * [0.2126, 0.7152, 0.0722][index], 0.05);
    const ground = (one) => (/, 0\\)/.test(getComputedStyle(one).backgroundColor) && one.parentElement
      ? ground(one.parentElement) : light(getComputedStyle(one).backgroundColor));
    return [...document.querySelectorAll('body *')].filter((one) => one.checkVisibility() &&
      [...one.childNodes].some((child) => child.nodeType === 3 && child.data.trim())).filter((one) => {
        const style = getComputedStyle(one);
        const both = [light(one instanceof SVGElement ? style.fill : style.color), ground(one)];
        return Math.max(...both) < 4.5 * Math.min(...both);
      }).map((one) => `${one.className} ${one.textContent}`)'''


# A source whose first service has a name of markup, as has its file.
def hostile_source(case):
    data = bytearray(harness.read(case.sample('two-programmes.ts')).replace(b'Harbour', MARKUP.encode()))
    for at in range(0, len(data), harness.PACKET):
        if harness.pid_of(data[at:at + 4]) == 0x11:
            end = at + 8 + data[at + 7] - 4
            data[end:end + 4] = tscheck.crc32(data[at + 5:end]).to_bytes(4, 'big')
    harness.write(case.path(MARKUP + '.ts'), data)
    return case.path(MARKUP + '.ts')


# A browser before the page of qamweb, which shows the headend at this address.
class Page:
    def __init__(self, case, stack, server, *flags):
        self.case, self.stack, self.server, self.flags = case, stack, server, flags
        self.serve('127.0.0.1:0')
        options = webdriver.chrome.options.Options()
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        for each in ('headless=new', 'disable-gpu', 'disable-dev-shm-usage', 'hide-scrollbars', 'lang=en', *['no-sandbox'] * (os.geteuid() == 0)):
            options.add_argument('--' + each)
        self.browser = webdriver.Chrome(options=options)
        stack.callback(self.browser.quit)
        self.js = self.browser.execute_script

    def serve(self, listen):
        command = [self.case.args.qamctl.replace('qamctl', 'qamweb'), '--server', f'headend={self.server}', '--listen', listen,
                   '--web-write', '--web-token-file', self.case.path('token'), *self.flags]
        self.web = subprocess.Popen(command, stdout=subprocess.PIPE)
        self.stack.callback(self.web.kill)
        self.address = re.search(rb'127[^/]+', self.web.stdout.readline())[0].decode()

    def look(self, theme, width):
        self.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {'features': [{'name': 'prefers-color-scheme', 'value': theme}]})
        self.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {
            'width': width, 'height': 720 if width > 390 else 844, 'deviceScaleFactor': 1, 'mobile': False})

    def go(self, view):
        self.browser.get(f'http://{self.address}/#/1/{view}')

    def said(self, *command):
        return self.case.findings(self.case.args.qamctl, '--server', self.server, *command, '--json')

    def text(self, selector):
        return self.js('return [...document.querySelectorAll(arguments[0])].map((one) => one.textContent).join("\\n")', selector)

    def click(self, selector):
        self.same(lambda: self.js('document.querySelector(arguments[0]).click()', selector), lambda: None, selector)

    # Gives a field this value and sends its form.
    def fill(self, field, value):
        self.same(lambda: self.js(FILL, field, value), lambda: None, field)

    def log_in(self):
        self.same(lambda: self.text('#session'), lambda: 'Log in', 'button')
        self.click('#session')
        self.fill('token', harness.read(self.case.path('token')).decode().strip())
        self.same(lambda: self.text('#session'), lambda: 'Log out', 'session')

    # Answers the question that is open, whose text has these parts.
    def answer(self, answer, *parts):
        self.same(lambda: [each for each in parts if each not in self.text('dialog')], lambda: [], 'question')
        self.case.equal(self.js('return document.activeElement.textContent'), 'Cancel', 'focus')
        self.click('dialog .danger' if answer else 'dialog .buttons button')

    # Waits until both are equal.
    def same(self, got, wanted, text):
        turns, last = itertools.count(), []
        def equal():
            try:
                last[:] = got(), wanted()
            except (IndexError, exceptions.JavascriptException) as error:  # not drawn yet
                last[:] = error, wanted()
            return last[0] == last[1]
        harness.poll(equal, lambda: next(turns) > 500)
        self.case.equal(*last, text)


@contextlib.contextmanager
def scene(case, *args):
    with contextlib.ExitStack() as stack:
        second = case.sample('two-programmes.ts') if folder else hostile_source(case)
        server = stack.enter_context(harness.Server(case, case.flash(), '--source', f'6={case.sample("four-programmes-cbr.ts")},{second}',
                                                    *SCENE, *args))
        server.wait_started()
        page = Page(case, stack, server.address, '--calibration', re.search('calibration on ([0-9.:]+)', server.text())[1])
        harness.poll(lambda: len(re.findall('programme add .* done', server.text())) == 2 and page.said('status')['alarms']['events'] > 1
                     and page.said('status')['cards'][2]['state'] == 'config_error')
        yield page
        server.stop(code=1)  # for card 3


def each_view_shows_what_qamctl_says_in_both_languages_and_colours(case):
    with scene(case) as page:
        status, lcd, map_ = page.said('status'), page.said('lcd'), page.said('pidmap', 'show', '1.1')
        psi, programmes = page.said('psi', 'show', '1.1')['tables'], page.said('programme', 'list', '1.1')['programmes']
        log = case.qamctl(page.server, 'alarms', '--history', '--json').text.splitlines()
        dac = status['cards'][0]['calibration']['dac']
        settings = page.said('var', 'get', '1', 'rfreq', 'rflevel', 'symbolrate', 'qammode', 'rfswitch', 'power')
        case.equal(programmes[0]['name'], MARKUP, 'name of the service')
        page.go('settings/1')
        page.log_in()
        table = lambda number, *columns: lambda: [[row[each] for each in columns] for row in page.js(TABLES)[number]]  # noqa: E731
        ground = {}
        for (language, word), theme, width in itertools.product(((0, lambda text: text), (1, lambda text: CHINESE.get(text, text))), ('light', 'dark'), (1280, 390)):
            page.look(theme, width)
            slots = {one['slot']: [one['state'].replace('_', ' '), *(each['rf']['verdict'] for each in one['channels'])] for one in status['cards']}
            slots |= {one['slot']: ['delivers'] * len(one['inputs']) for one in status['sources']}
            alarms = [[word(one['severity']), str(one['slot']), utc(one['happened'])] for one in status['alarms']['standing']]
            rows = {
                'overview': [(lambda: page.js(SLOTS), [[word(each) for each in slots.get(slot, ['empty'])] for slot in range(1, 7)]),
                             (table(0, 0, 1, 3), alarms)],
                'rf': [(lambda: [[[re.sub(' (MHz|dBµV|kBd|M?bit/s)$', '', cell) for cell in column] for column in [*zip(*each)][1:]]
                                 for each in page.js(TABLES)],
                        [columns_of(card, word) for card in status['cards']]), (lambda: page.js(TRACES), traces(status))],
                'streams/1.1': [
                    (table(0, 0, 1, 3), [[one['table'].replace('_', ' '), str(one['packets']),
                                          f'{one["interval_ticks"]} {one["interval_ms"]:.0f} ms'] for one in psi]),
                    (table(1, 0, 1, 5), [[one['table'].replace('_', ' '), f'0x{each["pid"]:04X}', str(each['packets'])]
                                         for one in psi for each in one['sections']]),
                    (lambda: page.text('summary b'), '\n'.join(f'{one["number"]}  {one["name"]}' for one in programmes)),
                    (table(-3, 1, 2, 3), [[f'{one["src_slot"]}.{one["src_port"]}', f'0x{one["src_pid"]:04X}', f'0x{one["dst_pid"]:04X}']
                                          for one in map_['record']]),
                    (table(-2, 6), [[one['name']] for one in status['sources'][0]['inputs']]),
                    (table(-1, 0), [[f'0x{one["pid"]:04X}'] for one in page.said('pids', '1.1')['pids']]),
                    (lambda: page.js('return document.querySelectorAll(".beat").length > 8'), True)],
                'panel': [(lambda: [row[1:] for row in page.text('.rows').split('\n')], lcd['rows']), (lambda: page.js(PIXELS), lcd['pixels'])],
                'settings/1': [(lambda: page.js(VALUES, 'set-1-'), [str(one['value']) for one in settings]),
                               (lambda: page.js(VALUES, 'interval-1.1-'), [str(one['interval_ticks']) for one in psi]),
                               (lambda: page.js(VALUES, 'cal-1-'), [bytes(dac[at:end]).hex(' ') for at, end in ((0, 5), (5, 9), (9, 13))])],
                'alarms': [(table(0, 0, 1, 3), alarms), (lambda: len(page.js(TABLES)[1]), len(log))],
                'start-up': [
                    (lambda: [[row[1:3] for row in each] for each in page.js(TABLES)],
                     [[[f'{one["from_ms"]:.3f}', f'{one["ms"]:.3f}'] for one in card['startup']] for card in status['cards']]),
                    (lambda: re.findall('[0-9.]+(?= ms)', page.text('h2')),
                     # A card starts once it is registered.
                     [f'{sum(one["ms"] for one in card["startup"][1:]):.1f}' for card in status['cards']])]}
            for view, pairs in rows.items():
                where = f'{view}, {theme}, {width} pixels, {"Chinese" if language else "English"}'
                page.go(view)
                if page.js('return document.documentElement.lang') != ('zh-CN' if language else 'en'):
                    page.js('document.getElementById("language").click()')
                for number, (got, wanted) in enumerate(pairs):
                    page.same(got, lambda: wanted, f'{where}, {number}')
                case.check(page.js('const nav = document.querySelector("nav"); return document.documentElement.scrollWidth <= innerWidth'
                                   ' && (innerWidth < 900 || nav.scrollWidth <= nav.clientWidth)'), f'{where}: wider than the window')
                case.equal(page.js(FAINT), [], f'{where}: faint texts')
                if axe:
                    page.js(harness.read(axe).decode())
                    case.equal(page.browser.execute_async_script(AXE), [], f'{where}: axe')
                case.equal(page.js('return document.querySelectorAll("b[a]").length'), 0, f'{where}: markup')
                case.equal(page.browser.title, f'({len(alarms)}) headend - headend', where)
            ground[theme] = page.js('return getComputedStyle(document.body).backgroundColor')
        case.check(ground['light'] != ground['dark'], f'one colour for light and dark: {ground}')
        case.equal(page.browser.get_log('browser'), [], 'console')


# What the RF view's table and picture have to show.
def columns_of(card, word):
    known = lambda value, scale, form: word('none') if value is None else f'{value / scale:{form}}'  # noqa: E731
    return [[word(rf['verdict']), *([rf['why']] if rf['why'] else []), known(rf['frequency_khz'], 1000, '.4f'), f'{rf["level_dbuv"]:.1f}',
             rf['constellation'] or word('unknown'), str(rf['symbol_rate_kbd']), known(rf['clock_kbd'], 1, '.3f'),
             known(rf['bit_rate'], 1e6 if rf['bit_rate'] else 1, '.3f' if rf['bit_rate'] else '.0f')]
            for rf in (each['rf'] for each in card['channels'])]


def traces(status):
    return [[rf['frequency_khz'] / 1000, round(rf['symbol_rate_kbd'] * 4.6 / 1000) / 4, rf['level_dbuv']]
            for card in status['cards'] for rf in (each['rf'] for each in card['channels']) if rf['on_air']]


def utc(seconds):
    return f'{datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc):%Y-%m-%d %H:%M:%S}'


def a_report_shows_the_same_from_its_file_and_on_paper(case):
    file, views = case.path('r.html'), ('overview', 'rf', 'streams/1.1', 'alarms', 'start-up')
    still = lambda view, tables: tables[1:-1] if view.startswith('streams') else tables  # noqa: E731
    with contextlib.ExitStack() as stack:
        live = {}
        with scene(case, '--report', file) as page:
            for view in views:
                page.go(view)
                page.same(lambda: (page.js('return document.querySelectorAll("#view .none").length'), 'Sections' in page.text('summary')),
                          lambda: (0, '/' in view), view)
                live[view] = still(view, page.js(TABLES.replace('#view table', '#view table:not(.pids table)')))  # a report counts no PIDs
            running = len([each for each in page.said('status')['cards'] if each['state'] == 'running'])
        page = Page(case, stack, '127.0.0.1:9')
        for view, theme, width in itertools.product(views, ('light', 'dark'), (1280, 390)):
            page.look(theme, width)
            page.browser.get(f'file://{file}#/1/{view}')
            page.same(lambda: still(view, page.js(TABLES)), lambda: live[view], f'{view} of the report')
            case.check(page.js('return document.documentElement.scrollWidth <= innerWidth'), f'{view}: wider than the window')
            case.equal(page.js(FAINT), [], f'{view}: faint texts')
        case.check('virtual time, made 2' in page.text('.made'), f'when it was made: {page.text(".made")}')
        case.equal(page.text('.banner'), '', 'banner')
        page.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {'media': 'print'})
        page.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {'width': 703, 'height': 1000, 'deviceScaleFactor': 1,
                                                                            'mobile': False})
        page.js('dispatchEvent(new Event("beforeprint"))')
        case.equal(len(page.text('#paper h1').split('\n')), 5 + 2 * running, 'views on paper')
        paper = page.js(TABLES.replace('#view', '#paper'))
        case.equal([view for view in views for table in live[view] if table not in paper], [], 'views whose tables are not on paper')
        wide = 'return [...document.querySelectorAll("#paper *")].filter((one) => one.getBoundingClientRect().right > 704).map((one) => one.outerHTML)'
        case.equal(page.js(wide), [], 'what runs off the paper')
        case.equal(page.browser.get_log('browser'), [], 'console')


def a_change_is_asked_for_seen_and_put_back(case):
    with scene(case) as page:
        value = lambda name, slot='2': page.said('var', 'get', slot, name)[0]['value']  # noqa: E731
        page.go('settings/2')
        page.log_in()
        page.fill('set-2-rflevel', 3)
        page.same(lambda: 'rflevel cannot be 3: possible are' in page.text('#set-2-rflevel-error'), lambda: True, 'error')
        for name, wanted in ('rflevel', 950), ('rfreq', 474000):
            page.fill(f'set-2-{name}', wanted)
            page.same(lambda: [value(name), page.text(f'#set-2-{name}-hint').split()[1]], lambda: [wanted, str(wanted)], name)
        case.qamctl(page.server, 'var', 'set', '2', 'rfreq', '602000')
        page.click('.changes button')
        page.same(lambda: page.text('.changes .way').split('\n')[0], lambda: 'changed by somebody else', 'somebody else')
        for answer, wanted in ('', 0), ('yes', 1):
            page.fill('set-2-rfswitch', 1)
            page.answer(answer, 'Switch off: Modulation of card 2?', 'Channel 2.1, 602.0000 MHz', 'Channel 2.2, 610.0000 MHz', 'Meadow')
            page.same(lambda: value('rfswitch'), lambda: wanted, f'answer "{answer}"')
        case.equal(value('rfreq'), 602000, 'carrier of somebody else')
        page.go('rf')
        page.same(lambda: page.js(TRACES), lambda: traces(page.said('status')), 'picture')
        page.go('settings/2')
        page.click('.changes button')
        page.same(lambda: value('rfswitch'), lambda: 0, 'put back')
        # A capture with a name full of markup, in the file's name too.
        page.go('settings/1')
        page.browser.find_element('id', 'capture-1.2').send_keys(case.path(MARKUP + '.ts'))
        page.fill('capture-1.2', '')
        page.answer('yes', f'Load the tables of {MARKUP}.ts on channel 1.2?', 'no programme', 'SDT_C: 1 sections')
        names = lambda: [one['name'] for one in page.said('programme', 'list', '1.2')['programmes']]  # noqa: E731
        page.same(lambda: page.text('.changes li:first-child b'), lambda: 'Channel 1.2: Load the tables', 'upload')
        case.equal(names(), [MARKUP, 'Meadow'], 'upload')
        page.click('.changes button')
        page.answer('yes', 'Put back: Channel 1.2: Load the tables', f'programmes {MARKUP}, Meadow')
        page.same(lambda: page.text('.changes li:first-child .way'), lambda: 'put back', 'content put back')
        case.equal(names(), [], 'content put back')
        page.fill('set-1-power', 0)
        page.answer('', f'programmes {MARKUP}', 'no programme')
        case.equal(page.js('return document.querySelectorAll("b[a]").length'), 0, 'markup')


def keys_lead_to_a_screen_in_both_languages(case):
    with scene(case) as page:
        page.go('panel')
        page.log_in()
        by_click = lambda name: page.click(f'[data-key={name}]')  # noqa: E731
        by_keyboard = lambda name: page.browser.find_element('id', 'lcd').send_keys(KEYS[name])  # noqa: E731
        for press, screen, home in (by_click, 'RF Freq', '前端'), (by_keyboard, '输出频率', 'Headend'):
            for name in ['ok', 'down', 'ok', 'down', 'down', 'ok']:
                press(name)
            page.same(lambda: page.text('.rows').split('\n')[0].strip(), lambda: screen, screen)
            page.same(lambda: [[re.sub('[][]', '', row)[1:] for row in page.text('.rows').split('\n')], page.js(PIXELS)],
                      lambda: [page.said('lcd')[each] for each in ('rows', 'pixels')], screen)
            for name in ['ok', 'cancel', 'cancel', 'up', 'up', 'ok', 'down', 'down']:
                press(name)
            page.same(lambda: page.text('.rows').split()[0], lambda: home, 'home')
        page.click('#session')
        page.same(lambda: page.js('return document.querySelectorAll(".keys :disabled").length'), lambda: 6, 'keys after the log-out')


def a_headend_that_stops_and_comes_back_is_told_in_a_banner(case):
    flash = case.flash()
    with contextlib.ExitStack() as stack:
        first = harness.Server(case, flash).__enter__()
        stack.callback(first.process.kill)
        first.wait_started()
        page = Page(case, stack, first.address)
        banner = lambda: page.js('const one = document.getElementById("banner"); return one.hidden ? "" : one.textContent.split(":")[0]')  # noqa: E731
        page.go('overview')
        for view in ('rf', 'streams'):
            page.click(f'nav a[href$="/{view}"]')
        for view in ('rf', 'overview'):
            page.browser.back()
            page.same(lambda: page.text('h1').lower(), lambda: view, 'view after the back button')
        address, second = page.address, lambda: stack.enter_context(harness.Server(case, flash, manage=first.address))
        for act, wanted in ((lambda: None, ''), (lambda: first.process.send_signal(signal.SIGSTOP), 'The headend cannot be read'),
                            (lambda: first.process.send_signal(signal.SIGCONT), ''), (first.stop, 'The headend cannot be read'),
                            (second, ''), (page.web.kill, 'No connection to the server of this page. It is tried again. Shown is the state of'),
                            (lambda: page.serve(address), '')):
            act()
            page.same(lambda: banner().partition(' 20')[0], lambda: wanted, f'banner {wanted}')
        page.same(lambda: page.text('.slot:first-child > .state'), lambda: 'running', 'card 1')


def pictures(case):
    with scene(case, '--epoch', '2026-01-05T09:00:00Z') as page:
        page.go('overview')
        page.log_in()
        page.click('#said button')
        harness.poll(lambda: page.said('status')['virtual_seconds'] > RATE_SECONDS)
        for (view, language, theme, width), name in PICTURES.items():
            page.look(theme, width)
            page.go(view)
            if language:
                page.js('document.getElementById("language").click()')
            page.same(lambda: 'Reading' in page.text('#view'), lambda: False, name)
            taken = page.browser.execute_cdp_cmd('Page.captureScreenshot', {'format': 'png'})['data']
            harness.write(case.path('taken.png'), base64.b64decode(taken))
            file = os.path.join(folder, name + '.png')
            case.execute(['ffmpeg', '-y', '-i', case.path('taken.png'), '-vf',
                          'split[a][b];[a]palettegen=stats_mode=single[p];[b][p]paletteuse=dither=none', file])
            case.check(os.path.getsize(file) < 150_000, f'{name} is large')


if folder:
    the_pictures_of_the_documents = pictures
    sys.argv.append('the-pictures-of-the-documents')
harness.main(__name__)
