#!/usr/bin/env python3
# Every command that README and documents give, in their order and as given, from a fresh folder. Each must succeed.
# And the tests that they name.
import os
import re
import shutil
import subprocess

import harness

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DOCUMENTS = ('README.md', *(f'docs/{name}.md' for name in (
    'benchmarks', 'building', 'calibration', 'headend', 'management-datagram', 'porting', 'proof', 'report', 'snmp', 'tracing',
    'tscheck', 'web')))
SKIPPED = {r'\./(run|test) +builds': 'what the two commands are', r'ffplay': 'a player needs a screen',
           r'.*qamctl panel': 'needs a terminal: panel.py', r'apt-get': 'installed by ./test',
           r'gtkwave': 'a viewer needs a screen', r'ssh': 'another machine', r'QAM_LONG=1': 'a long campaign',
           r'.*\[--': 'the form of a command',
           r'.*build/libfuzzer': 'a build for another engine',
           r'build/gcc/tests/': 'ctest runs them', r'arm-linux': 'after a build for another processor',
           r'\./test --browser': 'axe-core is from outside Debian',
           r'/usr/bin/python3 bench/web_page': 'needs Chromium, and measures for long',
           r'bench/snmp\.py': 'needs snmpd, and measures for long'}
SHORTER = {'./run': 'chassis', '--count 1000': '--count 20', '--count 500': '--count 5', '--count 100': '--count 5', '--days 30': '--days 0.1', 'seq 1059': 'seq 2', '5300': '53', '/usr/bin/time -v': 'time',
           './build/gcc/bench/card_times panel': 'timeout 3 ./build/gcc/bench/card_times panel',
           'bench/controller': 'bench/controller --help',
           'python3 bench/instructions.py': 'uncounted bench/instructions.py'}

# ./run without its build; what runs until a user ends it runs beside the following commands. Of a build, the names of
# its targets or its preset are looked up; a count is called where valgrind is missing, which shows a wrong call.
PRELUDE = '''
set -e
ip link set lo up
server=
stop() { [ -z "$server" ] || { kill $server || true; wait $server || true; server=; }; }
trap 'stop; kill $(jobs -p) 2>/dev/null || true' EXIT
headend() {
  [ -e other ] || build/gcc/headend/headend --init-flash --flash other
  build/gcc/headend/headend --flash other "$@"
}
qamctl() { build/gcc/tools/qamctl "$@"; }
timeout() { command timeout "$@" || [ $? = 124 ]; }
snmptrapd() { command snmptrapd "$@" & sleep 1; }
ninja() { command ninja -n "$@"; }
cmake() {
  case "$*" in
    *--preset*) grep "name.: .${!#}.," CMakePresets.json ;;
    '--install build/card '*) command cmake --install build/gcc --component module "${@:3}" ;;
    *) command cmake "$@" ;;
  esac
}
uncounted() { PATH=/nowhere "$(command -v python3)" "$@" || [ $? = 77 ]; }
chassis() {
  stop
  [ -e flash ] || build/gcc/headend/headend --init-flash --flash flash
  [ $# != 0 ] || set -- --psi 1.1=samples/two-programmes.ts --psi 1.2=samples/psi-small.ts
  case " $* " in
    *' --fast '*) build/gcc/headend/headend --flash flash "$@" ;;
    *) build/gcc/headend/headend --flash flash "$@" >server.log 2>&1 & server=$!; qamctl wait --patience 30; sleep 1 ;;
  esac
}
'''


# (line, commands, lines that they must print) of each block that is indented or marked sh or python. What it prints is
# a block without a mark directly behind it, or what follows a line with a $.
def blocks(file):
    text = open(os.path.join(ROOT, file)).read()
    form = r'^```(?:sh|python)\n(.*?)^```\n(?:\n```\n(.*?)^```)?|^```.*?^```|((?:^    [^\n]*\n)+)'
    for found in re.finditer(form, text, re.MULTILINE | re.DOTALL):
        commands = found[1] or re.sub('^    ', '', found[3] or '', flags=re.MULTILINE)
        printed = (found[2] or '').splitlines()
        if commands.startswith('$ '):
            commands, *printed = commands[2:].splitlines()
        yield text.count('\n', 0, found.start()) + 1, commands + '\n', printed


def is_command(text):
    word = text.split()[0]
    ours = word in ('headend', 'qamctl', 'time', 'for') or word.startswith(('(', '.', 'build/', 'QAM_', 'TASK=', 'sets='))
    return ours or shutil.which(word) is not None


def every_command_of_a_document_can_be_done(case):
    build = os.path.dirname(os.path.dirname(case.args.headend))
    os.makedirs(case.path('build'))
    os.symlink(build, case.path('build', 'gcc'))
    for name in ('samples', 'mibs', 'docs', 'bench', 'examples', 'CMakePresets.json'):
        os.symlink(os.path.join(ROOT, name), case.path(name))
    script, due = f'export HOME="{case.folder}"\n' + PRELUDE, {}
    for file in DOCUMENTS:
        script += f'cd "{case.folder}"; rm -rf flash; chassis\n'
        for line, text, printed in blocks(file):
            kept = ''.join(each for each in text.splitlines(True)
                           if not any(re.match(pattern, each.strip()) for pattern in SKIPPED))
            if text.startswith('import '):
                kept = f"python3 - <<'PYTHON'\n{text}PYTHON\n"
            if kept.strip() and is_command(kept):
                due[f'{file}:{line}'] = printed
                for long, short in SHORTER.items():
                    kept = kept.replace(long, short)
                script += f"echo '== {file}:{line}'\n" + kept
    # The documents name the default ports: in a network of the test's own no other headend has them.
    alone = ['unshare', '--net'] if os.getuid() == 0 else ['unshare', '--net', '--map-root-user']
    if subprocess.run([*alone, 'true'], capture_output=True).returncode != 0:
        raise SystemExit(77)
    done = subprocess.run([*alone, 'bash', '-c', script], capture_output=True, stdin=subprocess.DEVNULL, timeout=600)
    text = done.stdout.decode(errors='replace')
    case.equal(done.returncode, 0, f'exit code after: {text[-1500:]} {done.stderr.decode(errors="replace")[-1500:]}')
    outputs = dict(part.split('\n', 1) for part in text.split('== ')[1:])
    for place, printed in due.items():
        missing = [line for line in printed if line.strip() != '...' and line not in outputs.get(place, '')]
        case.equal(missing, [], f'lines that {place} does not print')
    case.check(len(due) > 35 and sum(map(len, due.values())) > 3, f'only {len(due)} blocks of commands found')


def a_test_that_is_named_in_a_document_exists(case):
    known = set()
    for folder, _, files in os.walk(os.path.join(ROOT, 'tests')):
        for file in files:
            script, kind = os.path.splitext(file)
            form = {'.cpp': r'^TEST(?:_F)?\((\w+), (\w+)\)', '.py': r'^(def) (\w+)\(case'}.get(kind)
            for suite, name in re.findall(form, open(os.path.join(folder, file)).read(), re.MULTILINE) if form else ():
                known.add(f'{suite}.{name}' if kind == '.cpp' else f'e2e.{script}.{name.replace("_", "-")}')
    named = re.findall(r'`((?:e2e\.\w+|[A-Z]\w+)\.[A-Za-z][\w-]+)`', open(os.path.join(ROOT, 'docs/proof.md')).read())
    case.equal([name for name in named if name not in known], [], 'tests that there are not')
    case.check(len(named) > 10, f'only {named}')


harness.main(__name__)
