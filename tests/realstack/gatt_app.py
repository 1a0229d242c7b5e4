"""A receiver's GATT side, served by the real bluetoothd on one adapter: the connection-information
service (0x5885) with its header characteristic (0x5880) and data characteristics (0x5885 on), the
same payload the modelled receiver serves.

    gatt_app.py ADAPTER_PATH     registers, prints "registered", serves until killed
"""
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

import lxharness as h
import test_gatt

APP_PATH = '/org/lumerix/receiver'
GATT_SERVICE = 'org.bluez.GattService1'
GATT_CHARACTERISTIC = 'org.bluez.GattCharacteristic1'


class Characteristic(dbus.service.Object):

    def __init__(self, bus, path, uuid16, service_path, value):
        super().__init__(bus, path)
        self.path = path
        self.props = {GATT_CHARACTERISTIC: {
            'UUID': h.uuid128(uuid16), 'Service': dbus.ObjectPath(service_path),
            'Flags': dbus.Array(['read'], signature='s')}}
        self.value = value

    @dbus.service.method(GATT_CHARACTERISTIC, in_signature='a{sv}', out_signature='ay')
    def ReadValue(self, options):  # pylint: disable=invalid-name
        offset = int(options.get('offset', 0))
        return dbus.Array([dbus.Byte(b) for b in self.value[offset:]], signature='y')


class Application(dbus.service.Object):

    def __init__(self, bus):
        super().__init__(bus, APP_PATH)
        service_path = APP_PATH + '/service0'
        self.objects = {dbus.ObjectPath(service_path): {GATT_SERVICE: {
            'UUID': h.uuid128(0x5885), 'Primary': dbus.Boolean(True)}}}
        self.characteristics = []
        for i, (uuid16, value) in enumerate(test_gatt.connection_info_characteristics()):
            c = Characteristic(bus, '%s/char%d' % (service_path, i), uuid16, service_path, value)
            self.characteristics.append(c)
            self.objects[dbus.ObjectPath(c.path)] = c.props

    @dbus.service.method('org.freedesktop.DBus.ObjectManager', out_signature='a{oa{sa{sv}}}')
    def GetManagedObjects(self):  # pylint: disable=invalid-name
        return self.objects


def main():
    DBusGMainLoop(set_as_default=True)
    bus = dbus.SystemBus()
    app = Application(bus)
    loop = GLib.MainLoop()
    manager = dbus.Interface(bus.get_object('org.bluez', sys.argv[1]), 'org.bluez.GattManager1')

    def failed(error):
        print('registration failed: %s' % error, flush=True)
        loop.quit()

    manager.RegisterApplication(app, {}, reply_handler=lambda: print('registered', flush=True),
                                error_handler=failed)
    loop.run()
    return 1


if __name__ == '__main__':
    sys.exit(main())
