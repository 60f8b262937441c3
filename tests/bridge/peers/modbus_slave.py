#!/usr/bin/python3
"""A pymodbus serial server on one end of a pseudo-terminal pair.

Usage: modbus_slave.py PORT rtu|ascii UNITS
UNITS is a comma-separated list of unit ids that answer; other units stay
silent. Register and coil values follow fixed rules (see values()) so the
clients can check every read. Prints "ready" once the port is open.
"""
import asyncio
import logging
import sys

from pymodbus.datastore import (ModbusSequentialDataBlock, ModbusServerContext,
                                ModbusSlaveContext)
from pymodbus.server.async_io import ModbusSerialServer
from pymodbus.transaction import ModbusAsciiFramer, ModbusRtuFramer


def values(unit):
    holding = [(unit * 1000 + i) & 0xFFFF for i in range(1000)]
    inputs = [(unit * 7 + i * 3) & 0xFFFF for i in range(1000)]
    coils = [(i + unit) % 3 == 0 for i in range(1000)]
    return holding, inputs, coils


async def main():
    # Unanswered units are the point of some tests, not news.
    logging.getLogger('pymodbus').setLevel(logging.CRITICAL)
    logging.getLogger().setLevel(logging.CRITICAL)
    port, framing, units = sys.argv[1], sys.argv[2], sys.argv[3]
    slaves = {}
    for unit in (int(u) for u in units.split(',')):
        holding, inputs, coils = values(unit)
        slaves[unit] = ModbusSlaveContext(
            di=ModbusSequentialDataBlock(0, coils),
            co=ModbusSequentialDataBlock(0, coils),
            hr=ModbusSequentialDataBlock(0, holding),
            ir=ModbusSequentialDataBlock(0, inputs),
            zero_mode=True)
    context = ModbusServerContext(slaves=slaves, single=False)
    framer = ModbusAsciiFramer if framing == 'ascii' else ModbusRtuFramer
    server = ModbusSerialServer(context, framer, port=port, baudrate=115200,
                                ignore_missing_slaves=True, broadcast_enable=True)
    await server.start()
    if server.transport is None:
        print("cannot open " + port, flush=True)
        sys.exit(1)
    print("ready", flush=True)
    # Ends when the test closes our stdin.
    loop = asyncio.get_running_loop()
    await loop.run_in_executor(None, sys.stdin.read)
    await server.shutdown()


asyncio.run(main())
