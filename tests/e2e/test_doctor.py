"""lumerix --doctor against the modelled bluetoothd: the failing line and the exit code, and nothing changed."""
import json
import os
import shutil
import subprocess
import tempfile

import lxharness
import trayharness


class DoctorTest(lxharness.LumerixTestCase):
    start_bluez = False

    def setUp(self):
        super().setUp()
        self.sysfs = tempfile.mkdtemp(prefix='lx-sysfs-')
        self.addCleanup(shutil.rmtree, self.sysfs, ignore_errors=True)
        os.makedirs(os.path.join(self.sysfs, 'class', 'rfkill'))

    def rfkill(self, name, soft, hard):
        entry = os.path.join(self.sysfs, 'class', 'rfkill', name)
        os.makedirs(entry)
        for file, value in (('type', 'bluetooth'), ('name', 'hci0'), ('soft', soft), ('hard', hard)):
            with open(os.path.join(entry, file), 'w', encoding='utf-8') as f:
                f.write(value + '\n')

    def session_with(self, *mocks):
        """A session bus with dbusmock servers: each a list of dbusmock arguments."""
        session = lxharness.PrivateBus(kind='session')
        self.addCleanup(session.stop)
        env = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=session.address)
        for args in mocks:
            # pylint: disable=consider-using-with
            proc = subprocess.Popen([lxharness.PYTHON, '-m', 'dbusmock', '--session', *args], env=env,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.addCleanup(lxharness.stop_process, proc)
        return session

    def doctor(self, *args, session=None):
        env = {k: v for k, v in os.environ.items()
               if k not in ('DISPLAY', 'WAYLAND_DISPLAY', 'DBUS_SESSION_BUS_ADDRESS')}
        if session:
            env['DBUS_SESSION_BUS_ADDRESS'] = session.address
        env.update(DBUS_SYSTEM_BUS_ADDRESS=self.bus.address, LUMERIX_SYSFS=self.sysfs, LUMERIX_LOG='stderr',
                   XDG_DATA_HOME=os.path.join(self.sysfs, 'data'), XDG_CONFIG_HOME=os.path.join(self.sysfs, 'config'))
        run = lxharness.Run(['--doctor', *args], env)
        self.addCleanup(run.kill)
        return run.wait(30)

    def test_the_first_essential_problem_fails_the_run(self):
        # (bluetoothd, adapter: None / powered, rfkill (soft, hard), exit code, line expected)
        cases = [
            (False, None, None, 1, '✗ bluetoothd: org.bluez is not on the system bus'),
            (True, None, None, 1, '✗ Bluetooth adapter: none'),
            (True, False, None, 1, '✗ Adapter powered: hci0 is off — turn Bluetooth on: bluetoothctl power on'),
            (True, True, ('1', '0'), 1, '✗ rfkill: soft-blocked: hci0 — rfkill unblock bluetooth'),
            (True, True, ('0', '0'), 0, '✓ Discovery filter: Transport le with DuplicateData and Pattern LX accepted'),
        ]
        for running, powered, blocked, code, line in cases:
            with self.subTest(line):
                self.use_bus('', running)
                shutil.rmtree(os.path.join(self.sysfs, 'class', 'rfkill', 'rfkill0'), ignore_errors=True)
                if blocked:
                    self.rfkill('rfkill0', *blocked)
                if powered is not None:
                    self.bluez.add_adapter(powered=powered)
                rc, out, err = self.doctor()
                self.assertEqual(rc, code, out + err)
                self.assertTrue(any(l.startswith(line) for l in out.splitlines()), out)
                self.assertEqual(out.splitlines()[-1].startswith('The tray can work'), code == 0, out)
                if powered is not None:
                    # Only the filter, set and cleared, and only on an adapter that is on: no power
                    # change, no discovery.
                    calls = self.bluez.adapter_calls()
                    self.assertEqual(calls, ['SetDiscoveryFilter', 'SetDiscoveryFilter'] if powered else [])
                    props = self.bluez.mock('/org/bluez/hci0').GetAll(lxharness.ADAPTER_IFACE,
                                                                       dbus_interface='org.freedesktop.DBus.Properties')
                    self.assertEqual(bool(props['Powered']), powered)
                    self.assertEqual(dict(props.get('DiscoveryFilter', {})), {})

    def test_desktop_checks_read_the_session_bus(self):
        self.use_bus('', True)
        self.bluez.add_adapter()
        watcher = 'org.kde.StatusNotifierWatcher'
        # (session services, tray host and notification server found)
        cases = [
            ([], False),
            # A watcher counts once a host has registered with it, as the tray itself requires.
            ([['-t', 'notification_daemon'], ['-t', trayharness.WATCHER_TEMPLATE]], True),
        ]
        for mocks, found in cases:
            with self.subTest(found=found):
                session = self.session_with(*mocks)
                for args in mocks:
                    lxharness.wait_for(lambda a=args: session.connection.name_has_owner(
                        watcher if a[-1] == trayharness.WATCHER_TEMPLATE else 'org.freedesktop.Notifications'),
                                       15, 'a session service')
                rc, out, _ = self.doctor('--json', session=session)
                report = json.loads(out)
                # The desktop checks are advice: they never fail the run.
                self.assertEqual(rc, 0)
                self.assertTrue(report['ok'])
                checks = {c['check']: c for c in report['checks']}
                for name in ('Tray host', 'Notification server'):
                    self.assertEqual((checks[name]['ok'], checks[name]['essential']), (found, False), out)
                    self.assertEqual('remedy' in checks[name], not found)


if __name__ == '__main__':
    lxharness.main()
