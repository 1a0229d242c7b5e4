"""Writes an advertisement trace for `lumerix --replay`: many "LX" receivers heard in turn.

    /usr/bin/python3 bench/make_trace.py OUT [--lines 100000] [--devices 2000] [--rate 50000]

Each line is one advertisement of one of `devices` receivers (round robin) with a real encrypted
record, `rate` advertisements a second of trace time, signal strength walking -30..-99 dBm.
The records come from a small pool (one per name), so writing 100,000 lines takes a second or two.
"""
import argparse
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '..', 'tests', 'e2e'))

import lxharness as h  # noqa: E402  pylint: disable=wrong-import-position

POOL = 32


def records():
    """Manufacturer data as the BlueZ central hands it on: company id (little-endian), then the value."""
    company = bytes((h.DEFAULT_COMPANY_ID & 0xFF, h.DEFAULT_COMPANY_ID >> 8))
    return [(company + h.advertisement('10.1.%d.%d' % (i // 200, i % 200 + 1), 12, i % 100, 'Flood %d' % i)).hex()
            for i in range(POOL)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('out')
    parser.add_argument('--lines', type=int, default=100000)
    parser.add_argument('--devices', type=int, default=2000)
    parser.add_argument('--rate', type=float, default=50000, help='advertisements per second of trace time')
    a = parser.parse_args()
    pool = records()
    with open(a.out, 'w', encoding='utf-8') as f:
        for n in range(a.lines):
            device = n % a.devices
            f.write(json.dumps({
                'offsetMs': round(1000.0 * n / a.rate, 3),
                'identifier': h.identifier('AA:BB:%02X:%02X:%02X:%02X' % (device >> 24 & 0xFF, device >> 16 & 0xFF,
                                                                           device >> 8 & 0xFF, device & 0xFF)),
                'localName': 'LX',
                'rssi': -30 - (n // a.devices) % 70,
                'manufacturerData': pool[device % POOL],
            }, separators=(',', ':')) + '\n')


if __name__ == '__main__':
    main()
