#!/usr/bin/env python3
"""The front panel as an operator meets it, with keys and LCD over the management socket: a walk to the editors of one
card, whose edits change what is on the air and are kept, and slots that do not run."""
import json
import os

import harness
from harness import Client, Server

KEY, NO_SUCH_KEY = 15, 0x10A


class Panel:
    def __init__(self, case, server):
        self.case, self.server = case, server

    def rows(self):
        """Four texts; the inverse characters of a value are in brackets, a row that is inverse as a whole has a >."""
        lcd = json.loads(self.case.qamctl(self.server.address, 'lcd', '--json').text)
        rows = []
        for number, text in enumerate(lcd['rows']):
            places = [place['x'] // 8 for place in lcd['inverse'] if place['row'] == number]
            if 0 in places:
                text = '>' + text
            elif places:
                text = f'{text[:places[0]]}[{text[places[0]:places[-1] + 1]}]{text[places[-1] + 1:]}'
            rows.append(text)
        return rows

    def go(self, keys, *wanted):
        """Waits for the screen: keys are answered before the menu acts on them."""
        if keys:
            self.case.qamctl(self.server.address, 'key', *keys.split())
        wanted = [*wanted, '', ''][:4]
        self.server.wait(lambda: self.rows() == wanted or self.patience())
        self.case.equal(self.rows(), wanted, f'screen after {keys}')

    def patience(self):
        self.waited = getattr(self, 'waited', 0) + 1
        return self.waited % 200 == 0


def rf(case, server):
    fields = 'slot', 'frequency_khz', 'level_dbuv', 'symbol_rate_kbd', 'constellation'
    return [tuple(entry[field] for field in fields)
            for entry in json.loads(case.qamctl(server.address, 'rf', '--json').text) if entry['channel'] == 1]


def edits_are_on_the_air_and_kept(case):
    """Symbol rate, frequency, level and constellation of the card in slot 5; and the other language."""
    flash, cards = case.flash(), ('--card', '1', '--card', '5')
    wanted = [(1, 554000.0, 100.0, 6875, '64-QAM'), (5, 454000.0, 105.5, 6000, '256-QAM')]
    with Server(case, flash, *cards) as server:
        for slot in (1, 5):
            server.wait_started(slot)
        panel = Panel(case, server)
        panel.go('', 'Headend', '>QAM card1', 'QAM card5', 'Language English')
        panel.go('down ok ok ok', 'Version', '>HARD Ver.   V1.0', 'MCU Ver.V2.1.05A', 'FPGA Ver.V2.1.05')
        panel.go('cancel cancel down ok down ok right up up left', 'Symbol Rate', '', '  [6].125  Mbps')
        panel.go('right down ok down ok right down', 'RF Freq', '', '  0[4]54.000 MHz')
        panel.go('ok down ok left up left up up up up up', 'RF Level', '', '  10[5].5  dBuV')
        panel.go('ok down down down ok', 'Qam Mode', '>64', '128', '256')
        panel.go('up ok', 'QAM SET', '>Qam Mode     256', 'Symbol Rate', 'RF Freq')
        panel.go('cancel cancel down ok', '前端', 'QAM卡1', 'QAM卡5', '>语言        中文')
        panel.go('up ok down ok', '调制器设置', '>调制模式     256', '符号率', '输出频率')
        case.equal(rf(case, server), wanted, 'on the air after the edits')
    with Server(case, flash, *cards) as server:
        for slot in (1, 5):
            server.wait_started(slot)
        case.equal(rf(case, server), wanted, 'on the air after a restart')


def a_card_that_does_not_run_says_why(case):
    """None of its items can be entered; the panel goes back by itself; only keys that there are can be pressed."""
    flash = case.flash()
    os.remove(os.path.join(flash, harness.BITSTREAM))
    with Server(case, flash) as server:
        panel = Panel(case, server)
        panel.go('', 'Headend', '>QAM card1      !', 'Language English')
        server.wait(lambda: 'no_bitstream' in server.text())
        panel.go('ok ok right down ok', 'QAM card1', 'no bitstream')
        case.equal(Client(server.port).request(KEY, 0, data=b'\x07').result, NO_SUCH_KEY, 'a key that is none')
        case.qamctl(server.address, 'key', 'sideways', codes=(2,))
        server.stop(code=1)
    with Server(case, flash, '--menu-timeout', '1') as server:  # no key chooses the first row here
        Panel(case, server).go('down ok', '前端', '>QAM卡1         !', '语言        中文')
        server.stop(code=1)


def tables_keep_their_intervals_while_a_value_is_edited(case):
    """With keys at virtual times."""
    out, psi = case.path('out.ts'), case.sample('psi-many.ts')
    run = case.fast(case.flash(), 8, '--psi', f'1.1={psi}', '--out', f'1.1={out}',
                    '--key', 'ok,down,ok,down,down,ok,up@2', '--key', 'ok@7')
    case.clean(run)
    case.equal(case.card(run, 1)['channels'][0]['rf']['frequency_khz'], 1000000, 'frequency after the edit')
    case.tscheck(out, '--psi', psi, *harness.RATE, '--no-limits')


def the_lcd_can_be_had_as_a_picture(case):
    with Server(case, case.flash(), '--key', 'ok,down,ok') as server:
        server.wait_started()
        Panel(case, server).go('', 'QAM SET', '>Qam Mode      64', 'Symbol Rate', 'RF Freq')
        case.says(case.qamctl(server.address, 'lcd'), r'QAM SET\n *Qam Mode      64')
        case.qamctl(server.address, 'lcd', '--png', case.path('lcd.png'))
        found = case.findings('ffprobe', '-v', 'quiet', '-show_streams', '-of', 'json', case.path('lcd.png'))
        case.equal([(s['codec_name'], s['width'], s['height']) for s in found.get('streams', [])], [('png', 544, 288)],
                   'the picture')


if __name__ == '__main__':
    harness.main({case.__name__.replace('_', '-'): case for case in (
        edits_are_on_the_air_and_kept, a_card_that_does_not_run_says_why,
        tables_keep_their_intervals_while_a_value_is_edited, the_lcd_can_be_had_as_a_picture)})
