#!/usr/bin/env python3
"""Writes the seed inputs of the XMODEM/YMODEM receiver fuzz target into
corpus/xmodem: whole sessions of every variant and a few broken ones. The
input layout is described in xmodemfuzztarget.h. Run from anywhere; the
files are rewritten in place."""
import os

SOH, STX, EOT, CAN = 0x01, 0x02, 0x04, 0x18
XMODEM, XMODEM_CRC, XMODEM_1K, YMODEM, YMODEM_G = range(5)
REPAIR = 0x08
FAULT_OPEN, FAULT_WRITE, FAULT_FINISH = 0x10, 0x20, 0x30
CAP = 0x80
# Pacing: chunk length index (bits 0-3), time step index (bits 4-6), hold.
REST, ONE, BLOCK132, BLOCK133, BLOCK1029 = 0, 1, 9, 10, 14
T0, T1, T250, T1000, T3000, T10000 = 0x00, 0x10, 0x30, 0x50, 0x60, 0x70
HOLD = 0x80


def crc16(data):
    crc = 0
    for byte in data:
        crc ^= byte << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) & 0xFFFF if crc & 0x8000 else (crc << 1) & 0xFFFF
    return crc


def block(number, data, crc=True):
    size = 128 if len(data) <= 128 else 1024
    data = bytes(data) + b'\x1a' * (size - len(data))
    check = crc16(data).to_bytes(2, 'big') if crc else bytes([sum(data) & 0xFF])
    return bytes([SOH if size == 128 else STX, number & 0xFF, ~number & 0xFF]) + data + check


def header(name, size, mtime=0):
    fields = str(size) + (' %o' % mtime if mtime else '')
    data = name.encode() + b'\0' + fields.encode() + b'\0'
    return block(0, data + b'\0' * (128 - len(data)))


def text(n, seed):
    return bytes((seed * 31 + i * 7) % 95 + 32 for i in range(n))


def seed(mode, pacing, payload, second=0):
    # `second`: the cap with CAP, otherwise the chunk after which to cancel.
    return bytes([mode, second, len(pacing)]) + bytes(pacing) + payload


END_OF_BATCH = block(0, b'\0' * 128)
damaged = bytearray(block(1, text(128, 3)))
damaged[40] ^= 0x10
lost_soh = block(4, text(128, 4))[1:]

seeds = {
    'xmodem-checksum': seed(XMODEM, [BLOCK132 | T1], block(1, text(128, 1), False) + block(2, text(100, 2), False)
                            + bytes([EOT])),
    'xmodem-crc-bytewise': seed(XMODEM_CRC, [ONE], block(1, text(128, 1)) + block(2, text(128, 2)) + bytes([EOT])),
    'xmodem-1k': seed(XMODEM_1K, [BLOCK1029 | T1, BLOCK133 | T250],
                      block(1, text(1000, 1)) + block(2, text(60, 2)) + bytes([EOT])),
    'ymodem': seed(YMODEM, [BLOCK133, BLOCK1029 | T1, BLOCK133 | T1, ONE | T1],
                   header('seed.txt', 1100, 0o14000000000) + block(1, text(1024, 1)) + block(2, text(76, 2))
                   + bytes([EOT]) + END_OF_BATCH),
    'ymodem-g': seed(YMODEM_G, [REST], header('g.bin', 200) + block(1, text(128, 1)) + block(2, text(72, 2))
                     + bytes([EOT]) + END_OF_BATCH),
    'ymodem-empty-batch': seed(YMODEM, [], END_OF_BATCH),
    # Broken sessions.
    'crc-damaged-then-resent': seed(XMODEM_CRC, [BLOCK133 | T1], bytes(damaged) + block(1, text(128, 3))
                                    + bytes([EOT])),
    'crc-duplicate-block': seed(XMODEM_CRC, [BLOCK133 | HOLD, BLOCK133], block(1, text(128, 1)) * 2
                                + block(2, text(128, 2)) + bytes([EOT])),
    'crc-out-of-step': seed(XMODEM_CRC, [REST], block(1, text(128, 1)) + block(3, text(128, 3))),
    'crc-lost-soh': seed(XMODEM_CRC, [BLOCK133, BLOCK133, BLOCK133, BLOCK132 | T1000, BLOCK133 | T1],
                         block(1, text(128, 1)) + block(2, text(128, 2)) + block(3, text(128, 3)) + lost_soh
                         + block(4, text(128, 4)) + bytes([EOT])),
    'crc-device-cancel': seed(XMODEM_CRC, [ONE], block(1, text(128, 1)) + bytes([CAN]) + block(2, text(128, 2))
                              + bytes([CAN, CAN])),
    'crc-silence-fallback': seed(XMODEM_CRC, [ONE | T3000] * 8 + [REST], b'\x00' * 8 + block(1, text(128, 1), False)
                                 + bytes([EOT])),
    'ymodem-malformed-header': seed(YMODEM | REPAIR, [REST], bytes([SOH, 0, 0xFF]) + b'A' * 128 + b'\0\0'),
    'ymodem-g-stall': seed(YMODEM_G, [REST | T10000], header('s.bin', 3000) + block(1, text(128, 1))),
    'crc-over-cap': seed(XMODEM_CRC | CAP, [REST], block(1, text(128, 1)) + block(2, text(128, 2)) + bytes([EOT]),
                         second=4),
    'crc-user-cancel': seed(XMODEM_CRC, [BLOCK133], block(1, text(128, 1)) + block(2, text(128, 2))
                            + bytes([EOT]), second=2),
    'crc-write-fails': seed(XMODEM_CRC | FAULT_WRITE, [REST], block(1, text(128, 1))),
    'ymodem-finish-fails': seed(YMODEM | FAULT_FINISH, [REST], header('f.bin', 10) + block(1, text(10, 1))
                                + bytes([EOT])),
    # Before the header a YMODEM receiver has no file: data there are out of
    # step, and an EOT is noise.
    'ymodem-data-before-header': seed(YMODEM, [REST], block(1, text(128, 1)) + header('late.bin', 128)),
    'ymodem-eot-before-header': seed(YMODEM, [ONE | T1000], bytes([EOT]) + header('e.bin', 5) + block(1, text(5, 1))
                                     + bytes([EOT]) + END_OF_BATCH),
}

out = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'corpus', 'xmodem')
os.makedirs(out, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(out, name), 'wb') as f:
        f.write(data)
print(sum(len(d) for d in seeds.values()), 'bytes in', len(seeds), 'seeds')
