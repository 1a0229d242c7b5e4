"""Reads btmon's trace files (btsnoop, monitor format) and measures how long a controller scanned."""
import struct

MAGIC = b'btsnoop\0'
MONITOR_DATALINK = 2001
OPCODE_COMMAND = 2
OPCODE_EVENT = 3
INQUIRY = 0x0401
INQUIRY_CANCEL = 0x0402
EVENT_INQUIRY_COMPLETE = 0x01
LE_SET_SCAN_PARAMETERS = 0x200B
LE_SET_SCAN_ENABLE = 0x200C
LE_SET_EXT_SCAN_PARAMETERS = 0x2041
LE_SET_EXT_SCAN_ENABLE = 0x2042
# btsnoop times count microseconds from year 0 (0x00E03AB44A676000 is 2000-01-01); this is
# 1970-01-01 on that scale.
UNIX_EPOCH_US = 0x00E03AB44A676000 - 946684800 * 1000000


def packets(path, index):
    """(Unix time, kind, packet) of each HCI command (kind 2) and event (kind 3) of controller
    `index`, in order."""
    with open(path, 'rb') as f:
        data = f.read()
    if data[:8] != MAGIC:
        raise ValueError('%s is not a btsnoop file' % path)
    _, datalink = struct.unpack('>II', data[8:16])
    if datalink != MONITOR_DATALINK:
        raise ValueError('%s: datalink %d, expected the monitor format' % (path, datalink))
    offset = 16
    out = []
    while offset + 24 <= len(data):
        _, length, flags, _, stamp = struct.unpack('>IIIIq', data[offset:offset + 24])
        packet = data[offset + 24:offset + 24 + length]
        offset += 24 + length
        if len(packet) < length:
            break  # a record cut short where the trace ended
        if (flags >> 16) == index and (flags & 0xFFFF) in (OPCODE_COMMAND, OPCODE_EVENT) and packet:
            out.append(((stamp - UNIX_EPOCH_US) / 1e6, flags & 0xFFFF, packet))
    return out


class Spans:
    """Time a switch was on within [start, end]."""

    def __init__(self, start, end):
        self.start, self.end = start, end
        self.since = None
        self.total = self.weighted = 0.0
        self.starts = 0

    def on(self, stamp):
        if self.since is None:
            self.since = stamp
            self.starts += 1

    def off(self, stamp, ratio=1.0):
        if self.since is not None:
            lo, hi = max(self.since, self.start), min(stamp, self.end)
            if hi > lo:
                self.total += hi - lo
                self.weighted += (hi - lo) * ratio
            self.since = None


def scan_duty(path, index, start, end):
    """Over [start, end] (Unix times) for controller `index`: (fraction with LE scanning enabled,
    that fraction weighted by the scan window / interval last set, LE scan starts, fraction with the
    radio searching at all: LE scanning or a classic inquiry). Everything is off before the trace's
    first command."""
    ratio = 1.0
    scan, search = Spans(start, end), Spans(start, end)
    scanning = inquiring = False

    def update(stamp):
        if scanning or inquiring:
            search.on(stamp)
        else:
            search.off(stamp)

    for stamp, kind, packet in packets(path, index):
        if kind == OPCODE_EVENT:
            if packet[0] == EVENT_INQUIRY_COMPLETE:
                inquiring = False
                update(stamp)
            continue
        if len(packet) < 3:
            continue
        opcode, plen = struct.unpack('<HB', packet[:3])
        params = packet[3:3 + plen]
        if opcode == LE_SET_SCAN_PARAMETERS and len(params) >= 5:
            interval, window = struct.unpack('<HH', params[1:5])
            ratio = window / interval if interval else 1.0
        elif opcode == LE_SET_EXT_SCAN_PARAMETERS and len(params) >= 8:
            interval, window = struct.unpack('<HH', params[4:8])  # first PHY's figures
            ratio = window / interval if interval else 1.0
        elif opcode in (LE_SET_SCAN_ENABLE, LE_SET_EXT_SCAN_ENABLE) and params:
            scanning = bool(params[0])
            if scanning:
                scan.on(stamp)
            else:
                scan.off(stamp, ratio)
            update(stamp)
        elif opcode in (INQUIRY, INQUIRY_CANCEL):
            inquiring = opcode == INQUIRY
            update(stamp)
    scan.off(end, ratio)
    search.off(end)
    span = end - start
    return scan.total / span, scan.weighted / span, scan.starts, search.total / span
