"""The tray as a desktop user meets it: quiet at login, its state in the tooltip and the item's
status, its own language, and a real StatusNotifierItem host (xfce4-panel) showing it."""
import os
import shutil
import subprocess
import time
import unittest

import dbus

import lxharness
import test_tray
import trayharness
from lxharness import wait_for

ROOM_A = test_tray.ROOM_A


def shown_windows(display, name='Lumerix'):
    """The viewable top-level windows of the X server whose name has this text."""
    out = subprocess.run(['xwininfo', '-root', '-children', '-display', display], capture_output=True, text=True,
                         check=True).stdout
    shown = []
    for line in out.splitlines():
        words = line.split()
        if not words or not words[0].startswith('0x') or name not in line:
            continue
        info = subprocess.run(['xwininfo', '-id', words[0], '-display', display], capture_output=True, text=True,
                              check=False).stdout
        if 'IsViewable' in info:
            shown.append(line.strip())
    return shown


class LoginTest(test_tray.TrayCase):
    START_DESKTOP = False

    def test_login_with_bluetooth_off_waits_quietly_then_scans_and_names_each_state(self):
        self.start_desktop(powered=False)
        self.start_tray('--autostart')
        wait_for(lambda: 'Bluetooth is off' in self.tooltip(), 15, 'the tooltip saying Bluetooth is off')
        self.assertEqual(str(self.desktop.tray_item_property('Status')), 'NeedsAttention')
        # No alert: nothing on the screen but the (window-less) tray item, and no discovery yet.
        time.sleep(1)
        self.assertEqual(shown_windows(self.desktop.env['DISPLAY']), [])
        self.assertIsNone(self.program.poll())
        self.assertEqual(self.desktop.adapter_calls('StartDiscovery'), 0)

        self.desktop.bluez.set_powered(True)
        self.wait_for_scanning()
        wait_for(lambda: 'Searching for receivers' in self.tooltip(), 10, 'searching in the tooltip')
        self.assertEqual(str(self.desktop.tray_item_property('Status')), 'Active')
        ads = self.advertiser()
        ads.add(ROOM_A, -55)
        wait_for(lambda: 'Room A \u2014 \u221255 dBm' in self.tooltip(), 10, 'the receiver in the tooltip')

        ads.stop()

        # Each outage says what it is.
        steps = [(self.desktop.bluez.remove_adapter, 'No Bluetooth adapter'),
                 (self.desktop.bluez.stop, 'Bluetooth service (bluetoothd) is not running')]
        for outage, text in steps:
            with self.subTest(text):
                outage()
                wait_for(lambda: text in self.tooltip(), 10, text)  # pylint: disable=cell-var-from-loop
                self.assertEqual(str(self.desktop.tray_item_property('Status')), 'NeedsAttention')
        self.desktop.bluez = None  # stopped above
        self.assertIsNone(self.program.poll())

    def test_login_before_the_system_bus_is_up_keeps_the_tray(self):
        self.start_desktop()
        self.desktop.env['DBUS_SYSTEM_BUS_ADDRESS'] = 'unix:path=' + os.path.join(self.desktop.root, 'no-bus')
        self.start_tray('--autostart')
        wait_for(lambda: 'bluetoothd) is not running' in self.tooltip(), 15, 'the tooltip naming the cause')
        wait_for(lambda: 'cannot reach the system bus' in self.desktop.program_log(), 10, 'the missing bus logged')
        # The central keeps trying with a growing pause, and says so once per outage, not per try.
        time.sleep(3)
        self.assertEqual(self.desktop.program_log().count('cannot reach the system bus'), 1)
        self.assertEqual(shown_windows(self.desktop.env['DISPLAY']), [])
        self.assertIsNone(self.program.poll())

    def test_plain_launch_with_bluetooth_off_still_alerts_and_ends(self):
        self.start_desktop(powered=False)
        self.start_tray()
        wait_for(lambda: shown_windows(self.desktop.env['DISPLAY']), 15, 'the alert')
        self.assertIsNone(self.program.poll(), 'the alert waits for the user')


class GermanTest(test_tray.TrayCase):
    START_DESKTOP = False

    def test_menu_and_tooltip_in_german(self):
        self.start_desktop()
        self.desktop.env.update(LANG='de_DE.UTF-8', LANGUAGE='de')
        self.start_tray()
        menu = self.desktop.tray_menu()
        self.wait_for_titles(menu, ['---', '\u00dcber', 'Beenden'])
        wait_for(lambda: 'Suche nach Empf\u00e4ngern' in self.tooltip(), 10, 'the German tooltip')


def _start_xfconf(env, root):
    for candidate in ('/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd', '/usr/lib/xfce4/xfconf/xfconfd'):
        if os.path.exists(candidate):
            return subprocess.Popen([candidate], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    raise unittest.SkipTest('xfconfd is not installed')


PANEL_CONFIG = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="dark-mode" type="bool" value="{dark}"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="size" type="uint" value="32"/>
      <property name="icon-size" type="uint" value="22"/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray">
      <property name="square-icons" type="bool" value="true"/>
    </property>
  </property>
</channel>
"""


def start_xfce_panel(desktop, dark=False):
    """xfce4-panel with only its systray plugin (which is the StatusNotifierWatcher and host)."""
    if not shutil.which('xfce4-panel'):
        raise unittest.SkipTest('xfce4-panel is not installed')
    config = os.path.join(desktop.env['XDG_CONFIG_HOME'], 'xfce4', 'xfconf', 'xfce-perchannel-xml')
    os.makedirs(config, exist_ok=True)
    with open(os.path.join(config, 'xfce4-panel.xml'), 'w', encoding='utf-8') as f:
        f.write(PANEL_CONFIG.format(dark='true' if dark else 'false'))
    env = dict(desktop.env, XDG_CONFIG_DIRS='/etc/xdg', XDG_DATA_DIRS='/usr/local/share:/usr/share')
    desktop.procs.append(_start_xfconf(env, desktop.root))
    desktop.procs.append(subprocess.Popen(['xfce4-panel', '--disable-wm-check'], env=env,
                                          stdout=desktop._log('panel.log'), stderr=subprocess.STDOUT))  # pylint: disable=protected-access
    wait_for(lambda: desktop.session_bus.name_has_owner(trayharness.WATCHER), 20, "the panel's watcher")
    desktop.watcher = desktop.session_bus.get_object(trayharness.WATCHER, trayharness.WATCHER_PATH)


class RealHostTest(test_tray.TrayCase):
    START_DESKTOP = False

    def test_the_item_registers_with_xfce4_panel_as_a_menu_with_a_theme_icon(self):
        self.start_desktop(tray=False)
        start_xfce_panel(self.desktop)
        self.start_tray()
        watcher = dbus.Interface(self.desktop.watcher, dbus.PROPERTIES_IFACE)
        items = wait_for(lambda: [str(i) for i in watcher.Get(trayharness.WATCHER, 'RegisteredStatusNotifierItems')],
                         20, 'the item registered with the panel')
        service = items[0].split('/')[0]
        item = self.desktop.session_bus.get_object(service, '/StatusNotifierItem')
        prop = lambda name: item.Get(trayharness.SNI_IFACE, name, dbus_interface=dbus.PROPERTIES_IFACE)
        self.assertTrue(bool(prop('ItemIsMenu')), 'left click opens the host menu')
        self.assertIn(str(prop('IconName')), ('com.zemko.Lumerix-symbolic', 'com.zemko.Lumerix-disabled-symbolic'))
        self.assertTrue(os.path.exists(os.path.join(str(prop('IconThemePath')), 'hicolor', 'scalable', 'status',
                                                    str(prop('IconName')) + '.svg')))
        menu = trayharness.TrayMenu(self.desktop.session_bus, service, str(prop('Menu')))
        self.wait_for_titles(menu, ['---', 'About', 'Exit'])
        self.assertNotIn('X Error', self.desktop.program_log())


if __name__ == '__main__':
    lxharness.main()
