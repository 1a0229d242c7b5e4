#!/usr/bin/python3
"""Stand-in sender, process name "Sharvane": --listen PORT takes frames (one per connection), --fetch PORT
asks the tray's command listener once; each frame is a JSON line in --out. Ends after --lifetime or SIGTERM."""
import argparse
import ctypes
import json
import os
import signal
import socket
import sys
import time

PR_SET_NAME = 15
REQUEST = bytes([0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03])


def set_process_name(name):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_NAME, ctypes.c_char_p(name.encode()), 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), 'prctl(PR_SET_NAME) failed')


def parse_frame(data):
    """The five text fields of a connection-info frame, or None when it is not one."""
    if len(data) < 12 or data[0] != 0x02 or data[1] != 0x03 or data[2] != 0x03:
        return None
    length = data[3] | (data[4] << 8)
    if len(data) < length + 2:
        return None
    fields, pos = [], 5
    for _ in range(5):
        n = data[pos]
        fields.append(data[pos + 1:pos + 1 + n].decode('utf-8', 'replace'))
        pos += 1 + n
    if pos != length or sum(data[5:length]) & 0xFF != data[length] or data[length + 1] != 0x02:
        return None
    return fields


def record(out, via, data):
    with open(out, 'a', encoding='utf-8') as f:
        f.write(json.dumps({'via': via, 'hex': data.hex(), 'fields': parse_frame(data)}) + '\n')


def mark_ready(path):
    if path:
        with open(path, 'w', encoding='utf-8') as f:
            f.write(str(os.getpid()))


def ask(port):
    """One request on the command listener; the reply bytes (None when nobody listens)."""
    try:
        with socket.create_connection(('127.0.0.1', port), timeout=2) as s:
            s.sendall(REQUEST)
            data = b''
            # The listener keeps the connection open after answering: stop at a whole reply.
            while True:
                try:
                    chunk = s.recv(1024)
                except socket.timeout:
                    break
                if not chunk:
                    break
                data += chunk
                if data == b'\0' or (len(data) >= 5 and len(data) >= (data[3] | data[4] << 8) + 2):
                    break
            return data
    except OSError:
        return None


def fetch(port, out, deadline):
    # The tray may still be starting its listener, or not yet have parked the receiver (it does so
    # once the launch command returns): ask again until there is an answer other than "nothing".
    reply = None
    while time.monotonic() < deadline:
        reply = ask(port)
        if reply not in (None, b'\0'):
            break
        time.sleep(0.1)
    record(out, 'fetch', reply or b'')


def listen(port, out, deadline, ready):
    server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(('127.0.0.1', port))
    server.listen(5)
    server.settimeout(0.2)
    mark_ready(ready)
    while time.monotonic() < deadline:
        try:
            conn, _ = server.accept()
        except socket.timeout:
            continue
        with conn:
            conn.settimeout(5)
            data = b''
            try:
                while True:
                    chunk = conn.recv(4096)
                    if not chunk:
                        break
                    data += chunk
            except socket.timeout:
                pass
            record(out, 'listen', data)
    server.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--out', required=True)
    parser.add_argument('--listen', type=int)
    parser.add_argument('--fetch', type=int)
    parser.add_argument('--ready')
    parser.add_argument('--lifetime', type=float, default=60)
    args = parser.parse_args()
    set_process_name('Sharvane')
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    deadline = time.monotonic() + args.lifetime
    if not args.listen:
        mark_ready(args.ready)
    if args.fetch:
        fetch(args.fetch, args.out, deadline)
    if args.listen:
        listen(args.listen, args.out, deadline, args.ready)
    # Stay around as a running sender until told to go.
    while time.monotonic() < deadline:
        time.sleep(0.2)


if __name__ == '__main__':
    main()
