"""The tray's session D-Bus service and the command line over it: --list, --connect (through the tray
and on their own), one tray per session, and advertisement traces recorded and replayed."""
import json
import os
import subprocess
import time

import dbus

import lxharness
from lxharness import stop_process, wait_for
from test_tray import ROOM_A, ROOM_B, ROOM_C, TrayCase

SERVICE = 'com.zemko.Lumerix'
PATH = '/com/zemko/Lumerix'
IFACE = 'com.zemko.Lumerix1'
BRAVO = ('AA:BB:CC:DD:EE:0B', '10.0.0.11', 11, 22, 'Bravo')


def plain(value):
    """A D-Bus value as the JSON the command line prints would read back."""
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, list):
        return [plain(v) for v in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.Double, float)):
        return float(value)
    if isinstance(value, (dbus.String, str)):
        return str(value)
    return value


class ServiceCase(TrayCase):
    def lumerix(self, *args, timeout=40):
        proc = subprocess.run([os.environ['LUMERIX_BIN'], *args], env=self.desktop.env, capture_output=True,
                              text=True, timeout=timeout, check=False)
        return proc.returncode, proc.stdout, proc.stderr

    def watch_receivers_changed(self):
        """Counts ReceiversChanged from now on; returns a callable giving the count."""
        log_path = os.path.join(self.desktop.root, 'receivers-changed.log')
        log = open(log_path, 'w', encoding='utf-8')  # pylint: disable=consider-using-with
        self.addCleanup(log.close)
        proc = subprocess.Popen(['dbus-monitor', '--address', self.desktop.session.address,
                                 f"type='signal',interface='{IFACE}'"], stdout=log, stderr=subprocess.DEVNULL)
        self.addCleanup(stop_process, proc)
        wait_for(lambda: os.path.getsize(log_path) > 0, 10, 'dbus-monitor')

        def count():
            with open(log_path, encoding='utf-8') as f:
                return f.read().count('member=ReceiversChanged')
        return count

    def service(self):
        bus = self.desktop.session_bus
        wait_for(lambda: bus.name_has_owner(SERVICE), 15, SERVICE)
        return dbus.Interface(bus.get_object(SERVICE, PATH), IFACE)


class ThroughTheTray(ServiceCase):
    def test_list_equals_receivers_and_connect_nearest_reaches_the_running_sender(self):
        self.start_sender('--listen', '19314')
        menu, ads = self.tray_showing([{'Device': 'Lab', 'IP': '10.9.9.9'}], [(ROOM_A, -70), (ROOM_C, -45)],
                          ['Room C', 'Room A', 'Lab'])
        service = self.service()

        code, out, err = self.lumerix('--list', '--json')
        self.assertEqual(code, 0, err)
        listed = json.loads(out)
        expected = plain(service.Receivers())
        # Time seen moves with every advertisement; the rest is the same list.
        for rows in (listed, expected):
            for row in rows:
                row.pop('lastSeenMs', None)
        self.assertEqual(listed, expected)
        self.assertEqual([(r['name'], r['saved']) for r in listed],
                         [('Room C', False), ('Room A', False), ('Lab', True)])
        self.assertEqual(listed[0]['identifier'], lxharness.identifier(ROOM_C[0]))

        code, _, err = self.lumerix('--connect', 'nearest')
        self.assertEqual(code, 0, err)
        frames = wait_for(self.frames_received, 15, 'a frame on the sender port')
        self.assertEqual(frames[0]['fields'], ['10.0.0.7', 'Room C', '9901', 'Room C', ''])

        cases = [('room a', 0), (lxharness.identifier(ROOM_A[0]).lower(), 0), ('Nobody', 3)]
        for query, status in cases:
            with self.subTest(query=query):
                self.assertEqual(self.lumerix('--connect', query)[0], status)
        wait_for(lambda: len(self.frames_received()) == 3, 15, 'two more frames')
        self.assertEqual([f['fields'][1] for f in self.frames_received()], ['Room C', 'Room A', 'Room A'])

        # ReceiversChanged: not for every advertisement, once for a new order.
        signals = self.watch_receivers_changed()
        time.sleep(1.2)  # one held back from the start may still come
        before = signals()
        time.sleep(2)
        self.assertEqual(signals(), before)
        ads.set_rssi(ROOM_A, -30)
        self.wait_for_titles(menu, ['Room A', 'Room C', 'Lab', '---', 'About', 'Exit'])
        wait_for(lambda: signals() > before, 5, 'ReceiversChanged')
        time.sleep(1.5)
        self.assertEqual(signals(), before + 1)

    def test_a_second_tray_exits_and_the_first_keeps_the_name(self):
        self.start_tray()
        self.desktop.tray_menu()
        bus = self.desktop.session_bus
        self.service()
        owner = bus.get_name_owner(SERVICE)
        second = subprocess.run([os.environ['LUMERIX_BIN']], env=self.desktop.env, capture_output=True, text=True,
                                timeout=30, check=False)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertIn('already running', second.stderr)
        self.assertEqual(bus.get_name_owner(SERVICE), owner)
        self.assertIsNone(self.program.poll())


class WithoutATray(ServiceCase):
    def test_standalone_connect_launches_the_sender_which_fetches_bravo(self):
        # Nothing to hand the receiver to: said at once, with its own status.
        code, _, err = self.lumerix('--connect', 'Bravo', '--timeout', '1')
        self.assertEqual(code, 4, err)
        self.assertIn('not installed', err)
        self.install_sender('--fetch', '19319', '--lifetime', '20')
        ads = self.advertiser()
        ads.add(ROOM_A, -40)
        ads.add(BRAVO, -65)

        code, out, err = self.lumerix('--connect', 'Bravo', '--timeout', '5')
        self.assertEqual(code, 0, err)
        self.assertIn('fetched', out)
        frames = self.frames_received()
        self.assertEqual(frames[0]['via'], 'fetch')
        self.assertEqual(frames[0]['fields'], ['10.0.0.11', 'Bravo', '1122', 'Bravo', ''])

        code, _, err = self.lumerix('--connect', 'Charlie', '--timeout', '2')
        self.assertEqual(code, 3, err)
        self.assertIn('No receiver "Charlie" nearby', err)

    def test_a_recorded_scan_replays_to_the_same_receivers(self):
        trace = os.path.join(self.desktop.root, 'trace.jsonl')
        ads = self.advertiser()
        ads.add(ROOM_A, -70)
        ads.add(ROOM_B, -50)
        code, live, err = self.lumerix('--scan', '3', '--json', '--record', trace)
        self.assertEqual(code, 0, err)
        ads.stop()
        with open(trace, 'a', encoding='utf-8') as f:
            f.write('{"offsetMs": "soon"}\n')
        code, replayed, err = self.lumerix('--scan', '3', '--json', '--replay', trace)
        self.assertEqual(code, 0, err)
        self.assertRegex(err, r'line \d+: "offsetMs" must be a number')
        live, replayed = json.loads(live), json.loads(replayed)
        self.assertEqual([r['name'] for r in live], ['Room B', 'Room A'])
        self.assertEqual(replayed, live)


if __name__ == '__main__':
    lxharness.main()
