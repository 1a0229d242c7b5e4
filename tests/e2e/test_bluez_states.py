"""The BlueZ central follows bluetoothd from the bus while the tray runs: restart, adapter unplugged, power."""
import contextlib
import os
import re
import shutil
import tempfile
import time
import unittest

import dbus

import lxharness as h
from trayharness import TrayDesktop


class CentralFollowsBluetoothd(unittest.TestCase):

    def states(self):
        return [int(s) for s in re.findall(r'BluezCentral: state (\d)', self.desktop.program_log())]

    def wait_for_states(self, tail, what):
        h.wait_for(lambda: self.states()[-len(tail):] == tail, 10, what)

    def test_each_transition_is_reported_as_it_happens(self):
        with TrayDesktop() as self.desktop:
            self.desktop.launch()
            h.wait_for(lambda: self.desktop.adapter_calls('StartDiscovery') >= 1, 15, 'scanning')
            self.assertEqual(self.states(), [5])

            def restart():
                self.desktop.bluez.stop()
                self.wait_for_states([5, 0], 'state 0 once bluetoothd is gone')
                self.desktop.bluez = h.Bluez(self.desktop.system)
                self.desktop.bluez.add_adapter()

            def unplug():
                self.desktop.bluez.remove_adapter()
                self.wait_for_states([5, 2], 'state 2 without an adapter')
                self.desktop.bluez.add_adapter()

            def power_cycle():
                self.desktop.bluez.set_powered(False)
                self.wait_for_states([5, 4], 'state 4 when powered off')
                self.desktop.bluez.set_powered(True)

            # A fresh bluetoothd may show no adapter for a moment (2) before its adapter arrives.
            for name, transition, expected in (('restart', restart, ([0, 5], [0, 2, 5])),
                                               ('unplug', unplug, ([2, 5],)), ('power', power_cycle, ([4, 5],))):
                with self.subTest(name):
                    before = len(self.states())
                    transition()
                    self.wait_for_states([5], 'state 5 again')
                    self.assertIn(self.states()[before:], expected, self.desktop.program_log())


class SystemBusComesBack(unittest.TestCase):
    """A system bus that drops the connection (a restarted dbus-daemon) is joined again."""

    def test_the_central_reconnects_and_scans_again(self):
        with TrayDesktop() as desktop:
            # The same socket for the next daemon; without the first daemon's guid, which a new
            # one cannot have.
            socket = os.path.join(tempfile.mkdtemp(prefix='lx-sock-'), 'system_bus_socket')
            self.addCleanup(shutil.rmtree, os.path.dirname(socket), True)
            first = h.PrivateBus(listen='unix:path=' + socket)
            desktop.bluez.stop()
            desktop.system.stop()
            desktop.system, desktop.bluez = first, h.Bluez(first)
            desktop.bluez.add_adapter()
            desktop.env['DBUS_SYSTEM_BUS_ADDRESS'] = 'unix:path=' + socket
            desktop.launch()
            h.wait_for(lambda: desktop.adapter_calls('StartDiscovery') >= 1, 15, 'scanning')

            desktop.bluez.stop()
            first.stop()
            h.wait_for(lambda: 'system bus connection failed' in desktop.program_log(), 10, 'the drop noticed')
            with contextlib.suppress(FileNotFoundError):
                os.remove(socket)
            second = h.PrivateBus(listen='unix:path=' + socket)
            desktop.system, desktop.bluez = second, h.Bluez(second)
            desktop.bluez.add_adapter()
            h.wait_for(lambda: desktop.adapter_calls('StartDiscovery') >= 1, 20, 'scanning on the new bus')
            log = desktop.program_log()
            self.assertIn('BluezCentral: connected to the system bus again', log)
            states = [int(x) for x in re.findall(r'BluezCentral: state (\d)', log)]
            self.assertEqual(states[0], 5, log)
            self.assertIn(0, states, log)
            self.assertEqual(states[-1], 5, log)


class RadioSharedWithAudio(unittest.TestCase):
    """While a Bluetooth audio stream is active and nobody looks, the radio is left to it."""

    TRANSPORT = '/org/bluez/hci0/dev_00_11_22_33_44_55/sep1/fd0'

    def set_transport_state(self, desktop, state):
        desktop.bluez.mock(self.TRANSPORT).UpdateProperties('org.bluez.MediaTransport1',
                                                             {'State': dbus.String(state)})

    def test_no_discovery_while_audio_streams_unless_the_menu_is_open(self):
        with TrayDesktop() as desktop:
            desktop.bluez.add_object(self.TRANSPORT, 'org.bluez.MediaTransport1', {
                'State': dbus.String('active'), 'UUID': dbus.String('0000110a-0000-1000-8000-00805f9b34fb'),
                'Device': dbus.ObjectPath('/org/bluez/hci0/dev_00_11_22_33_44_55')})
            desktop.launch()
            menu = desktop.tray_menu()
            h.wait_for(lambda: 'Bluetooth audio active' in desktop.program_log(), 15, 'the audio stream noticed')
            h.wait_for(lambda: 'BluezCentral: state 5' in desktop.program_log(), 15, 'state 5')
            # Launch would scan without pause; the stream wins while nobody looks.
            time.sleep(3)
            self.assertEqual(desktop.bluez.adapter_calls(), [], desktop.program_log())

            # As a tray host opens a menu.
            menu.proxy.AboutToShow(dbus.Int32(0))
            menu.proxy.Event(dbus.Int32(0), 'opened', dbus.Int32(0, variant_level=1), dbus.UInt32(0))
            h.wait_for(lambda: desktop.adapter_calls('StartDiscovery') == 1, 10, 'discovery with the menu open')
            filters = [c[2][0] for c in desktop.bluez.mock('/org/bluez/hci0').GetCalls()
                       if str(c[1]) == 'SetDiscoveryFilter']
            self.assertEqual({str(k): v for k, v in filters[-1].items()},
                             {'Transport': 'le', 'DuplicateData': True, 'Pattern': 'LX'})
            menu.proxy.Event(dbus.Int32(0), 'closed', dbus.Int32(0, variant_level=1), dbus.UInt32(0))
            h.wait_for(lambda: desktop.adapter_calls('StopDiscovery') == 1, 10, 'discovery stopped as it closes')

            self.set_transport_state(desktop, 'idle')
            h.wait_for(lambda: 'Bluetooth audio idle' in desktop.program_log(), 10, 'the stream\'s end noticed')
            # Scanning comes back by itself: at once within the launch's 20 s, else at the next rescan.
            h.wait_for(lambda: desktop.adapter_calls('StartDiscovery') == 2, 20, 'discovery after the stream')


if __name__ == '__main__':
    h.main()
