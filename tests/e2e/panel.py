#!/usr/bin/env python3
"""The front panel over the management socket, beside the carousel, and where a card does not run."""
import json
import os

import harness
from harness import Client, Server

KEY, NO_SUCH_KEY = 15, 0x10A


def shows(case, server, *wanted):
    """Waits for the rows, of which the inverse one has a > before it: keys are answered before the menu acts on them."""
    def rows():
        lcd = json.loads(case.qamctl(server.address, 'lcd', '--json').text)
        inverse = {place['row'] for place in lcd['inverse'] if place['x'] == 0}
        return [('>' if row in inverse else '') + text for row, text in enumerate(lcd['rows'])]
    if not server.wait(lambda: rows() == [*wanted, '', ''][:4]):
        raise AssertionError(f'the LCD shows {rows()} where {wanted} is due')


SET = ('>Qam Mode      64', 'Symbol Rate', 'RF Freq')
STEPS = (  # keys, and the expected rows of the LCD
    ('up', 'Headend', 'QAM card1', 'QAM card3', '>Language English'),
    ('down ok up right', 'QAM SET', *SET),
    ('down down down', 'QAM SET', 'Symbol Rate', 'RF Freq', '>RF Level'),
    ('up up up ok', 'Qam Mode', '>64', '128', '256'),
    ('down cancel', 'QAM SET', *SET),
    ('ok down down down ok', 'QAM SET', *SET),
    ('ok down ok', 'QAM SET', '>Qam Mode     128', 'Symbol Rate', 'RF Freq'),
    ('ok', 'Qam Mode', '64', '>128', '256'),
    ('left left left', 'Headend', '>QAM card1', 'QAM card3', 'Language English'),
    ('left down ok down ok', 'QAM SET', *SET),
    ('cancel up ok down ok ok', 'Ch.1', *SET),  # read only
    ('down ok', 'Symbol Rate', '', '  6.875  Mbps'),
    ('ok cancel cancel cancel down ok', '前端', 'QAM卡1', 'QAM卡3', '>语言        中文'),
    ('down ok ok ok', '版本', '>硬件版本    V1.0', '软件版本V2.1.05A', '逻辑版本 V2.1.05'),
)


def the_lcd_follows_the_keys(case):
    with Server(case, case.flash(), '--card', '1', '--card', '3', '--key', 'ok,down,ok') as server:
        shows(case, server, 'QAM SET', *SET)
        case.qamctl(server.address, 'key', 'cancel', 'cancel')
        for keys, *rows in STEPS:
            case.qamctl(server.address, 'key', *keys.split())
            shows(case, server, *rows)
        case.says(case.qamctl(server.address, 'lcd'), r'版本\n硬件版本    V1.0')
        case.qamctl(server.address, 'lcd', '--png', case.path('lcd.png'))
        found = case.findings('ffprobe', '-v', 'quiet', '-show_streams', '-of', 'json', case.path('lcd.png'))
        case.equal([(s['codec_name'], s['width'], s['height']) for s in found.get('streams', [])], [('png', 544, 288)],
                   'the picture')
        case.equal(Client(server.port).request(KEY, 0, data=b'\x07').result, NO_SUCH_KEY, 'a key that is none')
        case.qamctl(server.address, 'key', 'sideways', codes=(2,))


def a_card_that_does_not_run_says_why(case):
    """None of its items can be entered. Without a key for a second the panel goes back to its first row."""
    flash = case.flash()
    os.remove(os.path.join(flash, harness.BITSTREAM))
    for timeout, keys, rows in (('0', ('ok', 'ok', 'right', 'down', 'ok'), ('QAM card1', 'no bitstream')),
                                ('1', ('down', 'ok'), ('前端', '>QAM卡1         !', '语言        中文'))):
        with Server(case, flash, '--menu-timeout', timeout) as server:
            shows(case, server, 'Headend', '>QAM card1      !', 'Language English')
            server.wait(lambda: 'no_bitstream' in server.text())
            case.qamctl(server.address, 'key', *keys)
            shows(case, server, *rows)
            server.stop(code=1)


def tables_keep_their_intervals_while_a_value_is_edited(case):
    """With keys at virtual times."""
    out, psi = case.path('out.ts'), case.sample('psi-many.ts')
    run = case.fast(case.flash(), 8, '--psi', f'1.1={psi}', '--out', f'1.1={out}',
                    '--key', 'ok,down,ok,down,down,ok,up@2', '--key', 'ok@7')
    case.clean(run)
    case.equal(case.card(run, 1)['channels'][0]['rf']['frequency_khz'], 1000000, 'frequency after the edit')
    case.tscheck(out, '--psi', psi, *harness.RATE, '--no-limits')


harness.main([the_lcd_follows_the_keys, a_card_that_does_not_run_says_why,
              tables_keep_their_intervals_while_a_value_is_edited])
