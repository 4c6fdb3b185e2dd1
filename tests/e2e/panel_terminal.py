#!/usr/bin/env python3
"""The front panel in a real terminal: driven by keys, judged by what stands on the screen and by how the terminal is
left."""
import os
import re
import shlex
import signal
import subprocess
import time

from harness import HANG_SECONDS, Server, main

CLEAN = '1 0'  # the cursor shows, the other screen is left


class Terminal:
    """A shell in a terminal of its own."""

    def __init__(self, case, width=80, height=24):
        self.case, self.socket = case, case.path('terminal')
        self.tmux('-f', '/dev/null', 'new-session', '-d', '-x', str(width), '-y', str(height), 'bash --norc --noprofile')
        self.shell = int(self.tmux('display', '-p', '#{pane_pid}'))
        self.type("PS1='$ '; stty -g > before; clear")
        self.until(r'^\$')

    def tmux(self, *words):
        environment = {**os.environ, 'LC_ALL': 'C.UTF-8'}
        done = subprocess.run(['tmux', '-S', self.socket, *words], capture_output=True, env=environment,
                              cwd=self.case.folder, timeout=HANG_SECONDS)
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

    def screen(self, *options):
        lines = self.tmux('capture-pane', '-p', '-J', *options).split('\n')
        return '\n'.join(line.rstrip() for line in lines)

    def poll(self, condition, what):
        """Gives up only when nothing can be expected any more."""
        for _ in range(HANG_SECONDS * 20):
            result = condition()
            if result:
                return result
            time.sleep(0.05)
        raise AssertionError(f'{what}:\n{self.screen()}')

    def until(self, *patterns):
        """Until all stand on the screen."""
        def found():
            screen = self.screen()
            return screen if all(re.search(pattern, screen, re.MULTILINE) for pattern in patterns) else None
        return self.poll(found, f'no {patterns} on the screen')

    def modes(self):
        return self.tmux('display', '-p', '#{cursor_flag} #{alternate_on}')

    def left_clean(self):
        """The terminal is as it was before the command."""
        self.poll(lambda: self.modes() == CLEAN, 'the cursor is hidden, or the other screen is not left')
        self.keys('Enter')  # whoever was killed has not waited for the shell's prompt, nor it for him
        self.type('clear; stty -g | diff - before && echo as before')
        self.until('^as before$')
        self.type('clear')
        self.until(r'\A\$')

    def ended(self, code):
        screen = self.until(r'^code=\d+$')
        self.case.equal(re.findall(r'^code=(\d+)$', screen, re.MULTILINE), [str(code)], f'exit code ({screen})')
        self.case.equal(self.modes(), CLEAN, 'cursor and other screen')
        self.left_clean()
        return screen

    def heading(self):
        """Of the LCD."""
        return self.screen().split('\n')[2][1:]

    def chosen(self):
        """The inverse row."""
        found = re.search('\x1b\\[7m(.*?)\x1b', self.screen('-e'))
        return found.group(1) if found else ''

    def choose(self, label):
        """Moves to an item that begins so."""
        seen = [self.poll(self.chosen, 'no row is chosen')]
        while not seen[-1].startswith(label):
            if seen[-1] in seen[:-1]:
                raise AssertionError(f'no {label} among {seen}')
            self.keys('Down')
            self.poll(lambda: self.chosen() not in ('', seen[-1]), 'no other row is chosen')
            seen.append(self.chosen())

    def enter(self, label):
        self.choose(label)
        self.keys('Enter')
        self.poll(lambda: self.heading().startswith(label), f'{label} is not entered')


def child_of(process):
    with open(f'/proc/{process}/task/{process}/children', encoding='ascii') as file:
        return int(file.read().split()[0])


def headend(case, *flags):
    return [case.args.headend, '--flash', case.flash(), '--manage', '127.0.0.1:0', '--panel', *flags]


# An editor, the keys in it (the last stores), and what the first channel's RF readout shows then.
EDITS = [('Symbol Rate', ['Right', 'Down', 'Enter'], r' 6750 '), ('RF Freq', ['Right', 'Down', 'Enter'], r' 454\.0000 '),
         ('RF Level', ['Right', 'Up', 'Enter'], r' 110\.0 ')]


def edits(case):
    """Three edits by keys change what is on the air, one after the other, and are there after a restart."""
    words = headend(case)
    on_air = [r'1\.1 +on air.*' + shown for label, keys, shown in EDITS]
    with Terminal(case, 100, 30) as terminal:
        terminal.run(*words)
        before = terminal.until('^│QAM card1', r'1\.1 +on air')
        for pattern in on_air:
            case.check(not re.search(pattern, before), f'{pattern} stands there before the edit')
        terminal.enter('QAM card1')
        terminal.enter('QAM SET')
        for (label, keys, _), pattern in zip(EDITS, on_air):
            terminal.enter(label)
            terminal.keys(*keys)
            terminal.until(pattern, '^│QAM SET')
        terminal.keys('q')
        terminal.ended(0)
        terminal.run(*words)
        terminal.until(*on_air)
        terminal.keys('q')
        terminal.ended(0)


def other_sizes(case):
    with Terminal(case) as terminal:
        terminal.run(*headend(case))
        terminal.until('● 1 running', '^│QAM card1')
        terminal.choose('Language')
        terminal.keys('Enter', 'l')
        terminal.until('● 1 运行', '○ 2 无卡', '^告警', '^│QAM卡1')
        terminal.keys('Enter', 'l')
        terminal.until('● 1 running', '○ 2 no card', '^│QAM card1')
        terminal.tmux('resize-window', '-x', '50', '-y', '12')
        terminal.until('too small: 50x12, needs')
        terminal.tmux('resize-window', '-x', '160', '-y', '50')
        terminal.until('^│QAM card1')
        terminal.keys('p')
        case.check(re.search('[▀▄█]{2}', terminal.until('█')), 'no pixels')
        terminal.tmux('resize-window', '-x', '100', '-y', '35')
        terminal.until('[⠁-⣿]{3}')
        terminal.tmux('resize-window', '-x', '80', '-y', '24')
        terminal.until('too small for pixels', '^│QAM card1')
        terminal.keys('F10')
        terminal.ended(0)


# Signal, and to whom.
ENDS = [(signal.SIGTERM, 'headend'), (signal.SIGINT, 'headend'), (signal.SIGHUP, 'headend'), (signal.SIGTERM, 'panel'),
        (signal.SIGKILL, 'headend')]


def left_clean(case):
    """However it ends, the terminal is as it was, and what the headend has said stands there then."""
    with Terminal(case, 120, 60) as terminal:
        words = headend(case)
        for signum, whom in ENDS:
            terminal.run(*words)
            terminal.until('● 1 running')
            case.equal(terminal.modes(), '0 1', 'cursor and other screen')
            process = child_of(terminal.shell)
            os.kill({'headend': process, 'panel': child_of(process)}[whom], signum)
            if signum == signal.SIGKILL:
                terminal.left_clean()
            else:
                screen = terminal.ended(0)
                case.check(re.search('^management on 127', screen, re.MULTILINE), f'nothing is said after {signum}: {screen}')
        terminal.run(*words, '--seconds', '2')
        terminal.until('● 1 running')
        terminal.ended(0)


def headend_goes_away(case):
    """qamctl's panel waits for a headend that is away for a moment, and ends when it stays away."""
    with Server(case, case.flash()) as server, Terminal(case, 120, 30) as terminal:
        server.wait_started()
        terminal.run(case.args.qamctl, '--server', server.address, 'panel', '--patience', '2')
        terminal.until('● 1 running')
        server.process.send_signal(signal.SIGSTOP)
        terminal.until('no answer for')
        server.process.send_signal(signal.SIGCONT)
        server.wait(lambda: 'no answer' not in terminal.screen())
        terminal.until('● 1 running')
        server.stop()
        screen = terminal.ended(1)
        case.check('has not answered' in screen, f'not said why: {screen}')


def refused(case):
    """Without a terminal, on a dumb one, and in runs that have no panel."""
    flash = case.flash()
    case.says(case.qamctl('127.0.0.1:1', 'panel', codes=(1,)), 'needs a terminal')
    case.says(case.headend('--flash', flash, '--manage', '127.0.0.1:0', '--panel', codes=(1,)), 'needs a terminal')
    case.says(case.headend('--flash', flash, '--panel', '--fast', '--seconds', '1', codes=(2,)), '--panel.*--fast')
    case.says(case.headend('--flash', flash, '--panel', '--manage', 'off', codes=(2,)), '--panel.*--manage')
    with Terminal(case, 120, 30) as terminal:
        for kind in ('dumb', 'nonsense', ''):
            terminal.run('env', f'TERM={kind}', case.args.qamctl, 'panel')
            case.check(f"kind '{kind}'" in terminal.ended(1), f'terminal {kind} is not named')
        terminal.run(case.args.qamctl, '--server', '127.0.0.1:1', 'panel')
        case.check('nothing listens there' in terminal.ended(1), 'a headend that is not there is not told')


main({'edits-are-on-the-air-and-survive-a-restart': edits, 'it-fits-the-size-of-the-terminal': other_sizes,
      'the-terminal-is-left-as-it-was': left_clean, 'a-headend-may-be-away-for-a-moment': headend_goes_away,
      'what-has-no-panel-is-refused': refused})
