#!/usr/bin/env python3
"""An upload while the card sends: nothing on the air is ever damaged, also with the send queue under pressure."""
import os

import harness
from harness import PSI_LOCK, RATE, READ, TYPES, Client, Server

# name: first upload, second upload, interval of all types, nanoseconds per bus access. The more a packet costs to
# write, the fuller the queues; 8 packets a tick of 204 writes at 500 ns leave little of the tick.
ROWS = {
    'fast-bus': ('psi-many.ts', 'psi-full.ts', 1, 30),
    'busy': ('psi-many.ts', 'psi-small.ts', 1, 150),
    'hard-pressed': ('psi-many.ts', 'psi-many.ts', 1, 500),
    'emptied': ('psi-full.ts', 'two-programmes.ts', 3, 300),
}
OFFSETS = ('3', '3.00037', '3.0021', '3.00333', '3.0109')  # the start takes up to 2 s
LOADED = 4.5  # the second upload is in place
CUTS = {'fast-bus', 'busy', 'hard-pressed'}  # sections of several packets are always on the way


def reload(name):
    first, second, ticks, bus_ns = ROWS[name]

    def run_case(case):
        cut = 0
        for offset in OFFSETS:
            flash, out = case.flash(f'flash{offset}'), case.path('out.ts')
            intervals = [word for table in TYPES for word in ('--interval', f'1.1.{table}={ticks}')]
            run = case.fast(flash, 7.5, '--bus-ns', str(bus_ns), '--out', f'1.1={out}', *intervals, '--psi',
                            f'1.1={case.sample(first)}', '--psi', f'1.1={case.sample(second)}@{offset}')
            case.clean(run)
            case.card(run, 1)
            seen = case.judge('--self', out, '--allow-cut', '--every-pid')
            cut += seen.get('cut_sections', 0)
            case.check(seen.get('table_packets', 0) > 20, f'hardly anything on the air: {seen}')
            case.judge('--source', case.sample(second), '--out', out, *RATE, '--untimed', '--from',
                       str(LOADED), '--default-interval', str(ticks))
            os.remove(out)
        if name in CUTS:
            case.check(cut > 0, 'no section was ever cut short, so the rows show nothing')
    return run_case


def starved(case):
    """On a bus so slow that two channels keep the processor busy no request is served, and the load is named."""
    flags = ['--bus-ns', '800']
    for channel in (1, 2):
        flags += [word for t in TYPES for word in ('--interval', f'1.{channel}.{t}=1')]
        flags += ['--psi', f'1.{channel}={case.sample("psi-many.ts")}']
    with Server(case, case.flash(), *flags) as server:
        client = Client(server.port)

        def asked_in_vain():
            client.send(Client.datagram(READ, PSI_LOCK, 1, 1))
            return 'qam0PSISend' in server.text()

        case.check(server.wait(asked_in_vain), f'nobody is named for the delay: {server.text()[-900:]}')
        report = server.stop()
    late = report['late_requests']
    if case.check(late, 'no late request in the report'):
        senders = [load['task'] for load in late[0]['load'] if load['task'].startswith('qam0PSISend')]
        case.equal(sorted(senders), ['qam0PSISend0', 'qam0PSISend1'], f'tasks in {late[0]}')


CASES = {name: reload(name) for name in ROWS} | {'starved': starved}

if __name__ == '__main__':
    harness.main(CASES)
