"""The Debian package: built by scripts/package, inspected with dpkg-deb, its binary run from the extracted tree."""
import gzip
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import lxharness
from test_cli import run_headless

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..'))


def dpkg_deb(*args):
    return subprocess.run(['dpkg-deb', *args], capture_output=True, text=True, check=True).stdout


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix='lumerix-package-')
        env = dict(os.environ, LUMERIX_DIST_DIR=cls.dir)
        out = subprocess.run([os.path.join(SOURCE_DIR, 'scripts', 'package')], env=env, capture_output=True,
                             text=True, timeout=600, check=True).stdout
        cls.deb = out.strip().splitlines()[-1]
        cls.tree = os.path.join(cls.dir, 'tree')
        dpkg_deb('-x', cls.deb, cls.tree)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def test_name_files_and_control(self):
        _, version = run_headless('--version')[1].split()
        arch = subprocess.check_output(['dpkg', '--print-architecture'], text=True).strip()
        self.assertEqual(os.path.basename(self.deb), f'lumerix_{version}_{arch}.deb')

        files = {line.split()[-1].lstrip('.') for line in dpkg_deb('-c', self.deb).splitlines()}
        for path in ('/usr/bin/lumerix', '/usr/share/applications/com.zemko.Lumerix.desktop',
                     '/usr/share/icons/hicolor/scalable/apps/com.zemko.Lumerix.svg',
                     '/usr/share/icons/hicolor/scalable/status/com.zemko.Lumerix-symbolic.svg',
                     '/usr/share/icons/hicolor/scalable/status/com.zemko.Lumerix-disabled-symbolic.svg',
                     '/usr/share/metainfo/com.zemko.Lumerix.metainfo.xml', '/usr/share/man/man1/lumerix.1.gz',
                     '/usr/share/doc/lumerix/copyright', '/usr/share/doc/lumerix/changelog.gz',
                     '/usr/share/lumerix/DefaultReferenceTable.plist', '/usr/share/lumerix/Normal_Icon.svg',
                     '/usr/share/lumerix/demo/DefaultReferenceTable.plist', '/etc/xdg/autostart/lumerix.desktop',
                     '/usr/share/dbus-1/services/com.zemko.Lumerix.service',
                     '/usr/share/gnome-shell/search-providers/com.zemko.Lumerix.search-provider.ini',
                     '/usr/share/krunner/dbusplugins/com.zemko.Lumerix.desktop'):
            self.assertIn(path, files)

        info = dpkg_deb('-I', self.deb)
        self.assertRegex(info, rf'(?m)^ Version: {re.escape(version)}$')
        depends = re.search(r'(?m)^ Depends: (.*)$', info).group(1)
        for library in ('libqt6core6', 'libqt6widgets6', 'libqt6dbus6', 'libqt6svg6', 'libssl3', 'libplist3'):
            self.assertIn(library, depends)
        # No maintainer scripts: removing the package cannot touch a user's saved receivers.
        for script in ('preinst', 'postinst', 'prerm', 'postrm'):
            self.assertNotRegex(info, rf'\b{script}\b')
        self.assertEqual(dpkg_deb('-f', self.deb, 'Package').strip(), 'lumerix')
        self.assertNotIn('localhost', dpkg_deb('-f', self.deb, 'Maintainer'))
        self.assertEqual(dpkg_deb('-I', self.deb, 'conffiles').split(), ['/etc/xdg/autostart/lumerix.desktop'])
        with gzip.open(os.path.join(self.tree, 'usr/share/man/man1/lumerix.1.gz'), 'rt', encoding='utf-8') as f:
            self.assertTrue(f.readline().startswith(f'.TH LUMERIX 1 "2026" "lumerix {version}"'))

    def test_autostart_entry_starts_the_tray(self):
        with open(os.path.join(self.tree, 'etc/xdg/autostart/lumerix.desktop'), encoding='utf-8') as f:
            entry = f.read()
        self.assertIn('[Desktop Entry]', entry)
        self.assertRegex(entry, r'(?m)^Exec=lumerix --autostart$')
        self.assertRegex(entry, r'(?m)^TryExec=lumerix$')
        self.assertRegex(entry, r'(?m)^Type=Application$')

    def test_a_search_starts_the_installed_tray(self):
        with open(os.path.join(self.tree, 'usr/share/dbus-1/services/com.zemko.Lumerix.service'),
                  encoding='utf-8') as f:
            service = f.read()
        self.assertRegex(service, r'(?m)^Name=com\.zemko\.Lumerix$')
        self.assertRegex(service, r'(?m)^Exec=/usr/bin/lumerix --autostart$')

    def test_extracted_binary_answers_without_a_display(self):
        binary = os.path.join(self.tree, 'usr/bin/lumerix')
        for args, text in ((['--version'], 'lumerix '), (['--help'], '--doctor [--json]')):
            with self.subTest(args=args):
                proc = subprocess.run([binary, *args], env={'PATH': '/usr/bin:/bin'}, capture_output=True,
                                      text=True, timeout=20, check=False)
                self.assertEqual(proc.returncode, 0, proc.stderr)
                self.assertIn(text, proc.stdout)


if __name__ == '__main__':
    lxharness.main()
