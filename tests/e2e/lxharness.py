"""End-to-end harness: a private system bus, a modelled bluetoothd, receivers that advertise
real encrypted records, and the lumerix binary run against them.

Typical use:

    class T(lxharness.LumerixTestCase):
        def test_something(self):
            self.bluez.add_adapter()
            self.bluez.add_device('AA:BB:CC:DD:EE:01', 'LX',
                                  manufacturer=lxharness.advertisement('10.0.0.5', 12, 34, 'Room A'))
            rc, out, err = self.run_lumerix('--scan', '2', '--json')

The binary comes from $LUMERIX_BIN; python3-dbusmock runs under /usr/bin/python3.
"""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import dbus

MOCK_IFACE = 'org.freedesktop.DBus.Mock'
BLUEZ_MOCK_IFACE = 'org.bluez.Mock'
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
GATT_SERVICE_IFACE = 'org.bluez.GattService1'
GATT_CHARACTERISTIC_IFACE = 'org.bluez.GattCharacteristic1'
OBJECT_MANAGER_IFACE = 'org.freedesktop.DBus.ObjectManager'

PYTHON = '/usr/bin/python3'

# The receivers' static key; the advertisement key is its first 8 bytes.
CONNECTION_INFO_KEY = bytes.fromhex('9d27e4a05b13c86f41c07be3925ad1f0')
DEFAULT_COMPANY_ID = 0x0AC0


# ---------------------------------------------------------------------------------------------
# Records

def odd_parity(key):
    """DES keys carry odd parity in the low bit of each byte."""
    out = bytearray()
    for b in key:
        high = b & 0xFE
        ones = bin(high).count('1')
        out.append(high | (0 if ones % 2 else 1))
    return bytes(out)


def advertisement_key():
    return odd_parity(CONNECTION_INFO_KEY[:8])


def _openssl(args, data):
    proc = subprocess.run(['openssl', 'enc'] + args, input=data, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=False)
    if proc.returncode != 0:
        raise RuntimeError('openssl enc failed: ' + proc.stderr.decode(errors='replace'))
    return proc.stdout


def des_cfb64_encrypt(plaintext):
    """Single DES, 64-bit CFB, key and IV both the parity-adjusted advertisement key."""
    key = advertisement_key().hex()
    return _openssl(['-des-cfb', '-K', key, '-iv', key, '-nopad', '-provider', 'legacy',
                     '-provider', 'default'], plaintext)


def aes128_ecb_encrypt(plaintext):
    if len(plaintext) % 16:
        raise ValueError('AES-ECB without padding needs whole 16-byte blocks')
    return _openssl(['-aes-128-ecb', '-K', CONNECTION_INFO_KEY.hex(), '-nopad'], plaintext)


def advertisement(ip, code_hi, code_lo, name, segment_count=1, segment_index=1):
    """Manufacturer-data value bytes (after the company id): segment byte, then the DES-CFB64
    ciphertext of IPv4 octets, the two login-code bytes and the zero-terminated name segment."""
    octets = bytes(int(p) for p in ip.split('.'))
    plaintext = octets + bytes([code_hi, code_lo]) + name.encode() + b'\0'
    return bytes([(segment_count << 4) | segment_index]) + des_cfb64_encrypt(plaintext)


def identifier(address):
    return '00000000-0000-0000-0000-' + address.replace(':', '').upper()


# ---------------------------------------------------------------------------------------------
# Buses and the modelled bluetoothd

BUS_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <keep_umask/>
  <listen>unix:dir={dir}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    {extra}
  </policy>
</busconfig>
'''

# Refuses everyone's method calls to bluetoothd (a user without Bluetooth rights).
DENY_BLUEZ = '<deny send_destination="org.bluez"/>'
# Lets everyone read bluetoothd's objects but not start discovery.
DENY_BLUEZ_DISCOVERY = ('<deny send_destination="org.bluez" send_interface="org.bluez.Adapter1" '
                        'send_member="StartDiscovery"/>')


class PrivateBus:
    """A dbus-daemon of our own, configured as a system bus."""

    def __init__(self, extra_policy=''):
        self.dir = tempfile.mkdtemp(prefix='lx-bus-')
        conf = os.path.join(self.dir, 'bus.conf')
        with open(conf, 'w', encoding='utf-8') as f:
            f.write(BUS_CONFIG.format(dir=self.dir, extra=extra_policy))
        out = subprocess.check_output(['dbus-daemon', '--fork', '--print-address=1', '--print-pid=1',
                                       '--config-file=' + conf], universal_newlines=True)
        lines = out.strip().splitlines()
        self.address, self.pid = lines[0], int(lines[1])
        self.connection = dbus.bus.BusConnection(self.address)

    def stop(self):
        try:
            self.connection.close()
        except Exception:  # pylint: disable=broad-except
            pass
        try:
            os.kill(self.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        shutil.rmtree(self.dir, ignore_errors=True)


def _wait_until(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return
        time.sleep(0.05)
    raise TimeoutError('timed out waiting for ' + what)


class Bluez:
    """python3-dbusmock's bluez5 template on a private bus, with helpers for receivers."""

    def __init__(self, bus):
        self.bus = bus
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
        self.log = tempfile.NamedTemporaryFile(prefix='lx-bluez-', suffix='.log')
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([PYTHON, '-m', 'dbusmock', '--system', '--template', 'bluez5',
                                         '-l', self.log.name], env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        _wait_until(lambda: bus.connection.name_has_owner('org.bluez'), 15, 'org.bluez')
        self.root = bus.connection.get_object('org.bluez', '/')
        self.adapter_name = None

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.log.close()

    def obj(self, path):
        return self.bus.connection.get_object('org.bluez', path)

    def mock(self, path):
        return dbus.Interface(self.obj(path), MOCK_IFACE)

    # Adapters -----------------------------------------------------------------------------------

    def add_adapter(self, name='hci0', powered=True):
        path = self.root.AddAdapter(name, 'meeting-room-pc', dbus_interface=BLUEZ_MOCK_IFACE)
        self.adapter_name = name
        if not powered:
            self.mock(path).UpdateProperties(ADAPTER_IFACE, {'Powered': dbus.Boolean(False)})
        return str(path)

    def set_powered(self, powered, name='hci0'):
        self.mock('/org/bluez/' + name).UpdateProperties(ADAPTER_IFACE, {'Powered': dbus.Boolean(powered)})

    def remove_adapter(self, name='hci0'):
        self.root.RemoveAdapterWithDevices(name, dbus_interface=BLUEZ_MOCK_IFACE)

    def adapter_calls(self, name='hci0'):
        """Method names called on the adapter, in order."""
        calls = self.mock('/org/bluez/' + name).GetCalls()
        return [str(c[1]) for c in calls]

    # Devices ------------------------------------------------------------------------------------

    def device_path(self, address, name='hci0'):
        return '/org/bluez/%s/dev_%s' % (name, address.replace(':', '_').upper())

    def add_device(self, address, local_name, rssi=-60, manufacturer=None, company=DEFAULT_COMPANY_ID,
                   adapter='hci0', connect_error=None):
        """Adds a device with RSSI and manufacturer data; the InterfacesAdded signal carries them,
        as bluetoothd's does for a freshly seen device. connect_error: the D-Bus error name that
        Device1.Connect answers with, instead of connecting."""
        path = self.device_path(address, adapter)
        props = self._device_properties(address, local_name, rssi, manufacturer, company, adapter)
        connect = CONNECT_CODE
        if connect_error:
            connect = 'raise dbus.exceptions.DBusException("le-connection-abort-by-local", name=%r)' % connect_error
        self.root.AddObject(path, DEVICE_IFACE, props, [
            ('Connect', '', '', connect),
            ('Disconnect', '', '', DISCONNECT_CODE),
        ], dbus_interface=MOCK_IFACE)
        self.root.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                             [dbus.ObjectPath(path), interfaces(DEVICE_IFACE, props)], dbus_interface=MOCK_IFACE)
        return path

    @staticmethod
    def _device_properties(address, local_name, rssi, manufacturer, company, adapter):
        props = {
            'Address': dbus.String(address),
            'AddressType': dbus.String('random'),
            'Alias': dbus.String(address.replace(':', '-')),
            'Paired': dbus.Boolean(False),
            'Connected': dbus.Boolean(False),
            'ServicesResolved': dbus.Boolean(False),
            'Adapter': dbus.ObjectPath('/org/bluez/' + adapter),
            'UUIDs': dbus.Array([], signature='s'),
        }
        if local_name is not None:
            props['Name'] = dbus.String(local_name)
        if rssi is not None:
            props['RSSI'] = dbus.Int16(rssi)
        props['ManufacturerData'] = manufacturer_data(manufacturer, company)
        return props

    def add_raw_device(self, path, props):
        """Adds a Device1 with properties exactly as given (malformed ones included)."""
        self.root.AddObject(path, DEVICE_IFACE, props, [], dbus_interface=MOCK_IFACE)
        self.root.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                             [dbus.ObjectPath(path), interfaces(DEVICE_IFACE, props)], dbus_interface=MOCK_IFACE)

    def advertise(self, address, rssi=None, manufacturer=None, company=DEFAULT_COMPANY_ID, adapter='hci0'):
        """One more advertisement: a PropertiesChanged carrying RSSI and/or ManufacturerData."""
        changed = {}
        if rssi is not None:
            changed['RSSI'] = dbus.Int16(rssi)
        if manufacturer is not None:
            changed['ManufacturerData'] = manufacturer_data(manufacturer, company)
        self.emit_properties_changed(self.device_path(address, adapter), DEVICE_IFACE, changed)

    def emit_properties_changed(self, path, interface, changed):
        """PropertiesChanged as bluetoothd sends it (the mock's UpdateProperties cannot carry a{qv})."""
        self.mock(path).EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as', [
            interface, dbus.Dictionary(changed, signature='sv'), dbus.Array([], signature='s')])

    def remove_device(self, address, adapter='hci0'):
        path = self.device_path(address, adapter)
        self.root.RemoveObject(path, dbus_interface=MOCK_IFACE)
        self.root.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                             [dbus.ObjectPath(path), [DEVICE_IFACE]], dbus_interface=MOCK_IFACE)

    # GATT ---------------------------------------------------------------------------------------

    def add_gatt_service(self, device_path, handle, uuid16, characteristics):
        """A primary GattService1 under the device, with characteristics given as
        [(uuid16, value bytes), ...]; each answers ReadValue with its value."""
        service_path = '%s/service%04x' % (device_path, handle)
        service_props = {
            'UUID': dbus.String(uuid128(uuid16)),
            'Primary': dbus.Boolean(True),
            'Device': dbus.ObjectPath(device_path),
        }
        self.root.AddObject(service_path, GATT_SERVICE_IFACE, service_props, [], dbus_interface=MOCK_IFACE)
        self.root.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                             [dbus.ObjectPath(service_path), interfaces(GATT_SERVICE_IFACE, service_props)],
                             dbus_interface=MOCK_IFACE)
        for i, (char_uuid16, value) in enumerate(characteristics):
            char_path = '%s/char%04x' % (service_path, handle + 1 + 2 * i)
            char_props = {
                'UUID': dbus.String(uuid128(char_uuid16)),
                'Service': dbus.ObjectPath(service_path),
                'Value': dbus.Array([dbus.Byte(b) for b in value], signature='y'),
                'Flags': dbus.Array(['read'], signature='s'),
            }
            code = 'ret = dbus.Array([dbus.Byte(b) for b in %r], signature="y")' % list(value)
            self.root.AddObject(char_path, GATT_CHARACTERISTIC_IFACE, char_props,
                                [('ReadValue', 'a{sv}', 'ay', code)], dbus_interface=MOCK_IFACE)
            self.root.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                                 [dbus.ObjectPath(char_path), interfaces(GATT_CHARACTERISTIC_IFACE, char_props)],
                                 dbus_interface=MOCK_IFACE)
        return service_path

    def device_calls(self, address, adapter='hci0'):
        return [str(c[1]) for c in self.mock(self.device_path(address, adapter)).GetCalls()]


# Connect/Disconnect as bluetoothd does them for an LE device: Connected, then ServicesResolved.
CONNECT_CODE = '''
self.UpdateProperties("org.bluez.Device1", {"Connected": dbus.Boolean(True)})
self.UpdateProperties("org.bluez.Device1", {"ServicesResolved": dbus.Boolean(True)})
'''
DISCONNECT_CODE = '''
self.UpdateProperties("org.bluez.Device1", {"ServicesResolved": dbus.Boolean(False)})
self.UpdateProperties("org.bluez.Device1", {"Connected": dbus.Boolean(False)})
'''


def interfaces(interface, props):
    """The a{sa{sv}} argument of InterfacesAdded, typed so it survives the trip through EmitSignal."""
    return dbus.Dictionary({interface: dbus.Dictionary(props, signature='sv')}, signature='sa{sv}')


def uuid128(uuid16):
    return '0000%04x-0000-1000-8000-00805f9b34fb' % uuid16


def manufacturer_data(value, company=DEFAULT_COMPANY_ID):
    if value is None:
        return dbus.Dictionary({}, signature='qv')
    return dbus.Dictionary({dbus.UInt16(company): dbus.Array([dbus.Byte(b) for b in value], signature='y',
                                                             variant_level=1)}, signature='qv')


# ---------------------------------------------------------------------------------------------
# The binary

def lumerix_bin():
    path = os.environ.get('LUMERIX_BIN')
    if not path:
        raise RuntimeError('LUMERIX_BIN is not set')
    return path


class Run:
    """A lumerix process started in the background."""

    def __init__(self, args, env):
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([lumerix_bin()] + list(args), env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, universal_newlines=True)

    def wait(self, timeout):
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            out, err = self.process.communicate()
            raise AssertionError('lumerix did not finish within %s s; stderr:\n%s' % (timeout, err))
        return self.process.returncode, out, err

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.communicate()


class LumerixTestCase(unittest.TestCase):
    """Each test gets its own bus and bluetoothd model."""

    bus_policy = ''
    start_bluez = True

    def setUp(self):
        self.bus = PrivateBus(self.bus_policy)
        self.addCleanup(self.bus.stop)
        self.bluez = None
        if self.start_bluez:
            self.bluez = Bluez(self.bus)
            self.addCleanup(self.bluez.stop)
        self.runs = []
        self.addCleanup(self._kill_runs)

    def _kill_runs(self):
        for r in self.runs:
            r.kill()

    def env(self):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address, LUMERIX_LOG='stderr')
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        env['QT_QPA_PLATFORM'] = 'offscreen'
        return env

    def start_lumerix(self, *args):
        run = Run(args, self.env())
        self.runs.append(run)
        return run

    def run_lumerix(self, *args, timeout=20):
        return self.start_lumerix(*args).wait(timeout)

    def scan_json(self, seconds=2, extra=()):
        rc, out, err = self.run_lumerix('--scan', str(seconds), '--json', *extra)
        self.assertEqual(rc, 0, err)
        try:
            return json.loads(out), err
        except ValueError as e:
            raise AssertionError('stdout is not one JSON document: %r\nstderr:\n%s' % (out, err)) from e


def main():
    """Runs the calling module's tests, prints a summary and exits non-zero on failure."""
    program = unittest.main(module='__main__', exit=False, verbosity=2)
    result = program.result
    print('\n%d run, %d failed, %d errors, %d skipped, %d expected failures' % (
        result.testsRun, len(result.failures), len(result.errors), len(result.skipped),
        len(result.expectedFailures)))
    sys.exit(0 if result.wasSuccessful() else 1)
