"""The BlueZ central follows bluetoothd from the bus while the tray runs: restart, adapter unplugged, power."""
import re
import unittest

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


if __name__ == '__main__':
    h.main()
