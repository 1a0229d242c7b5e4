"""End-to-end harness: private buses, a modelled bluetoothd with LX receivers, and the lumerix binary."""

import contextlib
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
PYTHON = '/usr/bin/python3'

# The receivers' static key; the advertisement key is its first 8 bytes with DES parity.
CONNECTION_INFO_KEY = bytes.fromhex('9d27e4a05b13c86f41c07be3925ad1f0')
DEFAULT_COMPANY_ID = 0x0AC0


# -- records ------------------------------------------------------------------------------------

def advertisement_key():
    return bytes((b & 0xFE) | (bin(b & 0xFE).count('1') % 2 == 0) for b in CONNECTION_INFO_KEY[:8])


def _openssl(args, data):
    proc = subprocess.run(['openssl', 'enc'] + args, input=data, capture_output=True, check=False)
    if proc.returncode != 0:
        raise RuntimeError('openssl enc failed: ' + proc.stderr.decode(errors='replace'))
    return proc.stdout


def aes128_ecb_encrypt(plaintext):
    return _openssl(['-aes-128-ecb', '-K', CONNECTION_INFO_KEY.hex(), '-nopad'], plaintext)


def advertisement(ip, code_hi, code_lo, name, segment_count=1, segment_index=1):
    """Manufacturer-data value: segment byte, then DES-CFB64 of IPv4, login code and zero-ended name."""
    plaintext = bytes(int(p) for p in ip.split('.')) + bytes([code_hi, code_lo]) + name.encode() + b'\0'
    key = advertisement_key().hex()
    return bytes([(segment_count << 4) | segment_index]) + _openssl(
        ['-des-cfb', '-K', key, '-iv', key, '-nopad', '-provider', 'legacy', '-provider', 'default'], plaintext)


def identifier(address):
    return '00000000-0000-0000-0000-' + address.replace(':', '').upper()


def manufacturer_data(value, company=DEFAULT_COMPANY_ID):
    if value is None:
        return dbus.Dictionary({}, signature='qv')
    return dbus.Dictionary({dbus.UInt16(company): dbus.Array([dbus.Byte(b) for b in value], signature='y',
                                                             variant_level=1)}, signature='qv')


# -- processes and waiting ----------------------------------------------------------------------

def wait_for(predicate, timeout, what, interval=0.05):
    """Polls predicate until it returns something truthy, which is returned."""
    deadline = time.monotonic() + timeout
    last = None
    while time.monotonic() < deadline:
        last = predicate()
        if last:
            return last
        time.sleep(interval)
    raise AssertionError(f'timed out after {timeout}s waiting for {what} (last: {last!r})')


def stop_process(proc):
    if proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(5)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


BUS_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>{kind}</type>
  <keep_umask/>
  <listen>{listen}</listen>
  {services}
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    {extra}
  </policy>
</busconfig>
'''

# A user without Bluetooth rights; one who may read bluetoothd's objects but not start discovery.
DENY_BLUEZ = '<deny send_destination="org.bluez"/>'
DENY_BLUEZ_DISCOVERY = ('<deny send_destination="org.bluez" send_interface="org.bluez.Adapter1" '
                        'send_member="StartDiscovery"/>')


class PrivateBus:
    """A dbus-daemon of our own (system or session type)."""

    def __init__(self, extra_policy='', kind='system', services_dir=None, listen=None):
        """services_dir: where the bus finds the services it starts on demand (none by default).
        listen: the daemon's address (a fixed socket lets a restarted bus take the old one's place)."""
        self.dir = tempfile.mkdtemp(prefix='lx-bus-')
        conf = os.path.join(self.dir, 'bus.conf')
        services = f'<servicedir>{services_dir}</servicedir>' if services_dir else ''
        with open(conf, 'w', encoding='utf-8') as f:
            f.write(BUS_CONFIG.format(kind=kind, listen=listen or 'unix:dir=' + self.dir, extra=extra_policy,
                                      services=services))
        out = subprocess.check_output(['dbus-daemon', '--fork', '--print-address=1', '--print-pid=1',
                                       '--config-file=' + conf], universal_newlines=True)
        self.address, pid = out.strip().splitlines()
        self.pid = int(pid)
        self.connection = dbus.bus.BusConnection(self.address)

    def stop(self):
        with contextlib.suppress(Exception):
            self.connection.close()
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid, signal.SIGTERM)
        shutil.rmtree(self.dir, ignore_errors=True)


# -- the modelled bluetoothd ----------------------------------------------------------------------

# Connect/Disconnect as bluetoothd does them for an LE device: Connected, then ServicesResolved.
CONNECT_CODE = '''
self.UpdateProperties("org.bluez.Device1", {"Connected": dbus.Boolean(True)})
self.UpdateProperties("org.bluez.Device1", {"ServicesResolved": dbus.Boolean(True)})
'''
DISCONNECT_CODE = '''
self.UpdateProperties("org.bluez.Device1", {"ServicesResolved": dbus.Boolean(False)})
self.UpdateProperties("org.bluez.Device1", {"Connected": dbus.Boolean(False)})
'''


def uuid128(uuid16):
    return '0000%04x-0000-1000-8000-00805f9b34fb' % uuid16


class Bluez:
    """python3-dbusmock's bluez5 template on a private bus, with helpers for receivers."""

    def __init__(self, bus):
        self.bus = bus
        self.log = tempfile.NamedTemporaryFile(prefix='lx-bluez-', suffix='.log')
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([PYTHON, '-m', 'dbusmock', '--system', '--template', 'bluez5',
                                         '-l', self.log.name], env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        wait_for(lambda: bus.connection.name_has_owner('org.bluez'), 15, 'org.bluez')
        self.root = bus.connection.get_object('org.bluez', '/')

    def stop(self):
        stop_process(self.process)
        self.log.close()

    def mock(self, path):
        return dbus.Interface(self.bus.connection.get_object('org.bluez', path), MOCK_IFACE)

    def add_adapter(self, name='hci0', powered=True):
        path = self.root.AddAdapter(name, 'meeting-room-pc', dbus_interface=BLUEZ_MOCK_IFACE)
        if not powered:
            self.set_powered(False, name)
        return str(path)

    def set_powered(self, powered, name='hci0'):
        self.mock('/org/bluez/' + name).UpdateProperties(ADAPTER_IFACE, {'Powered': dbus.Boolean(powered)})

    def remove_adapter(self, name='hci0'):
        self.root.RemoveAdapterWithDevices(name, dbus_interface=BLUEZ_MOCK_IFACE)

    def adapter_calls(self, name='hci0'):
        """Method names called on the adapter, in order."""
        return [str(c[1]) for c in self.mock('/org/bluez/' + name).GetCalls()]

    def last_call_time(self, method, name='hci0'):
        """When the adapter's method was last called, in whole time.time() seconds; 0 if never."""
        return max((float(c[0]) for c in self.mock('/org/bluez/' + name).GetCalls() if str(c[1]) == method),
                   default=0.0)

    def device_calls(self, address, adapter='hci0'):
        return [str(c[1]) for c in self.mock(self.device_path(address, adapter)).GetCalls()]

    @staticmethod
    def device_path(address, name='hci0'):
        return '/org/bluez/%s/dev_%s' % (name, address.replace(':', '_').upper())

    def add_object(self, path, interface, props, methods=()):
        """Adds an object and announces it with InterfacesAdded, as bluetoothd does for a new one."""
        self.root.AddObject(path, interface, props, list(methods), dbus_interface=MOCK_IFACE)
        added = dbus.Dictionary({interface: dbus.Dictionary(props, signature='sv')}, signature='sa{sv}')
        self.root.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'oa{sa{sv}}',
                             [dbus.ObjectPath(path), added], dbus_interface=MOCK_IFACE)

    def add_raw_device(self, path, props):
        """A Device1 with properties exactly as given (malformed ones included)."""
        self.add_object(path, DEVICE_IFACE, props)

    def add_device(self, address, local_name, rssi=-60, manufacturer=None, company=DEFAULT_COMPANY_ID,
                   adapter='hci0', connect_error=None):
        """connect_error: the D-Bus error name Device1.Connect answers with instead of connecting."""
        path = self.device_path(address, adapter)
        props = {
            'Address': dbus.String(address),
            'AddressType': dbus.String('random'),
            'Alias': dbus.String(address.replace(':', '-')),
            'Paired': dbus.Boolean(False),
            'Connected': dbus.Boolean(False),
            'ServicesResolved': dbus.Boolean(False),
            'Adapter': dbus.ObjectPath('/org/bluez/' + adapter),
            'UUIDs': dbus.Array([], signature='s'),
            'ManufacturerData': manufacturer_data(manufacturer, company),
        }
        if local_name is not None:
            props['Name'] = dbus.String(local_name)
        if rssi is not None:
            props['RSSI'] = dbus.Int16(rssi)
        connect = CONNECT_CODE
        if connect_error:
            connect = 'raise dbus.exceptions.DBusException("le-connection-abort-by-local", name=%r)' % connect_error
        self.add_object(path, DEVICE_IFACE, props, [('Connect', '', '', connect),
                                                    ('Disconnect', '', '', DISCONNECT_CODE)])
        return path

    def add_receiver(self, receiver, rssi, **kwargs):
        """receiver: (address, ip, login code high, login code low, name), advertising as 'LX'."""
        return self.add_device(receiver[0], 'LX', rssi=rssi, manufacturer=advertisement(*receiver[1:]), **kwargs)

    def advertise(self, address, rssi=None, manufacturer=None, company=DEFAULT_COMPANY_ID, adapter='hci0'):
        """One more advertisement: PropertiesChanged with RSSI and/or ManufacturerData (a{qv}, which
        the mock's UpdateProperties cannot carry)."""
        changed = {}
        if rssi is not None:
            changed['RSSI'] = dbus.Int16(rssi)
        if manufacturer is not None:
            changed['ManufacturerData'] = manufacturer_data(manufacturer, company)
        self.mock(self.device_path(address, adapter)).EmitSignal(
            'org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
            [DEVICE_IFACE, dbus.Dictionary(changed, signature='sv'), dbus.Array([], signature='s')])

    def add_gatt_service(self, device_path, handle, uuid16, characteristics):
        """A primary service under the device; characteristics [(uuid16, value)] answer ReadValue."""
        service_path = '%s/service%04x' % (device_path, handle)
        self.add_object(service_path, 'org.bluez.GattService1', {
            'UUID': dbus.String(uuid128(uuid16)), 'Primary': dbus.Boolean(True),
            'Device': dbus.ObjectPath(device_path)})
        for i, (char_uuid16, value) in enumerate(characteristics):
            code = 'ret = dbus.Array([dbus.Byte(b) for b in %r], signature="y")' % list(value)
            self.add_object('%s/char%04x' % (service_path, handle + 1 + 2 * i), 'org.bluez.GattCharacteristic1', {
                'UUID': dbus.String(uuid128(char_uuid16)), 'Service': dbus.ObjectPath(service_path),
                'Value': dbus.Array([dbus.Byte(b) for b in value], signature='y'),
                'Flags': dbus.Array(['read'], signature='s')}, [('ReadValue', 'a{sv}', 'ay', code)])
        return service_path


# Runs inside the modelled bluetoothd: emits rate x seconds signals, `rate` a second, round robin over
# the device paths, each PropertiesChanged(Device1, {RSSI, ManufacturerData}). RSSI walks -30..-99 per
# device so a traced receiver can pair its lines with the send times kept here.
FLOOD_CODE = '''
import time as _t
from gi.repository import GLib as _GLib
import dbus.lowlevel as _ll
paths = [str(p) for p in args[0]]
record = dbus.Array([dbus.Byte(b) for b in args[1]], signature="y")
company = dbus.UInt16(args[2])
rate, seconds = float(args[3]), float(args[4])
state = self.__dict__.setdefault("flood", {})
state.update(sent=0, times={}, running=True)
start = _t.monotonic()
# exec() keeps these names local: hand them to the callback explicitly.
def tick(state=state, start=start, paths=paths, record=record, company=company, rate=rate, seconds=seconds,
         _t=_t, _ll=_ll, dbus=dbus, self=self):
    if not state["running"]:
        return False
    # Never more than rate x seconds in all, and a bounded slice per tick so the mock keeps
    # answering calls when it cannot keep up.
    due = min(int((_t.monotonic() - start) * rate), int(rate * seconds), state["sent"] + 200)
    while state["sent"] < due:
        n = state["sent"]
        path = paths[n % len(paths)]
        rssi = -30 - (n // len(paths)) % 70
        msg = _ll.SignalMessage(path, "org.freedesktop.DBus.Properties", "PropertiesChanged")
        msg.append("org.bluez.Device1",
                   dbus.Dictionary({"RSSI": dbus.Int16(rssi),
                                    "ManufacturerData": dbus.Dictionary({company: dbus.Array(record, signature="y", variant_level=1)}, signature="qv")},
                                   signature="sv"),
                   dbus.Array([], signature="s"), signature="sa{sv}as")
        self.connection.send_message(msg)
        state["times"].setdefault(path, []).append(_t.time())
        state["sent"] = n + 1
    if state["sent"] >= int(rate * seconds):
        state["running"] = False
        return False
    return True
_GLib.timeout_add(5, tick)
'''
COUNT_CODE = 'ret = dbus.UInt64(self.__dict__.get("flood", {}).get("sent", 0))'
STOP_CODE = 'self.__dict__.get("flood", {})["running"] = False'
TIMES_CODE = '''
import json as _json
ret = _json.dumps(self.__dict__.get("flood", {}).get("times", {}))
'''


class Flood:
    """Advertisements at a fixed rate from the modelled bluetoothd's own connection (benchmarks, bursts)."""

    def __init__(self, bluez):
        self.bluez = bluez
        mock = bluez.mock('/')
        mock.AddMethod('org.lumerix.Flood', 'Start', 'asayqdd', '', FLOOD_CODE)
        mock.AddMethod('org.lumerix.Flood', 'Count', '', 't', COUNT_CODE)
        mock.AddMethod('org.lumerix.Flood', 'Stop', '', '', STOP_CODE)
        mock.AddMethod('org.lumerix.Flood', 'Times', '', 's', TIMES_CODE)
        self.root = dbus.Interface(bluez.bus.connection.get_object('org.bluez', '/'), 'org.lumerix.Flood')

    def start(self, paths, rate, seconds, name_lx):
        record = advertisement('10.0.0.9', 12, 34, 'Flood Room') if name_lx else b'\x01\x02\x03\x04'
        self.root.Start(dbus.Array(paths, signature='s'), dbus.ByteArray(record), DEFAULT_COMPANY_ID, rate,
                        seconds)

    def count(self):
        return int(self.root.Count())

    def stop(self):
        self.root.Stop()

    def times(self):
        """Send times (epoch seconds) per device path, in order."""
        return json.loads(str(self.root.Times()))


def wait_for_discovery(bluez, adapter='hci0', timeout=5):
    wait_for(lambda: 'StartDiscovery' in bluez.adapter_calls(adapter), timeout, 'lumerix to start discovery')


# -- the binary -----------------------------------------------------------------------------------

class Run:
    """A lumerix process started in the background."""

    def __init__(self, args, env):
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([os.environ['LUMERIX_BIN']] + list(args), env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, universal_newlines=True)

    def wait(self, timeout):
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            out, err = self.process.communicate()
            raise AssertionError('lumerix did not finish within %s s; stderr:\n%s' % (timeout, err)) from None
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
        self.use_bus(self.bus_policy, self.start_bluez)

    def use_bus(self, policy, start_bluez):
        """Moves the test to a fresh bus with this policy, with or without bluetoothd."""
        self.bus = PrivateBus(policy)
        self.addCleanup(self.bus.stop)
        self.bluez = Bluez(self.bus) if start_bluez else None
        if self.bluez:
            self.addCleanup(self.bluez.stop)

    def start_lumerix(self, *args, extra_env=None):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address, LUMERIX_LOG='stderr',
                   QT_QPA_PLATFORM='offscreen', **(extra_env or {}))
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        run = Run(args, env)
        self.addCleanup(run.kill)
        return run

    def run_lumerix(self, *args, timeout=20):
        return self.start_lumerix(*args).wait(timeout)


def main():
    """Runs the calling module's tests, prints a summary and exits non-zero on failure."""
    result = unittest.main(module='__main__', exit=False, verbosity=2).result
    print('\n%d run, %d failed, %d errors, %d skipped' % (
        result.testsRun, len(result.failures), len(result.errors), len(result.skipped)))
    sys.exit(0 if result.wasSuccessful() else 1)
