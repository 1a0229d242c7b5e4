"""`lumerix --scan` against a modelled bluetoothd: the receivers listed, and Bluetooth missing."""

import json
import re
import time

import dbus

import lxharness as h

ROOM_A = ('AA:BB:CC:DD:EE:01', '10.0.0.5', 12, 34, 'Room A')
ROOM_B = ('AA:BB:CC:DD:EE:02', '192.168.1.20', 56, 7, 'Board Room')


def entry(receiver, rssi):
    address, ip, hi, lo, name = receiver
    return {'name': name, 'ip': ip, 'loginCode': '%02d%02d' % (hi, lo), 'rssi': rssi,
            'identifier': h.identifier(address)}


class ScanListsReceivers(h.LumerixTestCase):

    def test_lists_exactly_the_lx_receivers_strongest_first(self):
        self.bluez.add_adapter()
        # Known to bluetoothd before the scan: listed only once it advertises again.
        self.bluez.add_receiver(ROOM_A, -75)
        self.bluez.add_device('AA:BB:CC:DD:EE:03', 'LX', rssi=-40,
                              manufacturer=h.advertisement('10.9.9.9', 1, 2, 'Stale Cache'))
        run = self.start_lumerix('--scan', '3', '--json')
        h.wait_for_discovery(self.bluez)

        self.bluez.advertise(ROOM_A[0], rssi=-50)
        self.bluez.add_receiver(ROOM_B, -70)
        # Not receivers: other names, a name that only looks alike, LX without a record.
        self.bluez.add_device('AA:BB:CC:DD:EE:04', 'Speaker', rssi=-30,
                              manufacturer=h.advertisement('10.1.1.1', 1, 1, 'Not Me'))
        self.bluez.add_device('AA:BB:CC:DD:EE:05', 'lx', rssi=-30,
                              manufacturer=h.advertisement('10.1.1.2', 1, 1, 'Not Me Either'))
        self.bluez.add_device('AA:BB:CC:DD:EE:06', 'LX2', rssi=-30,
                              manufacturer=h.advertisement('10.1.1.3', 1, 1, 'Nor Me'))
        self.bluez.add_device('AA:BB:CC:DD:EE:07', 'LX', rssi=-30, manufacturer=None)

        rc, out, err = run.wait(15)
        self.assertEqual(rc, 0, err)
        self.assertEqual(json.loads(out), [entry(ROOM_A, -50), entry(ROOM_B, -70)], err)

        calls = self.bluez.mock('/org/bluez/hci0').GetCalls()
        names = [str(c[1]) for c in calls]
        self.assertLess(names.index('SetDiscoveryFilter'), names.index('StartDiscovery'))
        discovery_filter = calls[names.index('SetDiscoveryFilter')][2][0]
        self.assertEqual({str(k): v for k, v in discovery_filter.items()},
                         {'Transport': 'le', 'DuplicateData': True, 'Pattern': 'LX'})

    def test_a_new_record_renames_the_receiver(self):
        self.bluez.add_adapter()
        address, _, hi, lo, _ = ROOM_A
        run = self.start_lumerix('--scan', '3')
        h.wait_for_discovery(self.bluez)
        self.bluez.add_receiver(ROOM_A, -55)
        time.sleep(0.5)
        # The new name would retitle the terminal and reorder the line: it is printed inert.
        self.bluez.advertise(address, rssi=-52,
                             manufacturer=h.advertisement('10.0.0.6', hi, lo, 'Aula\x1b]0;x\x07\u202e'))

        rc, out, err = run.wait(15)
        self.assertEqual(rc, 0, err)
        lines = out.splitlines()
        found = [l for l in lines if l.startswith('found')]
        changed = [l for l in lines if l.startswith('changed')]
        self.assertEqual(len(found), 1, out)
        self.assertIn('Room A', found[0])
        self.assertEqual(len(changed), 1, out)
        self.assertIn('Aula\ufffd]0;x\ufffd\ufffd', changed[0])
        self.assertNotIn('\x1b', out + err)
        self.assertIn('10.0.0.6', changed[0])
        table = lines[lines.index('1 receiver(s), strongest first:') + 2:]
        self.assertEqual(len(table), 1, out)
        self.assertIn('Aula\ufffd]0;x\ufffd\ufffd', table[0])
        self.assertIn('-52', table[0])
        self.assertIn(h.identifier(address), table[0])

    def test_malformed_devices_are_logged_and_ignored(self):
        self.bluez.add_adapter()
        run = self.start_lumerix('--scan', '3', '--json')
        h.wait_for_discovery(self.bluez)
        base = '/org/bluez/hci0/'
        record = h.manufacturer_data(h.advertisement('10.2.2.2', 1, 1, 'Bad'))
        self.bluez.add_raw_device(base + 'dev_AA_BB_CC_DD_EE_10', {
            'Address': 'AA:BB:CC:DD:EE:10', 'Name': dbus.Int32(7), 'RSSI': dbus.Int16(-40),
            'ManufacturerData': record})
        self.bluez.add_raw_device(base + 'dev_AA_BB_CC_DD_EE_11', {
            'Address': 'AA:BB:CC:DD:EE:11', 'Name': 'LX', 'RSSI': 'loud',
            'ManufacturerData': dbus.Array([dbus.Byte(1), dbus.Byte(2)], signature='y')})
        self.bluez.add_raw_device(base + 'not_a_device', {
            'Name': 'LX', 'RSSI': dbus.Int16(-40), 'ManufacturerData': record})
        self.bluez.add_raw_device(base + 'dev_AA_BB_CC_DD_EE_12', {
            'Address': 'AA:BB:CC:DD:EE:12', 'Name': 'LX', 'RSSI': dbus.Int16(-45),
            'ManufacturerData': dbus.Dictionary({dbus.UInt16(1): dbus.String('text', variant_level=1)},
                                                signature='qv')})
        self.bluez.add_receiver(ROOM_A, -60)

        rc, out, err = run.wait(15)
        self.assertEqual(rc, 0, err)
        self.assertEqual(json.loads(out), [entry(ROOM_A, -60)], err)
        self.assertIn('Name has an unexpected type', err)
        self.assertIn('RSSI has an unexpected type', err)
        self.assertIn('has no usable address', err)
        self.assertIn('is not a byte array', err)

    def test_a_device_named_later_is_found_and_other_names_never(self):
        self.bluez.add_adapter()
        run = self.start_lumerix('--scan', '6', '--json')
        h.wait_for_discovery(self.bluez)
        record = h.manufacturer_data(h.advertisement(*ROOM_A[1:]))
        path = h.Bluez.device_path(ROOM_A[0])
        self.bluez.add_raw_device(path, {'Address': ROOM_A[0], 'RSSI': dbus.Int16(-70), 'ManufacturerData': record})
        # Named otherwise, then it sends receiver records: never listed.
        self.bluez.add_device('AA:BB:CC:DD:EE:09', 'Speaker', rssi=-30)
        self.bluez.advertise('AA:BB:CC:DD:EE:09', rssi=-31, manufacturer=h.advertisement('10.1.1.9', 1, 1, 'Not Me'))
        time.sleep(0.5)
        self.bluez.mock(path).EmitSignal(
            'org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
            [h.DEVICE_IFACE, dbus.Dictionary({'Name': 'LX', 'RSSI': dbus.Int16(-52)}, signature='sv'),
             dbus.Array([], signature='s')])
        rc, out, err = run.wait(15)
        self.assertEqual(rc, 0, err)
        self.assertEqual(json.loads(out), [entry(ROOM_A, -52)], err)

    def test_a_burst_reaches_the_handler_complete_and_in_order(self):
        self.bluez.add_adapter()
        flood = h.Flood(self.bluez)
        path = self.bluez.add_receiver(ROOM_A, -60)
        run = self.start_lumerix('--scan', '20', '--json', extra_env={'LUMERIX_TRACE_DISCOVERY': '1'})
        h.wait_for_discovery(self.bluez)
        flood.start([path], 10000, 1.0, True)
        h.wait_for(lambda: flood.count() >= 10000, 15, 'the flood')
        rc, out, err = run.wait(30)
        self.assertEqual(rc, 0, err)
        traced = [int(rssi) for ident, rssi in re.findall(r'discovery (\S+) rssi (-?\d+) at', err)
                  if ident == h.identifier(ROOM_A[0])]
        sent = flood.count()
        self.assertGreaterEqual(sent, 10000)
        self.assertEqual(traced, [-30 - n % 70 for n in range(sent)])

    def test_discovery_follows_the_default_adapter(self):
        self.bluez.add_adapter('hci0')
        self.bluez.add_adapter('hci1')
        run = self.start_lumerix('--scan', '3', '--json')
        h.wait_for_discovery(self.bluez)
        self.bluez.remove_adapter('hci0')
        h.wait_for_discovery(self.bluez, 'hci1')
        self.bluez.add_receiver(ROOM_A, -58, adapter='hci1')
        rc, out, err = run.wait(15)
        self.assertEqual(rc, 0, err)
        self.assertEqual(json.loads(out), [entry(ROOM_A, -58)], err)


class ScanWithoutBluetooth(h.LumerixTestCase):

    def test_exits_with_the_reason(self):
        off = 'lumerix: Cannot scan: '
        cases = [  # bus policy, bluetoothd running, adapter (None: none, else powered), reason
            ('', True, False, off + 'Bluetooth is off.'),
            ('', True, None, off + 'No Bluetooth adapter.'),
            ('', False, None, off + 'Bluetooth service (bluetoothd) is not running.'),
            (h.DENY_BLUEZ, True, None, off + 'Bluetooth access denied.'),
            (h.DENY_BLUEZ_DISCOVERY, True, True, 'Bluetooth access denied.'),
        ]
        for policy, bluez, powered, reason in cases:
            with self.subTest(reason):
                self.use_bus(policy, bluez)
                if powered is not None:
                    self.bluez.add_adapter(powered=powered)
                rc, out, err = self.run_lumerix('--scan', '5', '--json')
                self.assertEqual((rc, out), (2, ''), err)
                self.assertIn(reason, err)
                # The cause in words, and where to look next; no internals (log lines aside).
                self.assertIn('Run "lumerix --doctor" to see why.', err)
                said = [line for line in err.splitlines() if line.startswith('lumerix: ')]
                self.assertFalse(any('state ' in line for line in said), said)

    def test_power_lost_during_the_scan(self):
        self.bluez.add_adapter()
        run = self.start_lumerix('--scan', '10', '--json')
        h.wait_for_discovery(self.bluez)
        self.bluez.set_powered(False)
        rc, out, err = run.wait(8)
        self.assertEqual((rc, out), (2, ''), err)
        self.assertIn('Bluetooth stopped during the scan: Bluetooth is off.', err)


if __name__ == '__main__':
    h.main()
