"""The tray end to end: its exported menu read and clicked, a stand-in sender receiving the frame."""
import contextlib
import json
import os
import plistlib
import signal
import subprocess
import sys
import threading
import time
import unittest

import dbus

import lxharness
import trayharness
from lxharness import stop_process, wait_for

FAKE_SENDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'fake_sender.py')
# The site-wide default list, and the demo's example rooms: the same two names.
DEFAULT_REFERENCES = ['Boardroom', 'Training Room']
SITE_DEFAULT = [{'Device': 'Boardroom', 'IP': '192.168.10.20'}, {'Device': 'Training Room', 'IP': '192.168.10.21'}]
FIXED_TAIL = ['---', 'About', 'Exit']
ROOM_A = ('AA:BB:CC:DD:EE:01', '10.0.0.5', 12, 34, 'Room A')
ROOM_B = ('AA:BB:CC:DD:EE:02', '10.0.0.6', 56, 7, 'Room B')
ROOM_C = ('AA:BB:CC:DD:EE:03', '10.0.0.7', 99, 1, 'Room C')
# While scanning, the handler stops and starts discovery this often.
RESCAN_SECONDS = 15


class Advertiser:
    """Re-advertises receivers every 0.3 s, as real ones do, until stopped."""

    def __init__(self, desktop):
        self.desktop = desktop
        self.receivers = {}
        self.rssi = {}
        self.lock = threading.Lock()
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def add(self, receiver, rssi):
        with self.lock:
            self.desktop.bluez.add_receiver(receiver, rssi)
            self.receivers[receiver[0]] = receiver
            self.rssi[receiver[0]] = rssi

    def pause_while(self, disrupt, readd):
        """Runs disrupt() with advertising paused, then adds the receivers again when readd is set."""
        with self.lock:
            disrupt()
            if readd:
                for address, receiver in self.receivers.items():
                    self.desktop.bluez.add_receiver(receiver, self.rssi[address])

    def set_rssi(self, receiver, rssi):
        with self.lock:
            self.rssi[receiver[0]] = rssi

    def _run(self):
        while not self.stopping.wait(0.3):
            with self.lock:
                for address, rssi in self.rssi.items():
                    try:
                        # BlueZ reports what changed; the record stays the one the device was added with.
                        self.desktop.bluez.advertise(address, rssi=rssi)
                    except dbus.exceptions.DBusException:
                        return  # the model is going away at the end of a test

    def stop(self):
        self.stopping.set()
        self.thread.join(5)


class TrayCase(unittest.TestCase):
    """A private desktop per case; cases that need another kind of desktop start their own."""

    START_DESKTOP = True

    def setUp(self):
        if self.START_DESKTOP:
            self.start_desktop()

    def run(self, result=None):
        # Kept so that the clean-up below can tell whether this case failed.
        self.run_result = result
        return super().run(result)

    def start_desktop(self, powered=True, tray=True, host=True, **options):
        self.desktop = trayharness.TrayDesktop(powered=powered, tray=tray, host=host, **options)
        self.desktop.start()
        self.addCleanup(self.desktop.stop)
        self.frames = os.path.join(self.desktop.root, 'frames.jsonl')

    def start_tray(self, *args, binary=None):
        self.program = self.desktop.launch(*args, binary=binary)
        self.addCleanup(self._dump_log_on_failure, self.desktop, self.program)
        return self.program

    def _dump_log_on_failure(self, desktop, program):
        # Every case ends with a clean termination, so sanitizer builds report what they found.
        status = None
        if program.poll() is None:
            program.send_signal(signal.SIGTERM)
            try:
                status = program.wait(15)
            except subprocess.TimeoutExpired:
                program.kill()
                program.wait()
        log = desktop.program_log()
        result = self.run_result
        failed = result is None or any(getattr(test, 'test_case', test) is self
                                       for test, _ in result.errors + result.failures)
        sanitizer = any(mark in log for mark in ('ERROR: AddressSanitizer', 'ERROR: LeakSanitizer',
                                                  'runtime error:', 'WARNING: ThreadSanitizer'))
        # Show the program's own log lines when the case failed.
        if failed or sanitizer or status or os.environ.get('LUMERIX_E2E_VERBOSE'):
            sys.stderr.write('--- lumerix log ---\n' + log + '-------------------\n')
        self.assertFalse(sanitizer, 'the sanitizer reported an error')
        self.assertIn(status, (None, 0), 'lumerix did not end cleanly on SIGTERM')

    def tray_showing(self, references, receivers, titles):
        """Starts the tray on this saved table with [(receiver, rssi)] advertising; waits for the titles."""
        self.seed_reference_table(references)
        self.start_tray()
        menu = self.desktop.tray_menu()
        self.wait_for_scanning()
        ads = self.advertiser()
        for receiver, rssi in receivers:
            ads.add(receiver, rssi)
        self.wait_for_titles(menu, titles + FIXED_TAIL)
        return menu, ads

    def advertiser(self):
        advertiser = Advertiser(self.desktop)
        self.addCleanup(advertiser.stop)
        return advertiser

    def seed_site_default(self, entries):
        """An administrator's DefaultReferenceTable.plist in the XDG config directories."""
        path = os.path.join(self.desktop.env['XDG_CONFIG_DIRS'], 'lumerix', 'DefaultReferenceTable.plist')
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'wb') as f:
            plistlib.dump(entries, f)

    def seed_reference_table(self, entries):
        path = self.desktop.reference_table_path()
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'wb') as f:
            plistlib.dump(entries, f)

    def wait_for_titles(self, menu, expected, timeout=15):
        seen = []

        def matches():
            seen[:] = [menu.titles()]
            return seen[0] == expected

        try:
            wait_for(matches, timeout, f'menu {expected}')
        except AssertionError:
            self.fail(f'the menu shows {seen[0] if seen else None}, expected {expected}')

    def wait_for_scanning(self, count=1, timeout=10):
        wait_for(lambda: self.desktop.adapter_calls('StartDiscovery') >= count, timeout,
                 f'StartDiscovery #{count}')

    def exit_status(self, timeout=15):
        try:
            return self.program.wait(timeout)
        except subprocess.TimeoutExpired:
            self.fail('lumerix did not end within %ss' % timeout)

    def saved_references(self):
        with open(self.desktop.reference_table_path(), 'rb') as f:
            return plistlib.load(f)

    def frames_received(self):
        if not os.path.exists(self.frames):
            return []
        with open(self.frames, encoding='utf-8') as f:
            return [json.loads(line) for line in f if line.strip()]

    def install_sender(self, *args):
        """A desktop entry that starts the test sender (as this user) when the tray launches it."""
        pid_file = os.path.join(self.desktop.root, 'launched.pid')
        self.addCleanup(self.stop_launched_sender, pid_file)
        applications = os.path.join(self.desktop.data_home, 'applications')
        os.makedirs(applications, exist_ok=True)
        with open(os.path.join(applications, 'com.Sharvane.Ondrel.desktop'), 'w', encoding='utf-8') as f:
            f.write('[Desktop Entry]\nType=Application\nName=Test sender\n'
                    f'Exec=/usr/bin/python3 {FAKE_SENDER} --out {self.frames} --ready {pid_file} {" ".join(args)}\n')

    def tooltip(self):
        _, _, title, text = self.desktop.tray_item_property('ToolTip')
        return str(title) + '\n' + str(text)

    def start_sender(self, *args):
        ready = os.path.join(self.desktop.root, 'sender.ready')
        proc = subprocess.Popen(['/usr/bin/python3', FAKE_SENDER, '--out', self.frames, '--ready', ready,
                                 '--lifetime', '60', *args])
        self.addCleanup(stop_process, proc)
        wait_for(lambda: os.path.exists(ready), 10, 'the test sender')
        return proc

    @staticmethod
    def stop_launched_sender(pid_file):
        with contextlib.suppress(OSError, ValueError), open(pid_file, encoding='utf-8') as f:
            os.kill(int(f.read()), signal.SIGTERM)


class TrayTest(TrayCase):
    def test_menu_orders_receivers_and_exit_saves_the_reference_table(self):
        self.seed_site_default(SITE_DEFAULT)
        self.start_tray()
        menu = self.desktop.tray_menu()
        self.wait_for_titles(menu, DEFAULT_REFERENCES + FIXED_TAIL)
        self.wait_for_scanning()
        idle_icon = self.desktop.tray_item_property('IconPixmap')

        ads = self.advertiser()
        ads.add(ROOM_A, -70)
        ads.add(ROOM_B, -50)
        self.wait_for_titles(menu, ['Room B', 'Room A'] + DEFAULT_REFERENCES + FIXED_TAIL)
        # Receivers listed: the normal icon replaces the disabled one.
        self.assertNotEqual(self.desktop.tray_item_property('IconPixmap'), idle_icon)
        ads.set_rssi(ROOM_A, -40)
        self.wait_for_titles(menu, ['Room A', 'Room B'] + DEFAULT_REFERENCES + FIXED_TAIL)

        # The About box does not hold up the menu.
        menu.click('About')
        time.sleep(0.5)
        self.assertIsNone(self.program.poll())
        menu.click('Exit')
        self.assertEqual(self.exit_status(), 0)
        # The first run copies the site-wide default list into the saved table.
        saved = self.saved_references()
        self.assertEqual([entry['Device'] for entry in saved], DEFAULT_REFERENCES)
        self.assertEqual(saved[0]['IP'], '192.168.10.20')

    def test_unchanged_advertisements_do_not_touch_the_menu(self):
        menu, ads = self.tray_showing([], [(ROOM_A, -60), (ROOM_B, -45)], ['Room B', 'Room A'])
        updates = self.desktop.watch_menu_updates()
        # ~8 advertisements per receiver, each rebuilding the shell's menu model.
        time.sleep(2.5)
        self.assertEqual(menu.titles(), ['Room B', 'Room A'] + FIXED_TAIL)
        self.assertEqual(updates(), 0)
        # A visible change does reach the desktop, once.
        ads.set_rssi(ROOM_A, -30)
        self.wait_for_titles(menu, ['Room A', 'Room B'] + FIXED_TAIL)
        time.sleep(1)
        self.assertGreater(updates(), 0)
        self.assertLessEqual(updates(), 2)

    def test_choosing_a_receiver_sends_it_to_the_running_sender(self):
        # An empty saved table: the receiver rows are the only connect entries.
        self.start_sender('--listen', '19314')
        menu, _ = self.tray_showing([], [(ROOM_A, -55), (ROOM_C, -65)], ['Room A', 'Room C'])

        menu.click('Room C')
        frames = wait_for(self.frames_received, 15, 'a frame on the sender port')
        self.assertEqual(frames[0]['via'], 'listen')
        self.assertEqual(frames[0]['fields'], ['10.0.0.7', 'Room C', '9901', 'Room C', ''], frames[0]['hex'])
        # The frame goes out without its final end byte.
        self.assertTrue(frames[0]['hex'].endswith('02'), frames[0]['hex'])

    def test_sleep_stops_scanning_wake_restarts_it_and_sigterm_saves(self):
        lab = [{'Device': 'Lab', 'Note': 'kept as is'}]
        menu, _ = self.tray_showing(lab, [(ROOM_A, -60)], ['Room A', 'Lab'])

        stops = self.desktop.adapter_calls('StopDiscovery')
        starts = self.desktop.adapter_calls('StartDiscovery')
        self.desktop.prepare_for_sleep(True)
        wait_for(lambda: self.desktop.adapter_calls('StopDiscovery') > stops, 10, 'StopDiscovery on sleep')
        self.desktop.prepare_for_sleep(False)
        wait_for(lambda: self.desktop.adapter_calls('StartDiscovery') > starts, 10, 'StartDiscovery on wake')
        # The list survives the night (aging alone removes receivers).
        self.assertEqual(menu.titles(), ['Room A', 'Lab'] + FIXED_TAIL)

        self.program.send_signal(signal.SIGTERM)
        self.assertEqual(self.exit_status(), 0)
        self.assertEqual(self.saved_references(), lab)

    def test_scanning_resumes_when_bluetooth_comes_back(self):
        def restart_bluetoothd(desktop, outage):
            desktop.bluez.stop()
            outage()
            desktop.bluez = lxharness.Bluez(desktop.system)
            desktop.bluez.add_adapter()

        def replug_adapter(desktop, outage):
            desktop.bluez.remove_adapter()
            outage()
            desktop.bluez.add_adapter()

        def power_cycle(desktop, outage):
            # bluetoothd ends discovery when the adapter powers off.
            desktop.bluez.mock('/org/bluez/hci0').UpdateProperties(lxharness.ADAPTER_IFACE, {
                'Powered': dbus.Boolean(False), 'Discovering': dbus.Boolean(False)})
            outage()
            desktop.bluez.set_powered(True)

        # (what happens, whether the model comes back without the receivers' objects)
        cases = [(restart_bluetoothd, True), (replug_adapter, True), (power_cycle, False)]
        menu, ads = self.tray_showing([], [(ROOM_A, -70), (ROOM_B, -50)], ['Room B', 'Room A'])
        for disrupt, readd in cases:
            with self.subTest(disrupt.__name__):
                # The outage outlasts the handler's periodic rescan, so only the return itself can
                # start discovery again.
                back_at = self.desktop.bluez.last_call_time('StartDiscovery') + RESCAN_SECONDS + 2
                outage = lambda: time.sleep(max(1.0, back_at - time.time()))  # pylint: disable=cell-var-from-loop
                # A fresh model counts its calls from zero; the same one goes on counting.
                starts = 0 if readd else self.desktop.adapter_calls('StartDiscovery')
                ads.pause_while(lambda: disrupt(self.desktop, outage), readd)  # pylint: disable=cell-var-from-loop
                self.wait_for_scanning(starts + 1, timeout=20)
                # Advertisements heard after the return reach the menu: the two swap places.
                stronger, weaker = (ROOM_A, ROOM_B) if menu.titles()[0] == 'Room B' else (ROOM_B, ROOM_A)
                ads.set_rssi(stronger, -30)
                ads.set_rssi(weaker, -80)
                self.wait_for_titles(menu, [stronger[4], weaker[4]] + FIXED_TAIL, timeout=20)
                self.assertIsNone(self.program.poll())

class InstalledTrayTest(TrayCase):
    def test_installed_binary_finds_its_resources_and_shows_the_demo(self):
        prefix = os.path.join(self.desktop.root, 'prefix')
        subprocess.run(['cmake', '--install', os.environ['LUMERIX_BUILD_DIR'], '--prefix', prefix],
                       check=True, stdout=subprocess.DEVNULL, timeout=60)
        for installed in ('share/lumerix/DefaultReferenceTable.plist',
                          'share/lumerix/demo/DefaultReferenceTable.plist', 'share/lumerix/Normal_Icon.svg',
                          'share/lumerix/Normal_Disable_Icon.svg', 'share/applications/com.zemko.Lumerix.desktop',
                          'share/man/man1/lumerix.1.gz'):
            self.assertTrue(os.path.exists(os.path.join(prefix, installed)), installed)
        # No made-up rooms for real users; the autostart entry is the package's alone.
        with open(os.path.join(prefix, 'share/lumerix/DefaultReferenceTable.plist'), 'rb') as f:
            self.assertEqual(plistlib.load(f), [])
        self.assertFalse(os.path.exists(os.path.join(prefix, 'etc')))
        self.start_tray('--demo', binary=os.path.join(prefix, 'bin', 'lumerix'))
        menu = self.desktop.tray_menu()
        # Simulated receivers above the default references read from <prefix>/share/lumerix.
        wait_for(lambda: len(menu.titles()) > 5 and menu.titles()[-5:] == DEFAULT_REFERENCES + FIXED_TAIL,
                 15, 'simulated receivers above the reference entries')
        self.assertNotIn('could not be loaded', self.desktop.program_log())
        menu.click('Exit')
        self.assertEqual(self.exit_status(), 0)
        # The demo's rooms stay out of the user's own table.
        self.assertFalse(os.path.exists(self.desktop.reference_table_path()))


class DegradedDesktopTest(TrayCase):
    START_DESKTOP = False

    def test_bluetooth_off_alert_or_no_tray_still_ends_cleanly_and_saves(self):
        cases = [(False, True, 'is not powered on'), (True, False, 'No system tray on this desktop')]
        for powered, tray, line in cases:
            with self.subTest(line):
                self.start_desktop(powered, tray)
                self.seed_site_default(SITE_DEFAULT)
                self.start_tray()
                wait_for(lambda: line in self.desktop.program_log(), 10, line)  # pylint: disable=cell-var-from-loop
                if powered:
                    # Without a tray the program scans on.
                    self.wait_for_scanning()
                    self.assertIsNone(self.program.poll())
                # An open alert waits for the user; SIGTERM closes it too.
                self.program.send_signal(signal.SIGTERM)
                self.assertEqual(self.exit_status(), 0)
                self.assertEqual([e['Device'] for e in self.saved_references()], DEFAULT_REFERENCES)


class NoTrayHostTest(TrayCase):
    START_DESKTOP = False

    def test_no_tray_host_notifies_once_then_the_icon_comes_with_a_current_menu_and_tooltip(self):
        # A watcher coming up later, or one that runs from the start but has no host until later.
        for late_watcher in (True, False):
            with self.subTest(late_watcher=late_watcher):
                self.start_desktop(tray=not late_watcher, host=late_watcher)
                self.seed_site_default(SITE_DEFAULT)
                self.start_tray()
                self.wait_for_scanning()
                ads = self.advertiser()
                ads.add(ROOM_A, -55)
                shown = wait_for(self.desktop.notifications, 10, 'the missing-tray notification')
                self.assertEqual(len(shown), 1, shown)
                self.assertIn('lumerix --scan', shown[0][1])
                self.assertIn('AppIndicator', shown[0][1])

                if late_watcher:
                    self.desktop.start_watcher()
                else:
                    self.desktop.register_host()
                menu = self.desktop.tray_menu()
                self.wait_for_titles(menu, ['Room A'] + DEFAULT_REFERENCES + FIXED_TAIL)
                wait_for(lambda: 'Room A \u2014 \u221255 dBm, ' in self.tooltip(), 10, 'the receiver in the tooltip')
                self.assertEqual(len(self.desktop.notifications()), 1)


class HostileNameTest(TrayCase):
    # Escape sequences, a bidi override, both mnemonic marks and markup, in the 16 bytes of one
    # advertisement segment.
    NAME = 'R_&D<b>\x1b[2J\u202eL'
    SHOWN = 'R_&D<b>\ufffd[2J\ufffdL'

    def test_a_name_from_the_air_is_inert_in_menu_tooltip_and_notification(self):
        room = ('AA:BB:CC:DD:EE:09', '10.0.0.9', 12, 34, self.NAME)
        self.assertLessEqual(len(self.NAME.encode()), 16)
        menu, _ = self.tray_showing([], [(room, -55)], [self.SHOWN])
        # Only the '&' is an access key; every '_' of the name is doubled.
        self.assertEqual(menu.labels()[0], 'R___&D<b>\ufffd[2J\ufffdL')
        escaped = 'R_&amp;D&lt;b&gt;\ufffd[2J\ufffdL \u2014 \u221255 dBm'
        wait_for(lambda: escaped in self.tooltip(), 10, 'the receiver in the tooltip')
        self.assertNotIn('<b>', self.tooltip())

        # No sender installed: the notification names the receiver, as text.
        menu.click(self.SHOWN)
        shown = wait_for(self.desktop.notifications, 10, 'the notification')
        self.assertEqual(shown[0][0], 'Sharvane is not installed')
        self.assertEqual(shown[0][1], 'Install Sharvane to share your screen with R_&amp;D&lt;b&gt;\ufffd[2J\ufffdL.')
        self.assertNotIn('\x1b', self.desktop.program_log())


if __name__ == '__main__':
    lxharness.main()
