#!/usr/bin/env python3
# The front panel: what the keys show on the LCD, beside the carousel, and where a card does not run. In a real terminal
# it is driven by keys, and judged by the screen and by how the terminal is left.
import itertools
import json
import os
import re
import shlex
import signal
import subprocess

import harness
from harness import HANG_SECONDS, poll


# Those of the LCD as JSON, as far as there is text. The inverse one has a > before it.
def rows(text):
    lcd = json.loads(text)
    inverse = {place['row'] for place in lcd['inverse'] if place['x'] == 0}
    return [('>' if row in inverse else '') + text for row, text in enumerate(lcd['rows']) if text or any(lcd['rows'][row:])]


SET = ('>Qam Mode      64', 'Symbol Rate', 'RF Freq')
SWITCHES = ('输出电平', '输出开关    关闭', '>调制开关    打开')
STEPS = (  # keys, and the expected rows of the LCD; any key leaves a value that is only shown
    ('up', 'Headend       ↑', 'QAM card3', 'Language English', '>Alarms         1'),
    ('ok', 'Alarms', '>1 QAM Card1', '>High Temperature'),
    ('ok down', 'QAM Card1     ↓', 'High Temperature', '>Date  2000-01-01', 'UTC     00:00:01'),
    ('cancel cancel down ok up right', 'QAM SET       ↓', *SET),
    ('down down down', 'QAM SET     ↑↓', 'Symbol Rate', 'RF Freq', '>RF Level'),
    ('up up up ok', 'Qam Mode', '>64            √', '128', '256'),
    ('down cancel', 'QAM SET       ↓', *SET),
    ('ok down down down ok', 'QAM SET       ↓', *SET),
    ('ok down ok', 'QAM SET       ↓', '>Qam Mode     128', 'Symbol Rate', 'RF Freq'),
    ('ok', 'Qam Mode', '64', '>128           √', '256'),
    ('left left left', 'Headend       ↓', '>QAM card1', 'QAM card3', 'Language English'),
    ('left down ok down ok', 'QAM SET       ↓', *SET),
    ('cancel up ok down ok ok', 'Ch.1          ↓', *SET),  # read only
    ('down ok', 'Symbol Rate', '', '  6.875  Mbps'),
    ('up down ok', 'RF Freq', '', '  0554.000 MHz'),
    ('up down ok', 'RF Level', '', '  100.0  dBuV'),
    ('up down down', 'Ch.1          ↑', 'RF Level', 'RF Switch     On', '>QAM Switch    On'),
    ('cancel down ok', 'Ch.2          ↓', *SET),
    ('down ok', 'Symbol Rate', '', '  6.875  Mbps'),
    ('up down down down down', 'Ch.2          ↑', 'RF Level', 'RF Switch     On', '>QAM Switch    On'),
    ('up up up ok', 'RF Freq', '', '  0562.000 MHz'),
    ('up down ok', 'RF Level', '', '  100.0  dBuV'),
    ('up cancel up up', 'QAM Sta.', '>Version', 'Ch.1', 'Ch.2'),
    ('ok', 'Version', '>HARD Ver.   V1.0', 'MCU Ver V2.1.05A', 'FPGA Ver V2.1.05'),
    ('cancel cancel', 'QAM card3', '>QAM Sta.', 'QAM SET'),
    ('down ok up', 'QAM SET       ↑', 'RF Level', 'Power Switch  On', '>RF Switch     On'),
    ('ok', 'RF Switch', '>On            √', 'Off'),
    ('cancel up ok', 'Power Switch', '>On            √', 'Off'),
    ('down ok', 'QAM SET     ↑↓', 'RF Freq', 'RF Level', '>Power Switch Off'),
    ('up ok up', 'RF Level', '', '  115.0  dBuV'),
    ('cancel up ok up', 'RF Freq', '', '  1000.000 MHz'),
    ('cancel up ok up', 'Symbol Rate', '', '  7.000  Mbps'),
    ('cancel up ok up ok', 'QAM SET       ↓', '>Qam Mode     256', 'Symbol Rate', 'RF Freq'),
    ('cancel cancel down ok', '前端          ↓', 'QAM卡1', 'QAM卡3', '>语言        中文'),
    ('down ok', '告警', '>1 调制卡1', '>温度过高'),
    ('cancel up up ok', 'QAM卡3', '>调制器状态', '调制器设置'),
    ('ok', '调制器状态', '>版本', '频点1', '频点2'),
    ('down ok', '频点1         ↓', '>调制模式     256', '符号率', '输出频率'),
    ('up', '频点1         ↑', *SWITCHES),
    ('cancel down ok', '频点2         ↓', '>调制模式     256', '符号率', '输出频率'),
    ('up', '频点2         ↑', *SWITCHES),
    ('cancel cancel down ok', '调制器设置    ↓', '>调制模式     256', '符号率', '输出频率'),
    ('ok', '调制模式', '64', '128', '>256           √'),
    ('cancel up', '调制器设置    ↑', *SWITCHES),
    ('ok', '调制开关', '>打开          √', '关闭'),
    ('down ok', '调制器设置    ↑', *SWITCHES[:2], '>调制开关    关闭'),
    ('up ok', '输出开关', '打开', '>关闭          √'),
    ('cancel cancel cancel up ok ok ok', '版本', '>硬件版本    V1.0', '软件版  V2.1.05A', '逻辑版本 V2.1.05'),
    ('cancel cancel down ok down ok left', '符号率', '', '  6.875  Mbps'),
)


def the_lcd_follows_the_keys(case):
    flash, flags, end, png = case.flash(), ['--set', '1.temperature2=90', '--menu-timeout', '4'], len(STEPS) + 3, case.path('lcd.png')
    for n, (keys, *_) in enumerate(STEPS, 3):
        flags += ['--do', f'@{n} key {keys}', '--do', f'@{n}.9 lcd --json']
    run = case.fast(flash, end + 6, '--card', '1', '--card', '3', '--key', 'ok,down,ok,cancel,cancel@2', *flags,
                    '--do', f'@{end} lcd', '--do', f'@{end} lcd --png {png}', '--do', f'@{end + 5} lcd')
    shown = [rows(each['output']) for each in run.report['commands'] if each['command'] == 'lcd --json']
    for (keys, *wanted), got in itertools.zip_longest(STEPS, shown):
        case.equal(got, wanted, f'rows after {keys}')
    case.says(run, r' 符号率\n\n   6\.\[875\]  Mbps\n', r' 前端          ↓\n>QAM卡1\n')
    records = [harness.read(os.path.join(flash, harness.record_file(slot))) for slot in (1, 3)]
    case.equal([(record[24], record[29], record[32]) for record in records], [(6, 0, 15), (7, 1, 0)],
               'constellation, QAM switch and power in the records')
    found = case.findings('ffprobe', '-v', 'quiet', '-show_streams', '-of', 'json', png)['streams']
    case.equal([(s['codec_name'], s['width'], s['height']) for s in found], [('png', 544, 288)], 'the picture')


# The messages of failed start-ups are shown one after the other, each for five seconds or until a key, with nothing of the
# menu. None of a failed card's items can be entered. The language is kept.
def a_card_that_does_not_run_says_why(case):
    flash = case.flash()
    bitstream, language = (os.path.join(flash, file) for file in (harness.BITSTREAM, 'panel/language.txt'))
    os.makedirs(language)
    case.says(case.fast(flash, 2, '--key', 'down,ok@1'), 'language is not kept: cannot save .*language')
    os.rmdir(language)
    harness.write(language, b'zh')
    case.says(case.fast(flash, 2, '--do', '@1 lcd'), 'language.txt is damaged', 'Headend')
    harness.write(bitstream, harness.read(bitstream)[:-1])
    top = ['Headend       ↓', '>QAM card1      !', 'QAM card3      !', 'Language English']
    first, second = ([f'Loading Card{card}', '', '', 'Config Error'] for card in (0, 2))
    for steps in (((6, '', first), (11, '', second), (16, '', top),
                   (17, 'ok ok right down ok', ['QAM card1', 'config error']), (18, 'cancel down down ok', None)),
                  ((6, '', first), (7, 'ok', ['QAM卡1', '配置错误']))):
        flags = [flag for at, keys, _ in steps for flag in (*(('--do', f'@{at - 0.2} key {keys}') if keys else ()),
                                                            '--do', f'@{at} lcd --json')]
        run = case.fast(flash, 19, '--card', '1', '--card', '3', *flags, codes=(1,))
        shown = [rows(each['output']) for each in run.report['commands'] if each['command'] == 'lcd --json']
        for (at, _, wanted), got in zip(steps, shown, strict=True):
            case.check(wanted in (None, got), f'{got} where {wanted} is due at {at}')


def tables_keep_their_intervals_while_a_value_is_edited(case):
    out, psi = case.path('out.ts'), case.sample('psi-many.ts')
    run = case.fast(case.flash(), 8, '--psi', f'1.1={psi}', '--out', f'1.1={out}',
                    '--key', 'ok,down,ok,down,down,ok,up@2', '--key', 'ok@7')
    case.clean(run)
    case.equal(case.card(run, 1)['channels'][0]['rf']['frequency_khz'], 1000000, 'frequency after the edit')
    case.tscheck(out, '--psi', psi, *harness.RATE, '--no-limits')


CLEAN = r'\A1 0$'  # the cursor is visible, the alternate screen is left


# A shell in a terminal of its own.
class Terminal:

    def __init__(self, case, width=80, height=24):
        self.case = case
        self.tmux('-f', '/dev/null', 'new-session', '-d', '-x', str(width), '-y', str(height), 'bash --norc --noprofile')
        self.shell = int(self.tmux('display', '-p', '#{pane_pid}'))
        self.type("PS1='$ '; stty -g > before; clear")
        self.until(r'^\$')

    def tmux(self, *words):
        done = subprocess.run(['tmux', '-S', self.case.path('terminal'), *words], capture_output=True, check=False,
                              env={**os.environ, 'LC_ALL': 'C.UTF-8'}, cwd=self.case.folder, timeout=HANG_SECONDS)
        return done.stdout.decode().strip('\n')

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.tmux('kill-server')

    def type(self, line):
        self.tmux('send-keys', '-l', line)
        self.tmux('send-keys', 'Enter')

    # Has the shell run a program; its exit code is said behind it.
    def run(self, *words):
        self.type(f'{shlex.join(words)}; echo code=$?')

    def keys(self, *names):
        self.tmux('send-keys', *names)

    # The flags of the cursor and of the alternate screen, and the lines below them.
    def screen(self):
        lines = self.tmux('display', '-p', '#{cursor_flag} #{alternate_on}') + '\n' + self.tmux('capture-pane', '-p', '-J')
        return re.sub(' +$', '', lines, flags=re.MULTILINE)

    # The screen once all are found on it.
    def until(self, *patterns):
        def found():
            screen = self.screen()
            return all(re.search(pattern, screen, re.MULTILINE) for pattern in patterns) and screen
        screen = poll(found)
        if not screen:
            raise AssertionError(f'no {patterns} on the screen:\n{self.screen()}')
        return screen

    # The terminal is as it was before the command.
    def left_clean(self):
        self.until(CLEAN)
        self.keys('Enter')  # a killed program has not waited for the shell's prompt
        self.type('clear; stty -g | diff - before && echo as before')
        self.until('^as before$')
        self.type('clear')
        self.until(r'\A1 0\n\$')

    def ended(self, code):
        screen = self.until(CLEAN, r'^code=\d+$')
        self.case.equal(re.findall(r'^code=(\d+)$', screen, re.MULTILINE), [str(code)], f'exit code ({screen})')
        self.left_clean()
        return screen


def child_of(process):
    with open(f'/proc/{process}/task/{process}/children', encoding='ascii') as file:
        return int(file.read().split()[0])


def headend(case, *flags):
    return [case.args.headend, '--flash', case.flash(), '--manage', '127.0.0.1:0', '--panel', *flags]


# Keys through the editors of the card in slot 5, and the heading of the resulting screen.
EDITS = (('Down Enter', 'QAM card5'), ('Down Enter', 'QAM SET'), ('Enter', 'Qam Mode'), ('Up Enter', 'QAM SET'),
         ('Down Enter', 'Symbol Rate'), ('Right Down Enter', 'QAM SET'), ('Down Enter', 'RF Freq'),
         ('Right Down Enter', 'QAM SET'), ('Down Enter', 'RF Level'), ('Right Up Enter', 'QAM SET'))


# What is edited is on the air, and there after a restart; language, sizes and pixels.
def keys_edit_and_the_screen_follows(case):
    words = headend(case, '--card', '1', '--card', '5')
    before, after = (rf'\.1 +on air +{shown} ' for shown in (
        r'554\.0000 +100\.0 +64-QAM +6875', r'454\.0000 +110\.0 +256-QAM +6750'))
    with Terminal(case, 100, 30) as terminal:
        terminal.run(*words)
        terminal.until('● 1 running', '○ 2 no card', '● 5 running', '^│QAM card1', '1' + before, '5' + before, '^none')
        for keys, heading in EDITS:
            terminal.keys(*keys.split())
            terminal.until(f'^│{heading} *[↑↓ ]*│')
        terminal.until('1' + before, '5' + after)
        terminal.keys('Escape')
        terminal.until('^│QAM card5 *│')
        terminal.keys('l', 'p')
        terminal.until('● 1 运行', '○ 2 无卡', '^告警', '^无$', '[⠁-⣿]{3}')
        for width, height, pattern in ((50, 12, '太小'), (160, 50, '[▀▄█]{2}'), (80, 24, '^│QAM card5 *│')):
            terminal.tmux('resize-window', '-x', str(width), '-y', str(height))
            terminal.until(pattern)
        terminal.keys('q')
        terminal.ended(0)
        terminal.run(*words)
        terminal.until('1' + before, '5' + after)
        terminal.keys('F10')
        terminal.ended(0)


def a_terminal_is_left_as_it_was(case):
    with Terminal(case, 120, 60) as terminal:
        words = headend(case)
        for signum, whom in ((signal.SIGTERM, 'headend'), (signal.SIGHUP, 'headend'), (signal.SIGTERM, 'panel'),
                             (signal.SIGKILL, 'headend')):
            terminal.run(*words)
            terminal.until(r'\A0 1$', '● 1 running')
            process = child_of(terminal.shell)
            os.kill({'headend': process, 'panel': child_of(process)}[whom], signum)
            if signum == signal.SIGKILL:
                terminal.left_clean()
            else:
                screen = terminal.ended(0)
                case.check('management on 127' in screen, f'nothing is said after {signum}: {screen}')
        terminal.run(*words, '--seconds', '2')
        terminal.until('● 1 running')
        terminal.ended(0)


def no_panel_without_a_terminal(case):
    flash = case.flash()
    case.says(case.qamctl('127.0.0.1:1', 'panel', codes=(1,)), 'needs a terminal')
    case.says(case.headend('--flash', flash, '--manage', '127.0.0.1:0', '--panel', codes=(1,)), 'needs a terminal')
    case.says(case.headend('--flash', flash, '--panel', '--fast', '--seconds', '1', codes=(2,)), '--panel.*--fast')
    with Terminal(case, 120, 30) as terminal:
        terminal.run('env', 'TERM=dumb', case.args.qamctl, 'panel')
        case.check("kind 'dumb'" in terminal.ended(1), 'the terminal is not named')
        terminal.run(case.args.qamctl, '--server', '127.0.0.1:1', 'panel')
        case.check('nothing listens there' in terminal.ended(1), 'a headend that is not there is not told')


harness.main(__name__)
