"""Presenting from where the user already is: the overview search provider and the KRunner plug-in
on the tray's bus name (against a running tray, and against one the bus starts for a search), the
desktop portal's global shortcut, the buttons of a failure notification, and the plug-in files as
their hosts read them."""
import configparser
import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

import dbus
import dbusmock

import lxharness
from lxharness import MOCK_IFACE, stop_process, wait_for
from test_tray import ROOM_A, ROOM_C, TrayCase
from trayharness import NOTIFICATIONS

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..'))
PACKAGING = os.path.join(SOURCE_DIR, 'packaging')
PORTAL_TEMPLATE = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'portal_template.py')
SERVICE = 'com.zemko.Lumerix'
SEARCH_IFACE = 'org.gnome.Shell.SearchProvider2'
RUNNER_IFACE = 'org.kde.krunner1'
PORTAL_IFACE = 'org.freedesktop.portal.GlobalShortcuts'
A = lxharness.identifier(ROOM_A[0])
C = lxharness.identifier(ROOM_C[0])


def key_file(path, section):
    parser = configparser.ConfigParser(interpolation=None)
    parser.optionxform = str  # keys are case-sensitive
    with open(path, encoding='utf-8') as f:
        parser.read_file(f)
    return parser[section]


SEARCH_INI = key_file(os.path.join(PACKAGING, 'com.zemko.Lumerix.search-provider.ini'), 'Shell Search Provider')
RUNNER_ENTRY = key_file(os.path.join(PACKAGING, 'lumerix-runner.desktop'), 'Desktop Entry')


class PlugInFiles(unittest.TestCase):
    def test_files_name_the_tray_as_their_hosts_read_them(self):
        self.assertEqual(dict(SEARCH_INI), {
            'DesktopId': 'com.zemko.Lumerix.desktop', 'BusName': SERVICE,
            'ObjectPath': '/com/zemko/Lumerix/SearchProvider', 'Version': '2'})
        proc = subprocess.run(['desktop-file-validate', os.path.join(PACKAGING, 'lumerix-runner.desktop')],
                              capture_output=True, text=True, check=False)
        self.assertEqual((proc.returncode, proc.stdout + proc.stderr), (0, ''))
        self.assertEqual(RUNNER_ENTRY['X-Plasma-API'], 'DBus')
        self.assertEqual(RUNNER_ENTRY['X-Plasma-DBusRunner-Service'], SERVICE)
        self.assertEqual(RUNNER_ENTRY['X-Plasma-DBusRunner-Path'], '/com/zemko/Lumerix/Runner')


class LauncherCase(TrayCase):
    def interface(self, path, iface):
        return dbus.Interface(self.desktop.session_bus.get_object(SERVICE, path, introspect=False), iface)

    def search(self):
        return self.interface(SEARCH_INI['ObjectPath'], SEARCH_IFACE)

    def runner(self):
        return self.interface(RUNNER_ENTRY['X-Plasma-DBusRunner-Path'], RUNNER_IFACE)

    def presented(self, count):
        """The receiver names of the first `count` frames the sender took, once it has."""
        frames = wait_for(lambda: len(self.frames_received()) >= count and self.frames_received(), 15,
                          f'{count} frame(s) on the sender port')
        return [f['fields'][1] for f in frames]


class RunningTray(LauncherCase):
    def test_search_and_runner_list_and_present_matching_receivers(self):
        self.start_sender('--listen', '19314')
        self.tray_showing([{'Device': 'Lab', 'IP': '10.9.9.9'}], [(ROOM_A, -70), (ROOM_C, -45)],
                          ['Room C', 'Room A', 'Lab'])
        search = self.search()
        cases = [(['room'], [C, A]), (['ROOM', 'a'], [A]), (['present'], [C, A, 'saved:Lab']),
                 (['Pres', 'lab'], ['saved:Lab']), (['kitchen'], [])]
        for terms, expected in cases:
            with self.subTest(terms=terms):
                self.assertEqual([str(i) for i in search.GetInitialResultSet(terms)], expected)
        self.assertEqual([str(i) for i in search.GetSubsearchResultSet([C, A], ['room', 'c'])], [C])
        metas = search.GetResultMetas([A, 'gone', C])
        self.assertEqual([(str(m['id']), str(m['name'])) for m in metas], [(A, 'Room A'), (C, 'Room C')])
        self.assertIn('-70 dBm', str(metas[0]['description']))

        search.ActivateResult(A, ['room'], dbus.UInt32(0))
        self.assertEqual(self.presented(1), ['Room A'])
        frame = self.frames_received()[0]['fields']
        self.assertEqual(frame, ['10.0.0.5', 'Room A', '1234', 'Room A', ''])

        runner = self.runner()
        self.assertEqual(list(runner.Actions()), [])
        matches = runner.Match('oom c')
        self.assertEqual([(str(m[0]), str(m[1]), int(m[3])) for m in matches], [(C, 'Present to Room C', 30)])
        self.assertIn('-45 dBm', str(matches[0][5]['subtext']))
        self.assertEqual([int(m[3]) for m in runner.Match('room a')], [100])  # the whole name, in any case
        runner.Run(C, '')
        self.assertEqual(self.presented(2), ['Room A', 'Room C'])

        # Results that are gone present nothing.
        runner.Run('00000000-0000-0000-0000-00000000FFFF', '')
        search.ActivateResult('saved:Nobody', dbus.Array([], signature='s'), dbus.UInt32(0))
        time.sleep(1)
        self.assertEqual(len(self.frames_received()), 2)
        # This desktop has no portal: one clear line, and the tray runs on.
        self.assertIn('Global shortcut "Present to the nearest room" is not available', self.desktop.program_log())


class StartedBySearch(LauncherCase):
    START_DESKTOP = False

    def service_file(self, services):
        """The build's generated activation file, starting this build's binary instead."""
        with open(os.path.join(os.environ['LUMERIX_BUILD_DIR'], 'packaging', 'com.zemko.Lumerix.service'),
                  encoding='utf-8') as f:
            text = f.read()
        exec_line = next(line for line in text.splitlines() if line.startswith('Exec='))
        binary, *args = exec_line[len('Exec='):].split()
        self.assertEqual(os.path.basename(binary), 'lumerix')
        usage = subprocess.run([os.environ['LUMERIX_BIN'], '--help'], capture_output=True, text=True,
                               check=False).stdout
        args = [a for a in args if a in usage]  # an option this build does not know yet is left out
        with open(os.path.join(services, 'com.zemko.Lumerix.service'), 'w', encoding='utf-8') as f:
            f.write(text.replace(exec_line, 'Exec=' + ' '.join([os.environ['LUMERIX_BIN'], *args])))

    def test_a_search_starts_the_tray_which_answers_once_it_hears_receivers(self):
        services = tempfile.mkdtemp(prefix='lumerix-services-')
        self.addCleanup(shutil.rmtree, services, True)
        self.service_file(services)
        self.start_desktop(session_services=services)
        bus = self.desktop.session_bus
        # What the tray needs of the session (display, private buses, folders) reaches what the bus starts.
        bus.call_blocking('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus',
                          'UpdateActivationEnvironment', 'a{ss}', [self.desktop.env])
        self.start_sender('--listen', '19314')
        ads = self.advertiser()
        ads.add(ROOM_A, -70)
        ads.add(ROOM_C, -45)
        self.assertFalse(bus.name_has_owner(SERVICE))

        first = [str(i) for i in self.search().GetInitialResultSet(['room'], timeout=40)]
        pid = int(bus.call_blocking('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus',
                                    'GetConnectionUnixProcessID', 's', [SERVICE]))
        self.addCleanup(self.stop_pid, pid)
        self.assertTrue(first and set(first) <= {A, C}, first)
        wait_for(lambda: [str(i) for i in self.search().GetInitialResultSet(['room'])] == [C, A], 15,
                 'both receivers')
        self.search().ActivateResult(C, ['room'], dbus.UInt32(0))
        self.assertEqual(self.presented(1), ['Room C'])
        self.runner().Run(str(self.runner().Match('room a')[0][0]), '')
        self.assertEqual(self.presented(2), ['Room C', 'Room A'])

    @staticmethod
    def stop_pid(pid):
        def ended():
            try:
                with open(f'/proc/{pid}/stat', encoding='utf-8') as f:
                    return f.read().split()[2] == 'Z'
            except FileNotFoundError:
                return True
        os.kill(pid, signal.SIGTERM)
        wait_for(ended, 15, 'the started tray to end')


class Shortcut(LauncherCase):
    def test_the_portal_shortcut_presents_the_nearest_receiver(self):
        proc, portal = dbusmock.DBusTestCase.spawn_server_template(PORTAL_TEMPLATE, {}, stdout=subprocess.DEVNULL)
        self.addCleanup(stop_process, proc)
        self.start_sender('--listen', '19314')
        self.tray_showing([], [(ROOM_A, -70), (ROOM_C, -45)], ['Room C', 'Room A'])
        test = dbus.Interface(portal, 'com.zemko.LxTest')
        wait_for(lambda: list(test.Bound()) == ['present-nearest'], 15, 'the shortcut bound')
        session = dbus.ObjectPath(str(test.Session()))
        wait_for(lambda: 'bound to Ctrl+Alt+P' in self.desktop.program_log(), 10, 'the binding logged')

        mock = dbus.Interface(portal, MOCK_IFACE)
        other = dbus.ObjectPath('/org/freedesktop/portal/desktop/session/1_999/lumerix')
        for path, shortcut in ((other, 'present-nearest'), (session, 'something-else'), (session, 'present-nearest')):
            mock.EmitSignal(PORTAL_IFACE, 'Activated', 'osta{sv}', [path, shortcut, dbus.UInt64(1), dbus.Dictionary({}, signature='sv')])
        self.assertEqual(self.presented(1), ['Room C'])
        time.sleep(1)
        self.assertEqual(len(self.frames_received()), 1, 'another session or shortcut presented too')


class NotificationButtons(LauncherCase):
    START_DESKTOP = False

    def test_try_again_presents_once_the_sender_listens(self):
        self.start_desktop(notification_caps=['body', 'actions'])
        quiet = self.start_sender()  # a sender process, nothing on its port yet
        self.tray_showing([], [(ROOM_A, -55)], ['Room A'])
        service = self.interface('/com/zemko/Lumerix', 'com.zemko.Lumerix1')
        service.Connect('Room A')

        server = dbus.Interface(self.desktop.notification_server, MOCK_IFACE)
        notify_calls = lambda: [args for _, args in server.GetMethodCalls('Notify')]
        wait_for(lambda: any(str(a[3]) == 'Could not reach Sharvane' for a in notify_calls()), 15,
                 'the failure notification')
        calls = notify_calls()
        index = next(i for i, a in enumerate(calls) if str(a[3]) == 'Could not reach Sharvane')
        self.assertEqual([str(s) for s in calls[index][5]], ['try-again', 'Try again', 'troubleshoot', 'Troubleshoot'])
        notification_id = index + 1  # the model numbers notifications from 1

        stop_process(quiet)
        os.remove(os.path.join(self.desktop.root, 'sender.ready'))
        self.start_sender('--listen', '19314')
        # A press on some other notification does nothing; on ours, the receiver is presented.
        server.EmitSignal(NOTIFICATIONS, 'ActionInvoked', 'us', [dbus.UInt32(notification_id + 50), 'try-again'])
        server.EmitSignal(NOTIFICATIONS, 'ActionInvoked', 'us', [dbus.UInt32(notification_id), 'try-again'])
        self.assertEqual(self.presented(1), ['Room A'])
        time.sleep(1)
        self.assertEqual(len(self.frames_received()), 1)
        # Troubleshoot runs the doctor inside the tray, which shows its report and runs on.
        server.EmitSignal(NOTIFICATIONS, 'ActionInvoked', 'us', [dbus.UInt32(notification_id), 'troubleshoot'])
        wait_for(lambda: 'lumerix --doctor ended with status' in self.desktop.program_log(), 30, 'the doctor report')
        self.assertIsNone(self.program.poll())


if __name__ == '__main__':
    lxharness.main()
