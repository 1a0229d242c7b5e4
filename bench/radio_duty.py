"""Radio duty of the tray against the modelled bluetoothd: the share of time discovery runs.

The model's adapter turns Discovering on with StartDiscovery and off with StopDiscovery; it is
sampled ten times a second. Cases: idle after the launch's 20 s, the same with the menu open, and
idle while a Bluetooth audio stream is active. Goals: idle at most 0.35, menu open 1.0 (less the
moments of each rescan's restart), audio 0.

    LUMERIX_BIN=build/default/bin/lumerix /usr/bin/python3 bench/radio_duty.py [--seconds 60]
"""
import argparse
import os
import signal
import sys
import time

import dbus

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '..', 'tests', 'e2e'))

import lxharness as h  # noqa: E402  pylint: disable=wrong-import-position
import trayharness  # noqa: E402  pylint: disable=wrong-import-position

LAUNCH_BOOST_SECONDS = 20
TRANSPORT = '/org/bluez/hci0/dev_00_11_22_33_44_55/sep1/fd0'


def discovering(bluez):
    props = bluez.mock('/org/bluez/hci0').GetAll(h.ADAPTER_IFACE, dbus_interface=dbus.PROPERTIES_IFACE)
    return bool(props.get('Discovering', False))


def duty(bluez, seconds):
    on = total = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        total += 1
        on += discovering(bluez)
        time.sleep(0.1)
    return on / max(total, 1)


def case(binary, seconds, audio=False, menu_open=False):
    with trayharness.TrayDesktop() as desktop:
        if audio:
            desktop.bluez.add_object(TRANSPORT, 'org.bluez.MediaTransport1', {
                'State': dbus.String('active'), 'UUID': dbus.String('0000110a-0000-1000-8000-00805f9b34fb'),
                'Device': dbus.ObjectPath('/org/bluez/hci0/dev_00_11_22_33_44_55')})
        program = desktop.launch(binary=binary)
        menu = desktop.tray_menu()
        h.wait_for(lambda: 'BluezCentral: state 5' in desktop.program_log(), 15, 'state 5')
        time.sleep(LAUNCH_BOOST_SECONDS)
        if menu_open:
            menu.proxy.AboutToShow(dbus.Int32(0))
        figure = duty(desktop.bluez, seconds)
        program.send_signal(signal.SIGTERM)
        program.wait(15)
        return figure


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--seconds', type=float, default=60)
    parser.add_argument('--binary', default=os.environ.get('LUMERIX_BIN', 'build/default/bin/lumerix'))
    a = parser.parse_args()
    print(f'{a.binary}: discovery duty over {a.seconds:.0f} s, after the launch\'s {LAUNCH_BOOST_SECONDS} s')
    print(f'{"case":36} {"duty":>6} {"goal":>6}')
    for title, kwargs, goal in (('idle, nobody looks', {}, '≤ 0.35'),
                                ('menu open', {'menu_open': True}, '≈ 1'),
                                ('audio stream active, nobody looks', {'audio': True}, '0')):
        print(f'{title:36} {case(a.binary, a.seconds, **kwargs):6.2f} {goal:>6}', flush=True)


if __name__ == '__main__':
    main()
