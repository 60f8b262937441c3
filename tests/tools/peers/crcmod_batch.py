#!/usr/bin/python3
"""CRCs by python3-crcmod for the lines on stdin.

Each line: width poly init xorout refin refout data, numbers in hex, data as
hex ("-" when empty). crcmod reflects input and output together only.
crcmod starts its register at initCrc ^ xorOut, in the algorithm's own bit
order (no reversal for reflected models), so initCrc = init ^ xorout.
Prints one hex result per line.
"""
import sys

import crcmod

for line in sys.stdin:
    width, poly, init, xorout, refin, refout, data = line.split()
    width = int(width)
    poly, init, xorout = int(poly, 16), int(init, 16), int(xorout, 16)
    if refin != refout:
        sys.exit("crcmod reflects input and output together")
    fun = crcmod.mkCrcFun((1 << width) | poly, initCrc=init ^ xorout, rev=refin == "1", xorOut=xorout)
    payload = b"" if data == "-" else bytes.fromhex(data)
    print("%x" % fun(payload))
