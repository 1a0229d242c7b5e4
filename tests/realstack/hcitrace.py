"""Reads btmon's trace files (btsnoop, monitor format) and measures how long a controller scanned."""
import struct

MAGIC = b'btsnoop\0'
MONITOR_DATALINK = 2001
OPCODE_COMMAND = 2
LE_SET_SCAN_PARAMETERS = 0x200B
LE_SET_SCAN_ENABLE = 0x200C
LE_SET_EXT_SCAN_PARAMETERS = 0x2041
LE_SET_EXT_SCAN_ENABLE = 0x2042
# btsnoop times count microseconds from year 0; this is 1970-01-01 on that scale.
UNIX_EPOCH_US = 0x00E03AB44A676000


def commands(path, index):
    """(Unix time, opcode, parameters) of each HCI command sent to controller `index`, in order."""
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
        if (flags >> 16) != index or (flags & 0xFFFF) != OPCODE_COMMAND or len(packet) < 3:
            continue
        opcode, plen = struct.unpack('<HB', packet[:3])
        out.append(((stamp - UNIX_EPOCH_US) / 1e6, opcode, packet[3:3 + plen]))
    return out


def scan_duty(path, index, start, end):
    """(fraction of [start, end] with LE scanning enabled, that fraction weighted by the scan
    window / interval last set, number of enable commands). Times are Unix times; scanning
    is off before the first command seen."""
    enabled_since = None
    ratio = 1.0
    on = weighted = 0.0
    enables = 0

    def close(until):
        nonlocal on, weighted
        lo, hi = max(enabled_since, start), min(until, end)
        if hi > lo:
            on += hi - lo
            weighted += (hi - lo) * ratio

    for stamp, opcode, params in commands(path, index):
        if opcode == LE_SET_SCAN_PARAMETERS and len(params) >= 5:
            interval, window = struct.unpack('<HH', params[1:5])
            ratio = window / interval if interval else 1.0
        elif opcode == LE_SET_EXT_SCAN_PARAMETERS and len(params) >= 8:
            interval, window = struct.unpack('<HH', params[4:8])  # first PHY's figures
            ratio = window / interval if interval else 1.0
        elif opcode in (LE_SET_SCAN_ENABLE, LE_SET_EXT_SCAN_ENABLE) and params:
            if params[0] and enabled_since is None:
                enabled_since = stamp
                enables += 1
            elif not params[0] and enabled_since is not None:
                close(stamp)
                enabled_since = None
    if enabled_since is not None:
        close(end)
    span = end - start
    return on / span, weighted / span, enables

