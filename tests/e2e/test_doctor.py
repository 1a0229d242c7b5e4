"""lumerix --doctor against the modelled bluetoothd: the failing line and the exit code, and nothing changed."""
import json
import os
import shutil
import tempfile
import unittest

import lxharness


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

    def doctor(self, *args):
        env = {k: v for k, v in os.environ.items() if k not in ('DISPLAY', 'WAYLAND_DISPLAY', 'DBUS_SESSION_BUS_ADDRESS')}
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
            (True, True, ('0', '0'), 0, '✓ Discovery filter: Transport le with DuplicateData accepted'),
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

    def test_json_lists_every_check(self):
        self.use_bus('', True)
        self.bluez.add_adapter()
        rc, out, _ = self.doctor('--json')
        report = json.loads(out)
        self.assertEqual(rc, 0)
        self.assertTrue(report['ok'])
        names = [c['check'] for c in report['checks']]
        self.assertEqual(names[:6], ['System bus', 'bluetoothd', 'Bluetooth adapter', 'Adapter powered', 'rfkill',
                                     'Discovery filter'])
        # No session bus here: the advisory checks fail without failing the run.
        tray = next(c for c in report['checks'] if c['check'] == 'Tray host')
        self.assertEqual((tray['ok'], tray['essential']), (False, False))
        self.assertIn('remedy', tray)


if __name__ == '__main__':
    lxharness.main()
