#!/usr/bin/env python3
"""The front panel as an operator meets it: a walk in both languages, edits that change what is on the air, and
slots that do not run. Keys and LCD go over the management socket."""
import json
import os
import struct

import harness
from harness import Client, Server

LCD, KEY = 14, 15
KEYS = {'ok': 1, 'cancel': 2, 'up': 3, 'down': 4, 'left': 5, 'right': 6}


class Panel:
    def __init__(self, case, server):
        self.case, self.server, self.client = case, server, Client(server.port)

    def press(self, keys):
        for key in keys.split():
            self.case.equal(self.client.request(KEY, 0, data=bytes([KEYS[key]])).result, 0, f'key {key}')

    def rows(self):
        """Four texts; the row of the choice has a > before it, inverse characters are in brackets elsewhere."""
        data = self.client.request(LCD, 0).data
        cells = [[(' ', False)] * 16 for _ in range(4)]
        for at in range(1024, len(data), 8):
            row, x, inverse, character = struct.unpack('>BBBxI', data[at:at + 8])
            cells[row][x // 8] = chr(character), inverse
            if character > 0x7F and x // 8 < 15:
                cells[row][x // 8 + 1] = '', inverse
        rows = []
        for row in cells:
            if all(inverse for _, inverse in row):
                rows.append('>' + ''.join(text for text, _ in row).rstrip())
            else:
                rows.append(''.join(f'[{text}]' if inverse and text else text for text, inverse in row).rstrip())
        return rows

    def shows(self, wanted, after):
        """Waits for the screen, for keys are answered before the menu acts on them."""
        self.server.wait(lambda: self.rows() == wanted or self.patience())
        self.case.equal(self.rows(), wanted, f'screen after {after}')

    def patience(self):
        self.waited = getattr(self, 'waited', 0) + 1
        return self.waited % 200 == 0

    def go(self, keys, *wanted):
        self.press(keys)
        self.shows(list(wanted) + [''] * (4 - len(wanted)), keys)


# Keys from the screen before, and the screen after them, in English and in Chinese. The last one is the first again.
WALK = [
    ('', ('Headend', '>QAM card1', 'QAM card5', 'Language English'),
     ('前端', '>QAM卡1', 'QAM卡5', '语言        中文')),
    ('ok', ('QAM card1', '>QAM Sta.', 'QAM SET'), ('QAM卡1', '>调制器状态', '调制器设置')),
    ('ok down down ok', ('Ch.2', '>Qam Mode      64', 'Symbol Rate', 'RF Freq'),
     ('频点2', '>调制模式      64', '符号率', '输出频率')),
    ('down down ok', ('RF Freq', '', '  0562.000MHz'), ('输出频率', '', '  0562.000MHz')),
    ('cancel cancel cancel down ok down ok right', ('Symbol Rate', '', '  6.[8][7][5] Mbps'),
     ('符号率', '', '  6.[8][7][5] Mbps')),
    ('cancel cancel cancel cancel', ('Headend', '>QAM card1', 'QAM card5', 'Language English'),
     ('前端', '>QAM卡1', 'QAM卡5', '语言        中文')),
]


def walk(case):
    with Server(case, case.flash(), '--card', '1', '--card', '5') as server:
        for slot in (1, 5):
            server.wait_started(slot)
        panel = Panel(case, server)
        for column in (1, 2):
            for row in WALK:
                panel.go(row[0], *row[column])
            panel.press('up ok down')  # the other language


def rf(case, server, channel):
    for entry in json.loads(case.qamctl(server.address, 'rf', '--json').text):
        if f'{entry["slot"]}.{entry["channel"]}' == channel:
            return entry['frequency_khz'], entry['level_dbuv'], entry['symbol_rate_kbd'], entry['constellation']
    return None


def edits(case):
    """Symbol rate, frequency, level and mode of one card, the level of another; they are there after a restart."""
    flash = case.flash()
    wanted = {'1.1': (454000.0, 105.5, 6000, '256-QAM'), '5.1': (554000.0, 115.0, 6875, '64-QAM')}
    with Server(case, flash, '--card', '1', '--card', '5') as server:
        for slot in (1, 5):
            server.wait_started(slot)
        panel = Panel(case, server)
        panel.go('ok down ok down ok right up up left', 'Symbol Rate', '', '  [6].125 Mbps')
        panel.press('right down ok')
        panel.go('down ok right down', 'RF Freq', '', '  0[4]54.000MHz')
        panel.press('ok down ok right right up up up up up left left left')
        panel.go('up', 'RF Level', '', '  105.[5] dBuV')
        panel.press('ok down down down')
        panel.go('ok', 'Qam Mode', '>64', '128', '256')
        panel.go('up ok', 'QAM SET', '>Qam Mode     256', 'Symbol Rate', 'RF Freq')
        panel.press('cancel cancel down ok down ok up up up ok')
        panel.go('right up', 'RF Level', '', '  1[1]0.0 dBuV')
        panel.press('right up up up up up up ok')
        panel.shows(['QAM SET', 'Symbol Rate', 'RF Freq', '>RF Level'], 'the last edit')
        for channel, values in wanted.items():
            case.equal(rf(case, server, channel), values, f'{channel} after the edits')
    with Server(case, flash, '--card', '1', '--card', '5') as server:
        for slot in (1, 5):
            server.wait_started(slot)
        for channel, values in wanted.items():
            case.equal(rf(case, server, channel), values, f'{channel} after a restart')


def not_running(case):
    """A slot without a bitstream says so, and none of its items can be entered; the panel leaves by itself."""
    flash = case.flash()
    os.remove(os.path.join(flash, harness.BITSTREAM))
    with Server(case, flash, '--menu-timeout', '1') as server:
        panel = Panel(case, server)
        panel.shows(['Headend', '>QAM card1      !', 'Language English', ''], 'a start-up without a bitstream')
        server.wait(lambda: 'no_bitstream' in server.text())
        panel.go('ok ok right down ok', 'QAM card1', 'no bitstream')
        panel.shows(['Headend', '>QAM card1      !', 'Language English', ''], 'a second without a key')
        case.equal(Client(server.port).request(KEY, 0, data=b'\x07').result, 0x10A, 'a key that is none')
        case.qamctl(server.address, 'key', 'sideways', codes=(2,))
        server.stop(code=1)


def beside_the_carousel(case):
    """With an editor open the tables keep their intervals; keys at virtual times; the LCD as text and as a picture."""
    out, psi = case.path('out.ts'), case.sample('psi-many.ts')
    run = case.fast(case.flash(), 8, '--psi', f'1.1={psi}', '--out', f'1.1={out}', '--key', 'ok,down,ok,down,down,ok,up@2',
                    '--key', 'ok@7')
    case.clean(run)
    case.equal(case.card(run, 1)['channels'][0]['rf']['frequency_khz'], 1000000, 'frequency after the edit')
    case.tscheck(out, '--psi', psi, *harness.RATE, '--no-limits')
    with Server(case, case.flash('live'), '--key', 'ok,down,ok') as server:
        server.wait_started()
        Panel(case, server).shows(['QAM SET', '>Qam Mode      64', 'Symbol Rate', 'RF Freq'], '--key')
        case.says(case.qamctl(server.address, 'lcd'), r'QAM SET\n *Qam Mode      64')
        case.qamctl(server.address, 'lcd', '--png', case.path('lcd.png'))
        found = json.loads(case.execute(['ffprobe', '-v', 'quiet', '-show_streams', '-of', 'json', case.path('lcd.png')]).text)
        case.equal([(s['codec_name'], s['width'], s['height']) for s in found.get('streams', [])], [('png', 544, 288)],
                   'the picture')


if __name__ == '__main__':
    harness.main({'screens-are-the-same-in-both-languages': walk, 'edits-are-on-the-air-and-survive-a-restart': edits,
                  'a-card-that-does-not-run-says-why': not_running, 'tables-keep-their-intervals': beside_the_carousel})
