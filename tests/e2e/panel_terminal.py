#!/usr/bin/env python3
"""The front panel in a real terminal: driven by keys, judged by what stands on the screen and by how the terminal is
left."""
import os
import re
import shlex
import signal
import subprocess

from harness import HANG_SECONDS, main, poll

CLEAN = r'\A1 0$'  # the cursor is visible, the alternate screen is left


class Terminal:
    """A shell in a terminal of its own."""

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

    def run(self, *words):
        """Has the shell run a program; its exit code is said behind it."""
        self.type(f'{shlex.join(words)}; echo code=$?')

    def keys(self, *names):
        self.tmux('send-keys', *names)

    def screen(self):
        """The flags of the cursor and of the alternate screen, and the lines below them."""
        lines = self.tmux('display', '-p', '#{cursor_flag} #{alternate_on}') + '\n' + self.tmux('capture-pane', '-p', '-J')
        return re.sub(' +$', '', lines, flags=re.MULTILINE)

    def until(self, *patterns):
        """The screen once all are found on it."""
        def found():
            screen = self.screen()
            return all(re.search(pattern, screen, re.MULTILINE) for pattern in patterns) and screen
        screen = poll(found)
        if not screen:
            raise AssertionError(f'no {patterns} on the screen:\n{self.screen()}')
        return screen

    def left_clean(self):
        """The terminal is as it was before the command."""
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


def keys_edit_and_the_screen_follows(case):
    """What is edited is on the air, and there after a restart; language, sizes and pixels."""
    words = headend(case, '--card', '1', '--card', '5')
    before, after = (rf'\.1 +on air +{shown} ' for shown in (
        r'554\.0000 +100\.0 +64-QAM +6875', r'454\.0000 +110\.0 +256-QAM +6750'))
    with Terminal(case, 100, 30) as terminal:
        terminal.run(*words)
        terminal.until('● 1 running', '○ 2 no card', '● 5 running', '^│QAM card1', '1' + before, '5' + before, '^none')
        for keys, heading in EDITS:
            terminal.keys(*keys.split())
            terminal.until(f'^│{heading} *│')
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


# Signal, and its target.
ENDS = [(signal.SIGTERM, 'headend'), (signal.SIGHUP, 'headend'), (signal.SIGTERM, 'panel'),
        (signal.SIGKILL, 'headend')]


def a_terminal_is_left_as_it_was(case):
    with Terminal(case, 120, 60) as terminal:
        words = headend(case)
        for signum, whom in ENDS:
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


main(__name__)
