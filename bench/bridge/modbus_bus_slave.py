#!/usr/bin/python3
"""A Modbus RTU slave on a pseudo-terminal that answers as fast as a real
bus at BAUD allows, no faster: each reply is written once the request's
and the reply's characters (11 bits each) and the 3.5-character silence
between them would have passed on the wire.

Usage: modbus_bus_slave.py BAUD
Prints the path of the line's serial side, then answers "read holding
registers" requests (register i holds i) until killed.
"""
import os
import sys
import time
import tty


def crc16(data):
    crc = 0xFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return bytes([crc & 0xFF, crc >> 8])


def main():
    baud = int(sys.argv[1])
    char_s = 11.0 / baud
    master, serial_side = os.openpty()
    tty.setraw(serial_side)
    print(os.ttyname(serial_side), flush=True)
    pending = b''
    while True:
        try:
            chunk = os.read(master, 4096)
        except OSError:
            return
        if not chunk:
            return
        received = time.perf_counter()
        pending += chunk
        while len(pending) >= 8:
            request, pending = pending[:8], pending[8:]
            if crc16(request[:6]) != request[6:] or request[1] != 3:
                pending = b''
                break
            start = int.from_bytes(request[2:4], 'big')
            count = int.from_bytes(request[4:6], 'big')
            body = bytes([request[0], 3, 2 * count]) + b''.join(
                ((start + i) & 0xFFFF).to_bytes(2, 'big') for i in range(count))
            reply = body + crc16(body)
            due = received + (len(request) + 3.5 + len(reply)) * char_s
            while True:
                left = due - time.perf_counter()
                if left <= 0:
                    break
                if left > 0.0015:
                    time.sleep(left - 0.001)
            os.write(master, reply)
            received = time.perf_counter()


main()
