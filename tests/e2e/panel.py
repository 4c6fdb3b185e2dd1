#!/usr/bin/env python3
"""The front panel: what the keys show, beside the carousel, and where a card does not run."""
import itertools
import json
import os

import harness


def rows(text):
    """Those of the LCD as JSON, as far as there is text. The inverse one has a > before it."""
    lcd = json.loads(text)
    inverse = {place['row'] for place in lcd['inverse'] if place['x'] == 0}
    return [('>' if row in inverse else '') + text for row, text in enumerate(lcd['rows']) if text or any(lcd['rows'][row:])]


SET = ('>Qam Mode      64', 'Symbol Rate', 'RF Freq')
SWITCHES = ('输出电平', '输出开关    关闭', '>调制开关    打开')
STEPS = (  # keys, and the expected rows of the LCD; any key leaves a value that is only shown
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
    ('up down ok', 'RF Freq', '', '  0554.000 MHz'),
    ('up down ok', 'RF Level', '', '  100.0  dBuV'),
    ('up down down', 'Ch.1', 'RF Level', 'RF Switch     On', '>QAM Switch    On'),
    ('cancel down ok', 'Ch.2', *SET),
    ('down ok', 'Symbol Rate', '', '  6.875  Mbps'),
    ('up down down down down', 'Ch.2', 'RF Level', 'RF Switch     On', '>QAM Switch    On'),
    ('up up up ok', 'RF Freq', '', '  0562.000 MHz'),
    ('up down ok', 'RF Level', '', '  100.0  dBuV'),
    ('up cancel up up', 'QAM Sta.', '>Version', 'Ch.1', 'Ch.2'),
    ('ok', 'Version', '>HARD Ver.   V1.0', 'MCU Ver.V2.1.05A', 'FPGA Ver.V2.1.05'),
    ('cancel cancel', 'QAM card3', '>QAM Sta.', 'QAM SET'),
    ('down ok up', 'QAM SET', 'RF Level', 'Power Switch  On', '>RF Switch     On'),
    ('ok', 'RF Switch', '>On', 'Off'),
    ('cancel up ok', 'Power Switch', '>On', 'Off'),
    ('down ok', 'QAM SET', 'RF Freq', 'RF Level', '>Power Switch Off'),
    ('up ok up', 'RF Level', '', '  115.0  dBuV'),
    ('cancel up ok up', 'RF Freq', '', '  1000.000 MHz'),
    ('cancel up ok up', 'Symbol Rate', '', '  7.000  Mbps'),
    ('cancel up ok up ok', 'QAM SET', '>Qam Mode     256', 'Symbol Rate', 'RF Freq'),
    ('cancel cancel down ok', '前端', 'QAM卡1', 'QAM卡3', '>语言        中文'),
    ('up ok', 'QAM卡3', '>调制器状态', '调制器设置'),
    ('ok', '调制器状态', '>版本', '频点1', '频点2'),
    ('down ok', '频点1', '>调制模式     256', '符号率', '输出频率'),
    ('up', '频点1', *SWITCHES),
    ('cancel down ok', '频点2', '>调制模式     256', '符号率', '输出频率'),
    ('up', '频点2', *SWITCHES),
    ('cancel cancel down ok', '调制器设置', '>调制模式     256', '符号率', '输出频率'),
    ('up', '调制器设置', *SWITCHES),
    ('ok', '调制开关', '>打开', '关闭'),
    ('down ok', '调制器设置', *SWITCHES[:2], '>调制开关    关闭'),
    ('up ok', '输出开关', '打开', '>关闭'),
    ('cancel cancel cancel up ok ok ok', '版本', '>硬件版本    V1.0', '软件版本V2.1.05A', '逻辑版本 V2.1.05'),
)


def the_lcd_follows_the_keys(case):
    flash, flags, end, png = case.flash(), [], len(STEPS) + 3, case.path('lcd.png')
    for n, (keys, *_) in enumerate(STEPS, 3):
        flags += ['--do', f'@{n} key {keys}', '--do', f'@{n}.9 lcd --json']
    run = case.fast(flash, end + 1, '--card', '1', '--card', '3', '--key', 'ok,down,ok,cancel,cancel@2', *flags,
                    '--do', f'@{end} lcd', '--do', f'@{end} lcd --png {png}')
    shown = [rows(each['output']) for each in run.report['commands'] if each['command'] == 'lcd --json']
    for (keys, *wanted), got in itertools.zip_longest(STEPS, shown):
        case.equal(got, wanted, f'rows after {keys}')
    case.says(run, r'版本\n硬件版本    V1.0')
    records = [harness.read(os.path.join(flash, harness.record_file(slot))) for slot in (1, 3)]
    case.equal([(record[24], record[29], record[32]) for record in records], [(6, 0, 15), (7, 1, 0)],
               'constellation, QAM switch and power in the records')
    found = case.findings('ffprobe', '-v', 'quiet', '-show_streams', '-of', 'json', png)['streams']
    case.equal([(s['codec_name'], s['width'], s['height']) for s in found], [('png', 544, 288)], 'the picture')


def a_card_that_does_not_run_says_why(case):
    """None of its items can be entered. Without a key for a second the panel goes back to its first row."""
    flash = case.flash()
    os.remove(os.path.join(flash, harness.BITSTREAM))
    for timeout, keys, *wanted in (('0', ('ok', 'ok', 'right', 'down', 'ok'), 'QAM card1', 'no bitstream'),
                                   ('1', ('down', 'ok'), '前端', '>QAM卡1         !', '语言        中文')):
        with harness.Server(case, flash, '--menu-timeout', timeout) as server:
            for due in (['Headend', '>QAM card1      !', 'Language English'], wanted):
                lcd = server.wait(lambda: rows(case.qamctl(server.address, 'lcd', '--json').text) == due)
                case.check(lcd, f'no {due} on the LCD')
                case.qamctl(server.address, 'key', *keys)
            server.stop(code=1)


def tables_keep_their_intervals_while_a_value_is_edited(case):
    out, psi = case.path('out.ts'), case.sample('psi-many.ts')
    run = case.fast(case.flash(), 8, '--psi', f'1.1={psi}', '--out', f'1.1={out}',
                    '--key', 'ok,down,ok,down,down,ok,up@2', '--key', 'ok@7')
    case.clean(run)
    case.equal(case.card(run, 1)['channels'][0]['rf']['frequency_khz'], 1000000, 'frequency after the edit')
    case.tscheck(out, '--psi', psi, *harness.RATE, '--no-limits')


harness.main(__name__)
