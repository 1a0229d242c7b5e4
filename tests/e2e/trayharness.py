"""A private desktop for tray tests: Xvfb, private buses, a StatusNotifierWatcher, a notification
server, logind and BlueZ models."""
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import dbus
import dbusmock

import lxharness
from lxharness import MOCK_IFACE, stop_process, wait_for

WATCHER = 'org.kde.StatusNotifierWatcher'
WATCHER_PATH = '/StatusNotifierWatcher'
WATCHER_TEMPLATE = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'watcher_template.py')
NOTIFICATIONS = 'org.freedesktop.Notifications'
SNI_IFACE = 'org.kde.StatusNotifierItem'
MENU_IFACE = 'com.canonical.dbusmenu'


def dbusmenu_shows(label):
    """What a dbusmenu host shows for a label: '__' is '_', any other '_' marks a mnemonic and is not
    shown."""
    shown, i = [], 0
    while i < len(label):
        if label[i] != '_':
            shown.append(label[i])
        elif label[i + 1:i + 2] == '_':
            shown.append('_')
            i += 1
        i += 1
    return ''.join(shown)


class TrayMenu:
    """The tray's menu as its com.canonical.dbusmenu export shows it."""

    def __init__(self, bus, service, path):
        self.proxy = dbus.Interface(bus.get_object(service, path), MENU_IFACE)

    def labels(self):
        """The raw labels of the visible top-level entries, as the host receives them."""
        _, (_, _, children) = self.proxy.GetLayout(0, -1, dbus.Array([], signature='s'))
        return [str(props.get('label', '')) for _, props, _ in children if props.get('visible', True)]

    def titles(self):
        """Labels of the visible top-level entries in order as a host shows them, '---' for a separator."""
        _, (_, _, children) = self.proxy.GetLayout(0, -1, dbus.Array([], signature='s'))
        self.ids = {}
        rows = []
        for item_id, props, _ in children:
            if props.get('visible', True):
                separator = props.get('type', '') == 'separator'
                label = '---' if separator else dbusmenu_shows(str(props.get('label', '')))
                self.ids.setdefault(label, int(item_id))
                rows.append(label)
        return rows

    def click(self, title):
        if title not in self.titles():
            raise AssertionError(f'no menu entry {title!r} in {list(self.ids)}')
        self.proxy.Event(dbus.Int32(self.ids[title]), 'clicked', dbus.Int32(0, variant_level=1), dbus.UInt32(0))


class TrayDesktop:
    """The private desktop, all under one temporary directory; a context manager or start()/stop()."""

    def __init__(self, powered=True, tray=True, host=True, session_services=None, notification_caps=None):
        """tray: a StatusNotifierWatcher runs from the start; host: it has a host registered;
        session_services: the session bus starts the services described there; notification_caps:
        the notification server's capabilities instead of its defaults."""
        self.powered = powered
        self.tray = tray
        self.host = host
        self.session_services = session_services
        self.notification_caps = notification_caps
        self.watcher = self.notification_server = None
        self.procs = []
        self.files = []
        self.root = self.system = self.session = self.bluez = None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        self.root = tempfile.mkdtemp(prefix='lumerix-tray-')
        home = os.path.join(self.root, 'home')
        self.data_home = os.path.join(home, '.local', 'share')
        for d in (self.data_home, os.path.join(home, '.config'), os.path.join(home, '.cache')):
            os.makedirs(d)
        os.makedirs(os.path.join(self.root, 'runtime'), mode=0o700)
        self.env = {
            'PATH': os.environ.get('PATH', '/usr/bin:/bin'),
            'HOME': home,
            'XDG_DATA_HOME': self.data_home,
            'XDG_CONFIG_HOME': os.path.join(home, '.config'),
            'XDG_CACHE_HOME': os.path.join(home, '.cache'),
            'XDG_RUNTIME_DIR': os.path.join(self.root, 'runtime'),
            'XDG_DATA_DIRS': '/usr/share',
            # The site-wide configuration (/etc/xdg on a real system), empty unless a test writes there.
            'XDG_CONFIG_DIRS': os.path.join(self.root, 'xdg'),
            'QT_QPA_PLATFORM': 'xcb',
            'QT_ACCESSIBILITY': '0',
            'NO_AT_BRIDGE': '1',
            'LANG': 'C.UTF-8',
            'LUMERIX_LOG': 'stderr',
        }
        for name in ('ASAN_OPTIONS', 'UBSAN_OPTIONS', 'LSAN_OPTIONS', 'TSAN_OPTIONS'):
            if name in os.environ:
                self.env[name] = os.environ[name]
        if 'ASAN_OPTIONS' in self.env:
            self._suppress_qt_caches()
        self._start_x()
        self.system = lxharness.PrivateBus()
        self.session = lxharness.PrivateBus(kind='session', services_dir=self.session_services)
        self.env['DBUS_SYSTEM_BUS_ADDRESS'] = self.system.address
        self.env['DBUS_SESSION_BUS_ADDRESS'] = self.session.address
        # dbusmock's helpers read the bus addresses from this process's environment.
        os.environ.update(DBUS_SYSTEM_BUS_ADDRESS=self.system.address, DBUS_SESSION_BUS_ADDRESS=self.session.address)
        self.session_bus = self.session.connection
        if self.tray:
            self.start_watcher()
        proc, self.notification_server = dbusmock.DBusTestCase.spawn_server_template(
            'notification_daemon', {'capabilities': ' '.join(self.notification_caps)} if self.notification_caps else {},
            stdout=self._log('notifications.log'))
        self.procs.append(proc)
        proc, self.logind = dbusmock.DBusTestCase.spawn_server_template('logind', {}, stdout=self._log('logind.log'))
        self.procs.append(proc)
        self.bluez = lxharness.Bluez(self.system)
        self.bluez.add_adapter(powered=self.powered)

    def _suppress_qt_caches(self):
        """Qt keeps the D-Bus interface descriptions it builds for the life of the connection, which
        the global bus connections outlive at exit: suppress that cache (full stacks identify it)."""
        supp = os.path.join(self.root, 'lsan.supp')
        with open(supp, 'w', encoding='utf-8') as f:
            f.write('leak:QDBusMetaObject::createMetaObject\n')
        self.env['ASAN_OPTIONS'] += ':fast_unwind_on_malloc=0'
        lsan = self.env.get('LSAN_OPTIONS')
        self.env['LSAN_OPTIONS'] = (lsan + ':' if lsan else '') + f'suppressions={supp}:print_suppressions=0'

    def _start_x(self):
        read_fd, write_fd = os.pipe()
        self.procs.append(subprocess.Popen(['Xvfb', '-displayfd', str(write_fd), '-nolisten', 'tcp', '-screen', '0',
                                            '1024x768x24'], pass_fds=[write_fd], stderr=subprocess.DEVNULL))
        os.close(write_fd)
        with os.fdopen(read_fd) as r:
            display = r.readline().strip()
        if not display:
            raise RuntimeError('Xvfb did not start')
        self.env['DISPLAY'] = ':' + display

    def _log(self, name, mode='w'):
        log = open(os.path.join(self.root, name), mode)  # pylint: disable=consider-using-with,unspecified-encoding
        self.files.append(log)
        return log

    def start_watcher(self):
        """Brings up the tray host (at start, or later for a desktop that had none). Its template is
        loaded before it answers anything: a program waiting for a host calls it at once."""
        self.procs.append(subprocess.Popen([lxharness.PYTHON, '-m', 'dbusmock', '--session', '--template',
                                            WATCHER_TEMPLATE, '--parameters', json.dumps({'host': self.host})],
                                           stdout=self._log('watcher.log')))
        wait_for(lambda: self.session_bus.name_has_owner(WATCHER), 10, 'the tray watcher')
        self.watcher = self.session_bus.get_object(WATCHER, WATCHER_PATH)

    def stop(self):
        for proc in reversed(self.procs):
            stop_process(proc)
        for f in self.files:
            f.close()
        self.procs, self.files = [], []
        for part in (self.bluez, self.session, self.system):
            if part:
                part.stop()
        self.bluez = self.session = self.system = None
        if self.root:
            shutil.rmtree(self.root, ignore_errors=True)
            self.root = None

    # -- the program under test ------------------------------------------------------------------
    def launch(self, *args, binary=None):
        log = self._log('lumerix.log', 'ab')
        proc = subprocess.Popen([binary or os.environ['LUMERIX_BIN'], *args], env=self.env, stdout=log, stderr=log)
        self.procs.append(proc)
        return proc

    def program_log(self):
        with open(os.path.join(self.root, 'lumerix.log'), 'rb') as f:
            return f.read().decode('utf-8', 'replace')

    def reference_table_path(self):
        return os.path.join(self.data_home, 'Tavik', 'Lumerix', 'ReferenceTable.plist')

    # -- the tray --------------------------------------------------------------------------------
    def tray_item(self, timeout=15):
        """The tray item registered last, once there is one."""
        calls = lambda: dbus.Interface(self.watcher, MOCK_IFACE).GetMethodCalls('RegisterStatusNotifierItem')
        service = str(wait_for(calls, timeout, 'a tray item')[-1][1][0])
        return service, self.session_bus.get_object(service, '/StatusNotifierItem')

    def tray_menu(self, timeout=15):
        service, item = self.tray_item(timeout)
        path = wait_for(lambda: str(item.Get(SNI_IFACE, 'Menu', dbus_interface=dbus.PROPERTIES_IFACE)),
                        timeout, 'the tray menu path')
        return TrayMenu(self.session_bus, service, path)

    def register_host(self):
        """A host registers with the running watcher, as a tray applet does once it is loaded."""
        mock = dbus.Interface(self.watcher, MOCK_IFACE)
        mock.UpdateProperties(WATCHER, {'IsStatusNotifierHostRegistered': dbus.Boolean(True)})
        mock.EmitSignal(WATCHER, 'StatusNotifierHostRegistered', '', [])

    def notifications(self):
        """(summary, body) of every notification shown so far, oldest first."""
        calls = dbus.Interface(self.notification_server, MOCK_IFACE).GetMethodCalls('Notify')
        return [(str(args[3]), str(args[4])) for _, args in calls]

    def tray_item_property(self, name):
        return self.tray_item()[1].Get(SNI_IFACE, name, dbus_interface=dbus.PROPERTIES_IFACE)

    def watch_menu_updates(self):
        """Starts counting the menu-change signals the tray sends; returns a callable giving the count."""
        log_path = os.path.join(self.root, f'menu-signals-{len(self.files)}.log')
        self.procs.append(subprocess.Popen(['dbus-monitor', '--address', self.session.address,
                                            f"type='signal',interface='{MENU_IFACE}'"],
                                           stdout=self._log(os.path.basename(log_path)), stderr=subprocess.DEVNULL))

        def count():
            with open(log_path, encoding='utf-8') as f:
                text = f.read()
            return text.count('member=LayoutUpdated') + text.count('member=ItemsPropertiesUpdated')

        # The monitor is listening once it has printed its own NameAcquired signal.
        wait_for(lambda: os.path.getsize(log_path) > 0, 10, 'dbus-monitor')
        return count

    def prepare_for_sleep(self, sleeping):
        dbus.Interface(self.logind, MOCK_IFACE).EmitSignal(
            'org.freedesktop.login1.Manager', 'PrepareForSleep', 'b', [dbus.Boolean(sleeping)])

    def adapter_calls(self, method):
        """How often the program called this Adapter1 method."""
        return self.bluez.adapter_calls().count(method)


# -- idle cost of the real program --------------------------------------------------------------

def _process_figures(pid):
    """(CPU seconds, context switches over all threads, resident MB) of a running process."""
    cpu_ns = 0
    switches = 0
    for tid in os.listdir(f'/proc/{pid}/task'):
        try:
            # schedstat: nanoseconds on the CPU, finer than the 10 ms ticks of /proc/PID/stat.
            with open(f'/proc/{pid}/task/{tid}/schedstat', encoding='utf-8') as f:
                cpu_ns += int(f.read().split()[0])
            with open(f'/proc/{pid}/task/{tid}/status', encoding='utf-8') as f:
                for line in f:
                    if line.startswith(('voluntary_ctxt_switches', 'nonvoluntary_ctxt_switches')):
                        switches += int(line.split()[1])
        except OSError:
            pass  # a thread that just ended
    with open(f'/proc/{pid}/status', encoding='utf-8') as f:
        rss_kb = next(int(line.split()[1]) for line in f if line.startswith('VmRSS'))
    return cpu_ns / 1e9, switches, rss_kb / 1024


def measure_idle(seconds, settle=5):
    """Runs the tray with a powered adapter and no receivers; prints CPU, wake-ups and memory."""
    with TrayDesktop() as desktop:
        program = desktop.launch()
        desktop.tray_menu()
        wait_for(lambda: desktop.adapter_calls('StartDiscovery') >= 1, 10, 'scanning')
        time.sleep(settle)
        cpu0, switches0, rss = _process_figures(program.pid)
        start = time.monotonic()
        time.sleep(seconds)
        cpu1, switches1, rss_end = _process_figures(program.pid)
        elapsed = time.monotonic() - start
        program.send_signal(signal.SIGTERM)
        program.wait(15)
    cpu = cpu1 - cpu0
    wakeups = switches1 - switches0
    print(f'idle {elapsed:.0f} s, no receivers: CPU {1000 * cpu:.1f} ms = {100 * cpu / elapsed:.4f} % '
          f'(target < 0.1 %); wake-ups (context switches, all threads) {wakeups} = {wakeups / elapsed:.1f}/s; '
          f'resident memory {rss:.1f} MB {settle} s after start, {rss_end:.1f} MB at the end (target < 40 MB)')


if __name__ == '__main__':
    # python3 trayharness.py idle [SECONDS]: the idle figures of $LUMERIX_BIN.
    if len(sys.argv) >= 2 and sys.argv[1] == 'idle':
        measure_idle(float(sys.argv[2]) if len(sys.argv) > 2 else 60)
    else:
        sys.exit('usage: trayharness.py idle [SECONDS]   (LUMERIX_BIN names the binary)')
