#!/usr/bin/env python3
# The module as a package: what a chassis includes, links and gets told, from an installed copy alone.
import glob
import os
import re
import shutil

import harness
from harness import read, write

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLE = os.path.join(ROOT, 'examples', 'smallest-chassis')
SENT = '10 packets sent, interval 100 ticks, 1 packet stored'
# Macros of kernels and agents whose names the module's sources use too.
MACROS = ['-DOK=0', '-DERROR=(-1)', '-DNO_WAIT=0', '-DWAIT_FOREVER=(-1)', '-DMSG_PRI_NORMAL=0', '-DMSG_Q_PRIORITY=1',
          '-DASN_INTEGER=2', '-DRONLY=1', '-DRWRITE=2', '-DMAX_OID_LEN=64', '-DCOMMIT=3', '-DAF_INET=2', '-DSOCK_DGRAM=1']
# What a compiler may call of its own run-time library.
HELPERS = r'_GLOBAL_OFFSET_TABLE_|__aeabi_\w+|__stack_chk_\w+'


def build_of(case):
    return os.path.dirname(os.path.dirname(case.args.headend))


# To a folder with a space in its name.
def installed(case, build=None):
    prefix = case.path('a package')
    case.execute(['cmake', '--install', build or build_of(case), '--component', 'module', '--prefix', prefix])
    return prefix


def compile_with(case, compiler, prefix, *words, codes=(0,)):
    return case.execute([*compiler.split(), '-Wall', '-Wextra', '-Wno-unused-parameter', '-Werror', '-pedantic', '-I',
                         os.path.join(prefix, 'include'), *words], codes)


def a_chassis_is_built_from_the_installed_package_alone(case):
    write(case.path('a package', 'include', 'qamcard', 'types.h'), b'#error an older version\n')
    prefix, example, build = installed(case), case.path('example'), case.path('build')
    shutil.copytree(EXAMPLE, example)
    case.execute(['cmake', '-G', 'Ninja', '-S', example, '-B', build, f'-DCMAKE_PREFIX_PATH={prefix}'])
    case.execute(['cmake', '--build', build])
    config = os.environ | {'PKG_CONFIG_PATH': os.path.join(prefix, 'lib', 'pkgconfig')}
    flags = case.execute(['pkg-config', '--cflags', '--libs', 'qamcard'], env=config).text
    case.execute(['sh', '-c', f'cc -std=c99 main.c services.c {flags.strip()} -pthread -o {build}/by-pkg-config'], cwd=example)
    for name in ('chassis-c', 'chassis-cpp', 'by-pkg-config'):
        case.says(case.execute([os.path.join(build, name)]), SENT)


def learn(case, prefix, toolchain=(), emulator=()):
    example, build = case.path('example'), case.path('build')
    shutil.copytree(EXAMPLE, example)
    for file, old, new in (('main.c', 'int main(', '#include "qamcard/conformance.h"\nint main('),
                           ('main.c', '  result = loadTable', '  qamConformance(0);\n  result = loadTable'),
                           ('CMakeLists.txt', 'qamcard::qamcard', 'qamcard::conformance')):
        text = read(os.path.join(example, file)).decode()
        write(os.path.join(example, file), text.replace(old, new).encode())
    case.execute(['cmake', '-S', example, '-B', build, f'-Dqamcard_ROOT={prefix}', *toolchain])
    case.execute(['cmake', '--build', build, '--target', 'chassis-c'])
    # Its services for the agent are empty.
    case.says(case.execute([*emulator, os.path.join(build, 'chassis-c')]), 'PASS queue.order', 'PASS register.test',
              'FAIL agent.compare', SENT)


def a_chassis_in_c_learns_which_of_its_services_are_wrong(case):
    learn(case, installed(case))


# With the library of ./test --preset arm9, which CI has.
def a_chassis_of_the_controllers_code_learns_it_too(case):
    build = os.path.join(ROOT, 'build', 'arm9')
    if not os.path.exists(os.path.join(build, 'libqamcard.a')) and 'CI' not in os.environ:
        raise SystemExit(harness.SKIPPED)
    learn(case, installed(case, build),
          [f'-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/arm9.cmake', f'-DCMAKE_FIND_ROOT_PATH={case.folder}'],
          ['qemu-arm', '-cpu', 'arm926', '-L', '/usr/arm-linux-gnueabi'])


# The headers give C linkage, so that a service of the wrong type does not even compile.
def a_missing_service_is_a_link_error_that_names_it(case):
    prefix = installed(case)
    compile_with(case, 'gcc -std=c99', prefix, '-c', os.path.join(EXAMPLE, 'main.c'), '-o', case.path('main.o'))
    for source, compiler, service, broken in (('services.c', 'gcc -std=c99', 'msgQReceive', 'msgQGet('),
                                              ('services.cpp', 'g++ -std=c++11', 'Dog', 'Cat(')):
        text = read(os.path.join(EXAMPLE, source)).decode()
        write(case.path(source), re.sub(rf'\b{service}\(', broken, text).encode())
        compile_with(case, compiler, prefix, '-Wno-missing-declarations', '-c', case.path(source), '-o', case.path('services.o'))
        run = case.execute(['g++', case.path('main.o'), case.path('services.o'), os.path.join(prefix, 'lib', 'libqamcard.a'),
                            '-pthread', '-o', case.path('chassis')], (1,))
        case.says(run, f"undefined reference to .{service}'")


def a_header_compiles_alone_as_c99_and_cpp11_beside_a_kernels_macros(case):
    prefix = installed(case)
    headers = sorted(os.listdir(os.path.join(prefix, 'include', 'qamcard')))
    case.check(len(headers) > 7, f'only {headers}')
    for header in headers:
        write(case.path('alone.c'), f'#include "qamcard/{header}"\n'.encode())
        for compiler in ('gcc -std=c99', 'g++ -x c++ -std=c++11', 'clang -std=c99', 'clang++ -x c++ -std=c++11',
                         'arm-linux-gnueabi-gcc -std=c99', 'arm-linux-gnueabi-g++ -x c++ -std=c++11'):
            if shutil.which(compiler.split()[0]):
                compile_with(case, compiler, prefix, *MACROS, '-fsyntax-only', case.path('alone.c'))


# The names of the guide's table, without those of the C library, and with them.
def listed():
    guide = read(os.path.join(ROOT, 'docs', 'porting.md')).decode()
    rows = re.search(r'\| From \| The module calls or uses \|\n(.*?)\n\n', guide, re.DOTALL)[1].splitlines()[1:]
    names = [set(re.findall(r'`(\w+)`', row.split('|')[2])) for row in rows]
    return set.union(*names[:-1]), set.union(*names)


# The names that the libraries need of others.
def needed_by(case, *libraries):
    lines = [line.split() for line in case.execute(['nm', *libraries]).text.splitlines()]
    defined = {words[2] for words in lines if len(words) == 3}
    needed = {words[1] for words in lines if len(words) == 2 and words[0] == 'U'} - defined
    return {name for name in needed if not re.fullmatch(HELPERS, name)}


def the_libraries_need_what_the_guide_lists_and_nothing_else(case):
    services, everything = listed()
    installed_one = os.path.join(installed(case), 'lib', 'libqamcard.a')
    others = [glob.glob(os.path.join(ROOT, 'build', preset, 'libqamcard.a')) for preset in ('card*', 'arm9')]
    for library in (installed_one, *sum(others, [])):
        needed = needed_by(case, library)
        case.equal(sorted(needed - everything), [], f'names that {library} needs and the guide does not list')
        case.equal(sorted(services - needed), [], f'services that the guide lists and {library} does not need')
    with_checks = needed_by(case, installed_one, installed_one.replace('qamcard.a', 'qamcard_conformance.a'))
    case.equal(sorted(with_checks - everything), [], 'names that the checks need and the guide does not list')


harness.main(__name__)
