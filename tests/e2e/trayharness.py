"""A private desktop for end-to-end tests of the tray: Xvfb, private system and session buses,
a StatusNotifierWatcher that makes Qt export its tray item and menu over D-Bus, logind and BlueZ
models from python3-dbusmock, and a reader/clicker for the exported com.canonical.dbusmenu menu.

Everything lives under one temporary directory (HOME, XDG dirs, bus sockets); the real user's
files and buses are never touched.
"""
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

MOCK_IFACE = 'org.freedesktop.DBus.Mock'
WATCHER = 'org.kde.StatusNotifierWatcher'
WATCHER_PATH = '/StatusNotifierWatcher'
SNI_IFACE = 'org.kde.StatusNotifierItem'
MENU_IFACE = 'com.canonical.dbusmenu'


def wait_for(predicate, timeout, what, interval=0.05):
    """Polls predicate until it returns something truthy; fails the test after timeout seconds."""
    deadline = time.monotonic() + timeout
    last = None
    while time.monotonic() < deadline:
        last = predicate()
        if last:
            return last
        time.sleep(interval)
    raise AssertionError(f'timed out after {timeout}s waiting for {what} (last: {last!r})')


def _start_bus(root, kind):
    conf = os.path.join(root, f'{kind}-bus.conf')
    with open(conf, 'w', encoding='utf-8') as f:
        f.write(f'''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>{kind}</type>
  <keep_umask/>
  <listen>unix:dir={root}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
''')
    proc = subprocess.Popen(['dbus-daemon', '--nofork', '--print-address=1', f'--config-file={conf}'],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    address = proc.stdout.readline().strip()
    proc.stdout.close()
    if not address:
        raise RuntimeError(f'the private {kind} bus did not start')
    return proc, address


class TrayMenu:
    """The tray's menu as its com.canonical.dbusmenu export shows it."""

    def __init__(self, bus, service, path):
        self.proxy = dbus.Interface(bus.get_object(service, path), MENU_IFACE)

    def layout(self):
        """[(id, label or '---' for a separator)] of the top level, in order, visible entries only."""
        _, (_, _, children) = self.proxy.GetLayout(0, -1, dbus.Array([], signature='s'))
        rows = []
        for child in children:
            item_id, props, _ = child
            if not props.get('visible', True):
                continue
            if props.get('type', '') == 'separator':
                rows.append((int(item_id), '---'))
            else:
                rows.append((int(item_id), str(props.get('label', '')).replace('__', '_')))
        return rows

    def titles(self):
        return [label for _, label in self.layout()]

    def click(self, title):
        matches = [item_id for item_id, label in self.layout() if label == title]
        if not matches:
            raise AssertionError(f'no menu entry {title!r} in {self.titles()}')
        self.event(matches[0], 'clicked')

    def event(self, item_id, name):
        self.proxy.Event(dbus.Int32(item_id), name, dbus.Int32(0, variant_level=1), dbus.UInt32(0))


class TrayDesktop:
    """Starts the private desktop; use as a context manager or call start()/stop()."""

    def __init__(self, adapter=True, powered=True, tray=True):
        self.adapter = adapter
        self.powered = powered
        self.tray = tray
        self.procs = []
        self.root = None
        self.env = None
        self.system = None
        self.bluez = None
        self.files = []

    # -- set-up ---------------------------------------------------------------------------------
    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        self.root = tempfile.mkdtemp(prefix='lumerix-tray-')
        home = os.path.join(self.root, 'home')
        runtime = os.path.join(self.root, 'runtime')
        self.data_home = os.path.join(home, '.local', 'share')
        for d in (home, self.data_home, os.path.join(home, '.config'), os.path.join(home, '.cache')):
            os.makedirs(d, exist_ok=True)
        os.makedirs(runtime, mode=0o700)
        self.env = {
            'PATH': os.environ.get('PATH', '/usr/bin:/bin'),
            'HOME': home,
            'XDG_DATA_HOME': self.data_home,
            'XDG_CONFIG_HOME': os.path.join(home, '.config'),
            'XDG_CACHE_HOME': os.path.join(home, '.cache'),
            'XDG_RUNTIME_DIR': runtime,
            'XDG_DATA_DIRS': '/usr/share',
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
        self.env['DBUS_SYSTEM_BUS_ADDRESS'] = self.system.address
        session, self.env['DBUS_SESSION_BUS_ADDRESS'] = _start_bus(self.root, 'session')
        self.procs.append(session)
        # dbusmock's helpers read the bus addresses from this process's environment.
        for name in ('DBUS_SYSTEM_BUS_ADDRESS', 'DBUS_SESSION_BUS_ADDRESS'):
            os.environ[name] = self.env[name]
        self.system_bus = self.system.connection
        self.session_bus = dbus.bus.BusConnection(self.env['DBUS_SESSION_BUS_ADDRESS'])
        if self.tray:
            self._start_watcher()
        self._start_logind()
        self._start_bluez()

    def _suppress_qt_caches(self):
        """Qt keeps the D-Bus interface descriptions it builds (the tray's watcher check among
        them) for the life of the connection, which the global bus connections outlive at exit.
        Suppress exactly that cache; full stacks are needed to recognise it."""
        supp = os.path.join(self.root, 'lsan.supp')
        with open(supp, 'w', encoding='utf-8') as f:
            f.write('leak:QDBusMetaObject::createMetaObject\n')
        self.env['ASAN_OPTIONS'] = self.env['ASAN_OPTIONS'] + ':fast_unwind_on_malloc=0'
        lsan = self.env.get('LSAN_OPTIONS')
        self.env['LSAN_OPTIONS'] = (lsan + ':' if lsan else '') + f'suppressions={supp}:print_suppressions=0'

    def _start_x(self):
        read_fd, write_fd = os.pipe()
        xvfb = subprocess.Popen(['Xvfb', '-displayfd', str(write_fd), '-nolisten', 'tcp', '-screen', '0',
                                 '1024x768x24'], pass_fds=[write_fd], stderr=subprocess.DEVNULL)
        os.close(write_fd)
        self.procs.append(xvfb)
        with os.fdopen(read_fd) as r:
            display = r.readline().strip()
        if not display:
            raise RuntimeError('Xvfb did not start')
        self.env['DISPLAY'] = ':' + display

    def _mock_log(self, name):
        log = open(os.path.join(self.root, f'{name}.log'), 'w', encoding='utf-8')  # pylint: disable=consider-using-with
        self.files.append(log)
        return log

    def _start_watcher(self):
        proc = dbusmock.DBusTestCase.spawn_server(WATCHER, WATCHER_PATH, WATCHER, system_bus=False,
                                                  stdout=self._mock_log('watcher'))
        self.procs.append(proc)
        self.watcher = self.session_bus.get_object(WATCHER, WATCHER_PATH)
        mock = dbus.Interface(self.watcher, MOCK_IFACE)
        mock.AddMethod(WATCHER, 'RegisterStatusNotifierItem', 's', '', '')
        mock.AddMethod(WATCHER, 'RegisterStatusNotifierHost', 's', '', '')
        mock.AddProperties(WATCHER, {
            'IsStatusNotifierHostRegistered': dbus.Boolean(True),
            'ProtocolVersion': dbus.Int32(0),
            'RegisteredStatusNotifierItems': dbus.Array([], signature='s'),
        })

    def _start_logind(self):
        proc, self.logind = dbusmock.DBusTestCase.spawn_server_template('logind', {},
                                                                        stdout=self._mock_log('logind'))
        self.procs.append(proc)

    def _start_bluez(self):
        self.bluez = lxharness.Bluez(self.system)
        if self.adapter:
            self.bluez.add_adapter(powered=self.powered)

    def stop(self):
        for proc in reversed(self.procs):
            if proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
        self.procs = []
        for f in self.files:
            f.close()
        self.files = []
        if self.bluez:
            self.bluez.stop()
            self.bluez = None
        if self.system:
            self.system.stop()
            self.system = None
        if self.root:
            shutil.rmtree(self.root, ignore_errors=True)
            self.root = None

    # -- the program under test ------------------------------------------------------------------
    def launch(self, *args, extra_env=None, binary=None):
        env = dict(self.env)
        env.update(extra_env or {})
        log = open(os.path.join(self.root, 'lumerix.log'), 'ab')  # pylint: disable=consider-using-with
        self.files.append(log)
        proc = subprocess.Popen([binary or os.environ['LUMERIX_BIN'], *args], env=env, stdout=log, stderr=log)
        self.procs.append(proc)
        return proc

    def program_log(self):
        with open(os.path.join(self.root, 'lumerix.log'), 'rb') as f:
            return f.read().decode('utf-8', 'replace')

    def reference_table_path(self):
        return os.path.join(self.data_home, 'Tavik', 'Lumerix', 'ReferenceTable.plist')

    # -- the tray --------------------------------------------------------------------------------
    def registered_items(self):
        calls = dbus.Interface(self.watcher, MOCK_IFACE).GetMethodCalls('RegisterStatusNotifierItem')
        return [str(args[0]) for _, args in calls]

    def tray_menu(self, timeout=15):
        """The menu of the tray item registered last, once it has one."""
        service = wait_for(lambda: (self.registered_items() or [None])[-1], timeout, 'a tray item')
        item = self.session_bus.get_object(service, '/StatusNotifierItem')
        path = wait_for(lambda: str(item.Get(SNI_IFACE, 'Menu', dbus_interface=dbus.PROPERTIES_IFACE)),
                        timeout, 'the tray menu path')
        return TrayMenu(self.session_bus, service, path)

    def tray_item_property(self, name):
        service = self.registered_items()[-1]
        item = self.session_bus.get_object(service, '/StatusNotifierItem')
        return item.Get(SNI_IFACE, name, dbus_interface=dbus.PROPERTIES_IFACE)

    def watch_menu_updates(self):
        """Starts counting the menu-change signals the tray sends; returns a callable giving the count."""
        log_path = os.path.join(self.root, f'menu-signals-{len(self.files)}.log')
        log = open(log_path, 'w', encoding='utf-8')  # pylint: disable=consider-using-with
        self.files.append(log)
        monitor = subprocess.Popen(['dbus-monitor', '--address', self.env['DBUS_SESSION_BUS_ADDRESS'],
                                    f"type='signal',interface='{MENU_IFACE}'"], stdout=log,
                                   stderr=subprocess.DEVNULL)
        self.procs.append(monitor)

        def count():
            with open(log_path, encoding='utf-8') as f:
                text = f.read()
            return text.count('member=LayoutUpdated') + text.count('member=ItemsPropertiesUpdated')

        # The monitor is listening once it has printed its own NameAcquired signal.
        wait_for(lambda: os.path.getsize(log_path) > 0, 10, 'dbus-monitor')
        return count

    # -- logind and BlueZ ------------------------------------------------------------------------
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
