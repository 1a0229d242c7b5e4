"""The sender link against another local user: an impostor on the sender's port, an impostor asking
the command listener, and silent connections. The other user is a spare uid that the tests switch
to with setpriv, so these cases need root (as CI runs them)."""
import os
import shutil
import socket
import statistics
import subprocess
import tempfile
import time
import unittest

import lxharness
import test_tray
from lxharness import stop_process, wait_for
from test_tray import FAKE_SENDER, ROOM_A, ROOM_B

# A uid no account uses on a build machine or a CI runner.
OTHER_UID = int(os.environ.get('LUMERIX_E2E_OTHER_UID', '47111'))
DATA_PORT = 19314
COMMAND_PORT = 19319
REQUEST = bytes([0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03])

# Another user's process: asks the command listener every 50 ms and writes each reply as hex.
POLLER = '''
import socket, sys, time
out, deadline = sys.argv[1], time.monotonic() + float(sys.argv[2])
while time.monotonic() < deadline:
    try:
        with socket.create_connection(('127.0.0.1', 19319), timeout=1) as s:
            s.sendall(bytes([2, 3, 4, 5, 0, 0, 2, 3]))
            reply = s.recv(1024)
        with open(out, 'a') as f:
            f.write(reply.hex() + '\\n')
    except OSError:
        pass
    time.sleep(0.05)
'''

# Another user's process: holds silent connections to the command listener until killed.
SILENT = '''
import socket, sys, time
held = [socket.create_connection(('127.0.0.1', 19319)) for _ in range(int(sys.argv[2]))]
open(sys.argv[1], 'w').close()
time.sleep(120)
'''


def as_other_user(args):
    return ['setpriv', f'--reuid={OTHER_UID}', f'--regid={OTHER_UID}', '--clear-groups', *args]


@unittest.skipUnless(os.geteuid() == 0 and shutil.which('setpriv'), 'needs root and setpriv for a second user')
class PeersTest(test_tray.TrayCase):
    def setUp(self):
        super().setUp()
        # A folder the other user may write its findings to.
        self.shared = tempfile.mkdtemp(prefix='lumerix-peer-')
        os.chmod(self.shared, 0o777)
        self.addCleanup(shutil.rmtree, self.shared, True)

    def other_user(self, args, ready=None):
        proc = subprocess.Popen(as_other_user(args))
        self.addCleanup(stop_process, proc)
        if ready:
            wait_for(lambda: os.path.exists(ready), 10, 'the other user\'s process')
        return proc

    def test_an_impostor_on_the_sender_port_receives_nothing_and_the_user_is_told(self):
        # Another user's process renamed "Sharvane", listening where the sender would.
        impostor_frames = os.path.join(self.shared, 'impostor.jsonl')
        ready = os.path.join(self.shared, 'impostor.ready')
        self.other_user(['/usr/bin/python3', FAKE_SENDER, '--out', impostor_frames, '--ready', ready,
                         '--listen', str(DATA_PORT), '--lifetime', '60'], ready)
        menu, _ = self.tray_showing([], [(ROOM_A, -55)], ['Room A'])

        menu.click('Room A')
        shown = wait_for(self.desktop.notifications, 10, 'a notification')
        self.assertEqual([summary for summary, _ in shown], ['Sharvane port held by another user'])
        self.assertIn('Room A', shown[0][1])
        log = wait_for(lambda: 'belongs to uid %d' % OTHER_UID in self.desktop.program_log()
                       and self.desktop.program_log(), 5, 'the log line')
        self.assertIn('nothing sent', log)
        time.sleep(0.5)  # a frame, had one gone out, would be on record by now
        self.assertFalse(os.path.exists(impostor_frames), 'the impostor was connected to')

    def test_an_impostor_asking_the_listener_gets_nothing_while_the_launched_sender_gets_its_frame(self):
        replies = os.path.join(self.shared, 'poller.txt')
        self.other_user(['/usr/bin/python3', '-c', POLLER, replies, '30'])
        self.install_sender('--fetch', str(COMMAND_PORT), '--lifetime', '20')
        menu, _ = self.tray_showing([], [(ROOM_B, -50)], ['Room B'])
        wait_for(lambda: os.path.exists(replies), 10, 'the impostor\'s first answer')

        menu.click('Room B')
        frames = wait_for(self.frames_received, 20, 'the launched sender to fetch its receiver')
        self.assertEqual(frames[0]['via'], 'fetch')
        self.assertEqual(frames[0]['fields'], ['10.0.0.6', 'Room B', '5607', 'Room B', ''], frames[0]['hex'])
        time.sleep(0.5)  # the impostor asks on meanwhile
        with open(replies, encoding='utf-8') as f:
            answers = [line.strip() for line in f if line.strip()]
        self.assertGreater(len(answers), 5)
        self.assertEqual(set(answers), {'00'}, 'the impostor got more than the nothing byte')
        self.assertIn('belongs to uid %d, not to this user' % OTHER_UID, self.desktop.program_log())

    def test_silent_connections_of_another_user_do_not_delay_a_request(self):
        self.start_tray()
        self.desktop.tray_menu()
        ready = os.path.join(self.shared, 'silent.ready')
        self.other_user(['/usr/bin/python3', '-c', SILENT, ready, '20'], ready)

        delays = []
        for _ in range(7):
            start = time.monotonic()
            with socket.create_connection(('127.0.0.1', COMMAND_PORT), timeout=5) as s:
                s.sendall(REQUEST)
                reply = s.recv(1024)
            delays.append(time.monotonic() - start)
            self.assertEqual(reply, b'\0', 'nothing is parked: the single nothing byte')
        print('request answered behind 20 silent connections: median %.1f ms, max %.1f ms'
              % (statistics.median(delays) * 1000, max(delays) * 1000))
        self.assertLess(max(delays), 0.1)


if __name__ == '__main__':
    lxharness.main()
