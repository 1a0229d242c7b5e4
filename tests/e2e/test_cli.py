"""The command line without a desktop: answers, usage errors and exit codes, never a Qt abort."""
import os
import subprocess
import tempfile
import unittest

import lxharness

USAGE = 'Usage: lumerix [--autostart] [--demo]'


def run_headless(*args, env_extra=None):
    """Runs the binary with no display, no Qt platform and no buses at all."""
    env = {k: v for k, v in os.environ.items()
           if k not in ('DISPLAY', 'WAYLAND_DISPLAY', 'QT_QPA_PLATFORM', 'DBUS_SESSION_BUS_ADDRESS')}
    # Any D-Bus use would fail loudly here rather than find a real bus.
    env['DBUS_SYSTEM_BUS_ADDRESS'] = 'unix:path=/nonexistent/system_bus_socket'
    env.update(env_extra or {})
    proc = subprocess.run([os.environ['LUMERIX_BIN'], *args], env=env, capture_output=True, text=True,
                          timeout=20, check=False)
    return proc.returncode, proc.stdout, proc.stderr


class CommandLineTest(unittest.TestCase):
    def test_answers_and_usage_errors_without_a_display(self):
        # (arguments, exit code, text expected on stdout, text expected on stderr)
        cases = [
            (['--help'], 0, USAGE, ''),
            (['-h'], 0, '--doctor [--json]', ''),
            (['--version'], 0, 'lumerix ', ''),
            (['--bogus'], 64, '', "Unknown option 'bogus'"),
            (['--scan=-1'], 64, '', "got '-1'"),
        ]
        for args, code, out_text, err_text in cases:
            with self.subTest(args=args):
                rc, out, err = run_headless(*args)
                self.assertEqual(rc, code, err)
                self.assertIn(out_text, out)
                self.assertIn(err_text, err)
                if code == 64:
                    self.assertEqual(out, '')
                    self.assertIn(USAGE, err)
                else:
                    self.assertEqual(err, '')
                self.assertNotIn('platform plugin', err)

    def test_help_fits_80_columns_and_speaks_the_users_language(self):
        # (environment, words of the help expected, of the usage error)
        cases = [
            ({'LANG': 'C.UTF-8'}, ['Usage: lumerix', 'Options:', 'Show this help.', '4 when --connect'],
             'cannot be used together'),
            ({'LANG': 'de_DE.UTF-8', 'LANGUAGE': 'de'},
             ['Aufruf: lumerix', 'Optionen:', 'Diese Hilfe anzeigen.', '4, wenn --connect'], 'gehen nicht zusammen'),
        ]
        for env, words, usage_error in cases:
            with self.subTest(env=env):
                rc, out, err = run_headless('--help', env_extra=env)
                self.assertEqual(rc, 0, err)
                for word in words:
                    self.assertIn(word, out)
                too_wide = [line for line in out.splitlines() if len(line) > 80]
                self.assertEqual(too_wide, [])
                rc, _, err = run_headless('--scan', '--doctor', env_extra=env)
                self.assertEqual(rc, 64)
                self.assertIn(usage_error, err)

    def test_tray_without_a_display_says_so_in_one_line(self):
        rc, out, err = run_headless('--demo')
        self.assertEqual(rc, 1)
        self.assertEqual(out, '')
        self.assertEqual(len(err.splitlines()), 1, err)
        self.assertIn('no display', err)
        self.assertIn('lumerix --scan', err)

    def test_replay_refuses_a_fifo_at_once(self):
        # Opening a FIFO without a writer would block; which files are taken is the unit tests' part.
        with tempfile.TemporaryDirectory() as root:
            fifo = os.path.join(root, 'fifo')
            os.mkfifo(fifo)
            rc, out, err = run_headless('--scan', '1', '--replay', fifo)
            self.assertEqual((rc, out), (1, ''), err)
            self.assertIn('not a regular file', err)


if __name__ == '__main__':
    lxharness.main()
