"""`lumerix --gatt-read` against a modelled receiver serving its connection information over GATT."""

import lxharness as h

ADDRESS = 'AA:BB:CC:DD:EE:21'
RECEIVER = (ADDRESS, '10.0.0.5', 12, 34, 'Room A')
FIELDS = [('WiFiSSID', 'MeetingNet'), ('WiFiKey', 's3cret-pass!'), ('ReceiverIP', '10.0.0.5'),
          ('ReceiverName', 'Room A'), ('ReceiverLoginCode', '1234')]
HEADER_FLAGS = 0x01


def connection_info_characteristics():
    """[(uuid16, value)]: the header 0x5880, then data 0x5885.. holding the ciphertext in 16-byte
    pieces. Length bytes are sent inverted (flag 0x40), as receivers do."""
    plaintext = b''.join(v.encode() for _, v in FIELDS)
    plaintext += b'\0' * (-len(plaintext) % 16)
    ciphertext = h.aes128_ecb_encrypt(plaintext)
    pieces = [ciphertext[i:i + 16] for i in range(0, len(ciphertext), 16)]
    header = bytes([0x40 | HEADER_FLAGS, len(pieces) - 1] + [~len(v.encode()) & 0xFF for _, v in FIELDS])
    return [(0x5880, header)] + [(0x5885 + i, piece) for i, piece in enumerate(pieces)]


class GattRead(h.LumerixTestCase):

    def add_receiver(self):
        # The GATT objects exist before the receiver is heard, as with a real one: announced after
        # it, a quick connection could find them half there.
        path = self.bluez.device_path(ADDRESS)
        # An unrelated service first, so the choice of service is exercised.
        self.bluez.add_gatt_service(path, 0x0001, 0x1800, [(0x2A00, b'Room A')])
        self.bluez.add_gatt_service(path, 0x0010, 0x5885, connection_info_characteristics())
        return self.bluez.add_receiver(RECEIVER, -50)

    def test_reads_and_decrypts_the_connection_information(self):
        self.bluez.add_adapter()
        run = self.start_lumerix('--gatt-read', h.identifier(ADDRESS).lower(), '--timeout', '10')
        h.wait_for_discovery(self.bluez)
        self.add_receiver()
        rc, out, err = run.wait(20)
        self.assertIn('Connect', self.bluez.device_calls(ADDRESS), err)
        self.assertEqual(rc, 0, err)
        self.assertEqual(out.splitlines(), ['%s: %s' % f for f in FIELDS], err)

    def test_a_failed_connection_reaches_the_handler_as_connection_failed(self):
        self.bluez.add_adapter()
        run = self.start_lumerix('--gatt-read', h.identifier(ADDRESS), '--timeout', '3')
        h.wait_for_discovery(self.bluez)
        self.bluez.add_receiver(RECEIVER, -50, connect_error='org.bluez.Error.Failed')
        rc, out, err = run.wait(15)
        self.assertEqual(rc, 3, err)
        self.assertEqual(out, '')
        failures = [l for l in err.splitlines() if 'connection failed to peripheral' in l]
        self.assertEqual(len(failures), 1, err)
        self.assertIn(h.identifier(ADDRESS), failures[0])
        self.assertIn('org.bluez.Error.Failed', failures[0])
        self.assertIn('no connection', err)

    def test_times_out_when_the_receiver_is_not_around(self):
        self.bluez.add_adapter()
        rc, out, err = self.run_lumerix('--gatt-read', h.identifier(ADDRESS), '--timeout', '2')
        self.assertEqual(rc, 3, err)
        self.assertEqual(out, '')
        self.assertIn('was not seen', err)


if __name__ == '__main__':
    h.main()
