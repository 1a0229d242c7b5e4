"""Contrast of the tray icon on a light and a dark panel, measured on screenshots.

Runs xfce4-panel (its systray plugin is a StatusNotifierItem host) under Xvfb, light and then dark,
with `lumerix --demo` in it, takes a screenshot of the panel with ImageMagick's `import`, and
prints for each icon state the WCAG contrast ratio between the panel's background and the icon's
glyph pixels (median, which anti-aliased edges pull down, and 90th percentile).
Usage: LUMERIX_BIN=build/default/bin/lumerix PYTHONPATH=tests/e2e python3 bench/tray_contrast.py [out-dir]
"""
import collections
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'tests', 'e2e'))

import lxharness  # noqa: E402  pylint: disable=wrong-import-position
import test_desktop  # noqa: E402  pylint: disable=wrong-import-position
import trayharness  # noqa: E402  pylint: disable=wrong-import-position


def luminance(rgb):
    def channel(c):
        c = c / 255.0
        return c / 12.92 if c <= 0.03928 else ((c + 0.055) / 1.055) ** 2.4
    r, g, b = (channel(c) for c in rgb)
    return 0.2126 * r + 0.7152 * g + 0.0722 * b


def ratio(a, b):
    la, lb = sorted((luminance(a), luminance(b)), reverse=True)
    return (la + 0.05) / (lb + 0.05)


def pixels(png, height):
    """(x, y, (r, g, b)) of the top `height` rows of the screenshot."""
    out = subprocess.run(['convert', png, '-crop', f'1024x{height}+0+0', '+repage', 'txt:-'],
                         capture_output=True, text=True, check=True).stdout
    for line in out.splitlines()[1:]:
        pos, _, rest = line.partition(':')
        x, y = (int(v) for v in pos.split(','))
        values = rest.split('(')[1].split(')')[0].split(',')
        yield x, y, tuple(int(float(v)) for v in values[:3])


def measure(png, height=32, left=14, right=100):
    """(background, median and 90th-percentile glyph contrast, glyph pixels) of the icon between
    columns left and right: the panel's drag handles at either end are not the icon."""
    rows = [rgb for x, _, rgb in pixels(png, height) if left <= x < right]
    background = collections.Counter(rows).most_common(1)[0][0]
    glyph = sorted(ratio(rgb, background) for rgb in rows if ratio(rgb, background) > 1.05)
    if not glyph:
        return background, 0.0, 0.0, 0
    return background, glyph[len(glyph) // 2], glyph[int(len(glyph) * 0.9)], len(glyph)


def main():
    out_dir = sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp(prefix='lumerix-contrast-')
    os.makedirs(out_dir, exist_ok=True)
    for dark in (False, True):
        for powered in (True, False):
            desktop = trayharness.TrayDesktop(powered=powered, tray=False)
            desktop.start()
            try:
                test_desktop.start_xfce_panel(desktop, dark=dark)
                desktop.launch('--autostart', *(['--demo'] if powered else []))
                lxharness.wait_for(lambda d=desktop: d.watcher.Get(
                    trayharness.WATCHER, 'RegisteredStatusNotifierItems',
                    dbus_interface='org.freedesktop.DBus.Properties'), 20, 'the item in the panel')
                time.sleep(3)  # the panel draws the icon
                name = f"{'dark' if dark else 'light'}-{'receivers' if powered else 'disabled'}.png"
                png = os.path.join(out_dir, name)
                subprocess.run(['import', '-display', desktop.env['DISPLAY'], '-window', 'root', png], check=True)
                background, median, strong, count = measure(png)
                print(f'{name}: panel rgb{background}, glyph contrast median {median:.2f}:1, '
                      f'90th percentile {strong:.2f}:1 over {count} pixels')
            finally:
                desktop.stop()
    print(f'screenshots in {out_dir}')


if __name__ == '__main__':
    main()
