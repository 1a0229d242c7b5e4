"""The radio-duty arithmetic on a made-up btmon trace: which records count and how time adds up."""
import os
import struct
import tempfile
import unittest

import hcitrace

T0 = 1_700_000_000.0


def record(seconds, index, opcode_kind, packet):
    stamp = int(round((T0 + seconds) * 1e6)) + hcitrace.UNIX_EPOCH_US
    return struct.pack('>IIIIq', len(packet), len(packet), (index << 16) | opcode_kind, 0, stamp) + packet


def command(seconds, opcode, params, index=0):
    return record(seconds, index, hcitrace.OPCODE_COMMAND, struct.pack('<HB', opcode, len(params)) + params)


def trace(*records, datalink=hcitrace.MONITOR_DATALINK):
    f = tempfile.NamedTemporaryFile(suffix='.btsnoop', delete=False)  # pylint: disable=consider-using-with
    f.write(hcitrace.MAGIC + struct.pack('>II', 1, datalink) + b''.join(records))
    f.close()
    return f.name


LEGACY_PARAMS = bytes([1]) + struct.pack('<HH', 0x60, 0x30) + bytes([0, 0])  # window half the interval
ENABLE, DISABLE = bytes([1, 0]), bytes([0, 0])


class ScanDuty(unittest.TestCase):

    def duty(self, records, start=0.0, end=10.0, index=0):
        path = trace(*records)
        self.addCleanup(os.unlink, path)
        return hcitrace.scan_duty(path, index, T0 + start, T0 + end)

    def test_spans_add_up_within_the_window(self):
        legacy = [command(0.5, hcitrace.LE_SET_SCAN_PARAMETERS, LEGACY_PARAMS),
                  command(1, hcitrace.LE_SET_SCAN_ENABLE, ENABLE),
                  command(4, hcitrace.LE_SET_SCAN_ENABLE, DISABLE),
                  command(8, hcitrace.LE_SET_SCAN_ENABLE, ENABLE)]
        extended = [command(0.5, hcitrace.LE_SET_EXT_SCAN_PARAMETERS,
                            bytes([0, 0, 1, 1]) + struct.pack('<HH', 0x40, 0x10)),
                    command(2, hcitrace.LE_SET_EXT_SCAN_ENABLE, ENABLE + bytes(4)),
                    command(7, hcitrace.LE_SET_EXT_SCAN_ENABLE, DISABLE + bytes(4))]
        other = [command(0, hcitrace.LE_SET_SCAN_ENABLE, ENABLE, index=1),  # another controller
                 record(5, 0, 3, bytes([0x0E, 4, 1, 0x0C, 0x20, 0])),  # an event, not a command
                 command(3, hcitrace.LE_SET_SCAN_ENABLE, ENABLE)]  # already on: not a new start
        # A classic inquiry between LE scans (interleaved discovery), ended by its complete event.
        inquiry = [command(4, hcitrace.INQUIRY, bytes([0x33, 0x8B, 0x9E, 4, 0])),
                   record(6, 0, hcitrace.OPCODE_EVENT, bytes([hcitrace.EVENT_INQUIRY_COMPLETE, 1, 0]))]
        # (records, window, expected (LE duty, weighted LE duty, LE scan starts, searching at all))
        cases = [
            (legacy, (0, 10), (0.5, 0.25, 2, 0.5)),  # 1-4 and 8-end
            (legacy, (2, 6), (0.5, 0.25, 2, 0.5)),  # clipped to the window: 2-4
            (legacy + other, (0, 10), (0.5, 0.25, 2, 0.5)),
            (legacy + inquiry, (0, 10), (0.5, 0.25, 2, 0.7)),  # and 4-6
            (extended, (0, 10), (0.5, 0.125, 1, 0.5)),
            ([], (0, 10), (0.0, 0.0, 0, 0.0)),
        ]
        for records, (start, end), expected in cases:
            with self.subTest(start=start, end=end, n=len(records)):
                got = self.duty(sorted(records, key=lambda r: r[16:24]), start, end)
                self.assertEqual(tuple(round(x, 6) for x in got), expected)

    def test_rejects_other_files(self):
        for data in (b'not a trace at all', hcitrace.MAGIC + struct.pack('>II', 1, 1002)):
            path = trace(datalink=1002) if data.startswith(hcitrace.MAGIC) else None
            if path is None:
                with tempfile.NamedTemporaryFile(delete=False) as f:
                    f.write(data)
                path = f.name
            self.addCleanup(os.unlink, path)
            with self.assertRaises(ValueError):
                hcitrace.scan_duty(path, 0, T0, T0 + 1)


if __name__ == '__main__':
    unittest.main()
