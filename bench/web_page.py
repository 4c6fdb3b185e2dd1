#!/usr/bin/env python3
"""Measures the web page in Chromium on this machine: the time to its first picture, the time from the answer to a change to
what the page shows, and what viewers cost the headend. Six cards with PSI and a routed programme. Chromium, its driver and
python3-selenium must be installed: './test --browser' does it. A busy machine makes all of it slower."""
import argparse
import http.client
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# When a picture of the view is there, in ms since the browser began to load the page.
WATCH = '''new MutationObserver((_, me) => { if (document.querySelector('.slot .state')) { window.drawn = performance.now(); me.disconnect(); } })
    .observe(document, {childList: true, subtree: true})'''
# Sends a change, and gives the ms from its answer to the frame in which a text of the page, or the LCD, has changed as wanted.
CHANGE = '''const [words, wanted, done] = arguments;
    const lcd = () => document.querySelector('canvas.lcd')?.toDataURL();
    const before = lcd();
    fetch('/api/1/do', {method: 'POST', headers: {'Content-Type': 'application/json'}, body: JSON.stringify({words})}).then((answer) => {
      const began = performance.now();
      const look = () => {
        if (!answer.ok || performance.now() - began > 5000) return done(-1);
        if (wanted ? document.querySelector('#view').textContent.includes(wanted) : lcd() !== before) return done(performance.now() - began);
        requestAnimationFrame(look);
      };
      look();
    });'''


def row(name, values, unit):
    print(f'{name:<44} median {statistics.median(values):7.1f}  most {max(values):7.1f} {unit}  of {len(values)}', flush=True)


def processor_seconds(pid):
    with open(f'/proc/{pid}/stat', encoding='ascii') as file:
        fields = file.read().rpartition(')')[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def share(pid, seconds):
    began = processor_seconds(pid)
    time.sleep(seconds)
    return 100 * (processor_seconds(pid) - began) / seconds


def stream(address):
    connection = http.client.HTTPConnection(address, timeout=10)
    connection.request('GET', '/api/1/events')
    return connection, connection.getresponse()


def viewers(headend, address, seconds):
    print(f'headend without a viewer                     {share(headend.pid, seconds):7.1f} % of a core')
    reader = f'''import http.client, threading, time
def view():
    connection = http.client.HTTPConnection({address!r})
    connection.request('GET', '/api/1/events')
    answer = connection.getresponse()
    while answer.readline(): pass
for _ in range(10): threading.Thread(target=view, daemon=True).start()
time.sleep(1000)'''
    with subprocess.Popen([sys.executable, '-c', reader]) as process:
        slow = stream(address)  # which is never read
        time.sleep(2)
        print(f'headend with ten viewers and one that is slow {share(headend.pid, seconds):6.1f} % of a core')
        process.kill()
        slow[0].close()


def in_browser(address, token, rounds):
    from selenium import webdriver
    options = webdriver.chrome.options.Options()
    for each in ('headless=new', 'disable-gpu', *['no-sandbox'] * (os.geteuid() == 0)):
        options.add_argument('--' + each)
    browser = webdriver.Chrome(options=options)
    try:
        browser.execute_cdp_cmd('Page.addScriptToEvaluateOnNewDocument', {'source': WATCH})
        drawn = []
        for number in range(rounds + 1):
            browser.get(f'http://{address}/?{number}#/1/overview')
            while (found := browser.execute_script('return window.drawn')) is None:
                time.sleep(0.02)
            drawn.append(found)
        row('first picture (the chassis with its states)', drawn[1:], 'ms')
        status = browser.execute_async_script('''fetch('/api/session', {method: 'POST', headers: {'Content-Type': 'application/json'},
            body: JSON.stringify({token: arguments[0]})}).then((answer) => arguments[1](answer.status))''', token)
        assert status == 200, status
        browser.get(f'http://{address}/?rf#/1/rf')
        time.sleep(1)
        changes = [browser.execute_async_script(CHANGE, ['var', 'set', '1', 'rfreq', str(470000 + 24000 * number)], f'{470 + 24 * number}.0000')
                   for number in range(rounds)]
        row('frequency, from the answer to the page', changes, 'ms')
        browser.get(f'http://{address}/?panel#/1/panel')
        time.sleep(1)
        row('key, from the answer to the LCD of the page', [browser.execute_async_script(CHANGE, ['key', 'ok' if number % 2 == 0 else 'cancel'], '')
                                                            for number in range(rounds)], 'ms')
    finally:
        browser.quit()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--headend', default=os.path.join(ROOT, 'build', 'gcc', 'headend', 'headend'))
    parser.add_argument('--rounds', type=int, default=20)
    parser.add_argument('--seconds', type=int, default=20, help='for each share of a core')
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        flash, token = os.path.join(folder, 'flash'), os.path.join(folder, 'token')
        samples = os.path.join(ROOT, 'samples')
        subprocess.run([options.headend, '--init-flash', '--flash', flash], check=True, stdout=subprocess.DEVNULL)
        command = [options.headend, '--flash', flash, '--manage', '127.0.0.1:0', '--web', '127.0.0.1:0', '--web-write', '--web-token-file', token,
                   '--log', os.path.join(folder, 'log')]
        for slot in '12345':
            command += ['--card', slot, '--psi', f'{slot}.1={samples}/psi-small.ts']
        command += ['--source', f'6={samples}/four-programmes-cbr.ts', '--programme', '2.2=6.1:101']
        with open(os.path.join(folder, 'out'), 'w+b') as out, subprocess.Popen(command, stdout=out) as headend:
            try:
                time.sleep(5)
                with open(out.name, 'rb') as file:
                    address = re.search(rb'web page on http://([^/]+)/', file.read())[1].decode()
                with open(token, encoding='ascii') as file:
                    in_browser(address, file.read().strip(), options.rounds)
                time.sleep(6)  # until the last viewer counts no more
                viewers(headend, address, options.seconds)
            finally:
                headend.terminate()


main()
