"""Advertisement flood: CPU per advertisement of lumerix (--scan and tray) against bluetoothctl.

Starts the modelled bluetoothd on a private system bus and has it emit PropertiesChanged signals
(RSSI + ManufacturerData) at a fixed rate from its own connection, as bluetoothd does with
DuplicateData. lumerix and `bluetoothctl scan on` listen to the same flood at the same time; their
CPU time over a window (all threads, from /proc/PID/task/*/schedstat) is divided by the number of
signals sent in it. A second, traced window gives the latency from the signal to the handler.

    LUMERIX_BIN=build/default/bin/lumerix /usr/bin/python3 bench/flood.py [--seconds 10] [--rate 1800]
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '..', 'tests', 'e2e'))


import lxharness as h  # noqa: E402  pylint: disable=wrong-import-position
import trayharness  # noqa: E402  pylint: disable=wrong-import-position

def cpu_seconds(pid):
    return trayharness._process_figures(pid)[0]  # pylint: disable=protected-access


def thread_cpu(pid):
    """CPU seconds per thread name."""
    out = {}
    for tid in os.listdir(f'/proc/{pid}/task'):
        try:
            with open(f'/proc/{pid}/task/{tid}/comm', encoding='utf-8') as f:
                name = f.read().strip()
            with open(f'/proc/{pid}/task/{tid}/schedstat', encoding='utf-8') as f:
                out[name] = out.get(name, 0) + int(f.read().split()[0]) / 1e9
        except OSError:
            pass
    return out


def add_devices(bluez, count, lx, adapter='hci0'):
    paths = []
    for i in range(count):
        address = 'AA:BB:CC:00:%02X:%02X' % (i // 256, i % 256)
        if lx:
            paths.append(bluez.add_receiver((address, '10.0.%d.%d' % (i // 200, i % 200 + 1), 12, 34, 'Room %d' % i),
                                            -60, adapter=adapter))
        else:
            paths.append(bluez.add_device(address, 'Phone %d' % i, rssi=-60, manufacturer=None, adapter=adapter))
    return paths


def start_bluetoothctl(env):
    # pylint: disable=consider-using-with
    return subprocess.Popen(['bluetoothctl', '--timeout', '600', 'scan', 'on'], env=env, stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def measure(flood, procs, paths, rate, seconds, lx, settle=2.0):
    """CPU µs per signal of each process over `seconds` of flood."""
    flood.start(paths, rate, seconds + settle + 1, lx)
    time.sleep(settle)
    n0 = flood.count()
    cpu0 = {k: cpu_seconds(p.pid) for k, p in procs.items()}
    threads0 = thread_cpu(procs['lumerix'].pid)
    time.sleep(seconds)
    n1 = flood.count()
    cpu1 = {k: cpu_seconds(p.pid) for k, p in procs.items()}
    threads1 = thread_cpu(procs['lumerix'].pid)
    flood.stop()
    sent = max(1, n1 - n0)
    per_thread = {k: 1e6 * (v - threads0.get(k, 0)) / sent for k, v in threads1.items()}
    if os.environ.get('FLOOD_THREADS'):
        print('  lumerix threads, µs per signal: ' +
              ', '.join(f'{k} {v:.1f}' for k, v in sorted(per_thread.items(), key=lambda kv: -kv[1]) if v >= 0.05))
    return {k: 1e6 * (cpu1[k] - cpu0[k]) / sent for k in procs}, sent / seconds


TRACE = re.compile(r'discovery (\S+) rssi (-?\d+) at (\d+)')


def latencies(log_text, flood_times, paths):
    """Signal-to-handler latencies in ms, pairing each device's traced lines with its sends in order."""
    by_id = {}
    for ident, _, at in TRACE.findall(log_text):
        by_id.setdefault(ident, []).append(int(at) / 1e6)
    out = []
    for path in paths:
        address = path.rsplit('dev_', 1)[1].replace('_', ':')
        seen = by_id.get(h.identifier(address), [])
        sent = flood_times.get(path, [])
        # The first lines may be InterfacesAdded or the device's earlier advertisements: pair from the end.
        k = min(len(seen), len(sent))
        out += [1000 * (s - t) for s, t in zip(seen[len(seen) - k:], sent[len(sent) - k:])]
    return sorted(out)


def p99(values):
    return values[min(len(values) - 1, int(0.99 * len(values)))] if values else float('nan')


def scan_case(binary, lx, rate, seconds):
    bus = h.PrivateBus()
    bluez = h.Bluez(bus)
    try:
        bluez.add_adapter()
        flood = h.Flood(bluez)
        paths = add_devices(bluez, 10, lx)
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address, QT_QPA_PLATFORM='offscreen')
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        log = tempfile.NamedTemporaryFile(prefix='lx-flood-', suffix='.log')  # pylint: disable=consider-using-with
        prefix = os.environ.get('FLOOD_PREFIX', '').split()
        lum = subprocess.Popen(prefix + [binary, '--scan', '600'], env=dict(env, LUMERIX_LOG='stderr'),  # pylint: disable=consider-using-with
                               stdout=subprocess.DEVNULL, stderr=log)
        ctl = start_bluetoothctl(env)
        h.wait_for_discovery(bluez)
        time.sleep(1)
        figures, achieved = measure(flood, {'lumerix': lum, 'bluetoothctl': ctl}, paths, rate, seconds, lx)
        lat = []
        if lx:
            h.stop_process(lum)
            traced = subprocess.Popen([binary, '--scan', '600'],  # pylint: disable=consider-using-with
                                      env=dict(env, LUMERIX_LOG='stderr', LUMERIX_TRACE_DISCOVERY='1'),
                                      stdout=subprocess.DEVNULL, stderr=log)
            time.sleep(2)
            flood.start(paths, rate, 4, lx)
            time.sleep(5)
            with open(log.name, encoding='utf-8', errors='replace') as f:
                lat = latencies(f.read(), flood.times(), paths)
            lum = traced
        for p in (lum, ctl):
            h.stop_process(p)
        return figures, achieved, lat
    finally:
        bluez.stop()
        bus.stop()


def tray_case(binary, rate, seconds):
    with trayharness.TrayDesktop() as desktop:
        flood = h.Flood(desktop.bluez)
        program = desktop.launch(binary=binary)
        desktop.tray_menu()
        h.wait_for(lambda: desktop.adapter_calls('StartDiscovery') >= 1, 15, 'scanning')
        paths = add_devices(desktop.bluez, 50, True)
        ctl = start_bluetoothctl(desktop.env)
        time.sleep(2)
        figures, achieved = measure(flood, {'lumerix': program, 'bluetoothctl': ctl}, paths, rate, seconds, True)
        h.stop_process(ctl)
        program.send_signal(signal.SIGTERM)
        program.wait(15)
        return figures, achieved


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--seconds', type=float, default=10)
    parser.add_argument('--rate', type=float, default=1800)
    parser.add_argument('--binary', default=os.environ.get('LUMERIX_BIN', 'build/default/bin/lumerix'))
    parser.add_argument('--cases', default='lx,other,tray')
    a = parser.parse_args()
    goals = {'lx': 0.33, 'other': 0.25, 'tray': 0.5}
    titles = {'lx': '"LX" flood, 10 receivers, --scan', 'other': 'other devices flood, 10 devices, --scan',
              'tray': '"LX" flood, 50 receivers, tray'}
    print(f'{a.binary}: {a.rate:.0f} signals/s requested, {a.seconds:.0f} s windows')
    print(f'{"flood":44} {"signals/s":>9} {"lumerix µs":>11} {"btctl µs":>9} {"ratio":>6} {"goal":>5}')
    for case in a.cases.split(','):
        lat = None
        if case == 'tray':
            figures, achieved = tray_case(a.binary, a.rate, a.seconds)
        else:
            figures, achieved, lat = scan_case(a.binary, case == 'lx', a.rate, a.seconds)
        ratio = figures['lumerix'] / figures['bluetoothctl'] if figures['bluetoothctl'] > 0 else float('nan')
        print(f'{titles[case]:44} {achieved:9.0f} {figures["lumerix"]:11.1f} {figures["bluetoothctl"]:9.1f} '
              f'{ratio:6.2f} {goals[case]:5.2f}', flush=True)
        if lat:
            print(f'  signal -> handler latency over {len(lat)} advertisements: median {lat[len(lat) // 2]:.1f} ms, '
                  f'p99 {p99(lat):.1f} ms (goal 50 ms)', flush=True)


if __name__ == '__main__':
    main()
