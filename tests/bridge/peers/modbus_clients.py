#!/usr/bin/python3
"""Modbus TCP clients (pymodbus) against a gateway, all at once.

Usage: modbus_clients.py PORT CLIENTS REQUESTS UNIT [SILENT_UNIT]
Each client sends REQUESTS mixed requests (functions 1, 3, 4, 5, 6, 15, 16)
to UNIT, writing only inside its own block of addresses, and checks every
reply against what the slave holds (modbus_slave.py's values) and what it
wrote. With SILENT_UNIT, one more client asks that unit (which has no slave) ten
times while the others go on, expects exception 0x0B each time and prints
"silent 10 slowest_ms <ms>".
Prints one line "ok <replies>" or the first fault, and exits non-zero on a
fault.
"""
import random
import sys
import threading
import time

from pymodbus.client import ModbusTcpClient
from pymodbus.pdu import ExceptionResponse


def slave_values(unit):
    holding = [(unit * 1000 + i) & 0xFFFF for i in range(1000)]
    inputs = [(unit * 7 + i * 3) & 0xFFFF for i in range(1000)]
    coils = [(i + unit) % 3 == 0 for i in range(1000)]
    return holding, inputs, coils


faults = []
counts = []
lock = threading.Lock()


def fault(text):
    with lock:
        faults.append(text)


def run_client(index, port, requests, unit):
    holding, inputs, coils = slave_values(unit)
    base = 100 * index  # this client's own block of 100 addresses
    rng = random.Random(index * 7919 + 1)
    client = ModbusTcpClient('127.0.0.1', port=port, timeout=10, retries=0)
    if not client.connect():
        fault(f"client {index}: cannot connect")
        return
    done = 0
    try:
        for n in range(requests):
            kind = rng.choice([1, 3, 4, 5, 6, 15, 16])
            address = base + rng.randrange(0, 80)
            count = rng.randrange(1, 20)
            where = f"client {index} request {n} function {kind} at {address}"
            if kind == 1:
                r = client.read_coils(address, count, slave=unit)
                if r.isError() or list(r.bits[:count]) != coils[address:address + count]:
                    return fault(f"{where}: {r}")
            elif kind == 3:
                r = client.read_holding_registers(address, count, slave=unit)
                if r.isError() or r.registers != holding[address:address + count]:
                    return fault(f"{where}: {r}")
            elif kind == 4:
                r = client.read_input_registers(address, count, slave=unit)
                if r.isError() or r.registers != inputs[address:address + count]:
                    return fault(f"{where}: {r}")
            elif kind == 5:
                value = rng.random() < 0.5
                r = client.write_coil(address, value, slave=unit)
                if r.isError() or r.address != address or r.value != value:
                    return fault(f"{where}: {r}")
                coils[address] = value
            elif kind == 6:
                value = rng.randrange(0, 65536)
                r = client.write_register(address, value, slave=unit)
                if r.isError() or r.address != address or r.value != value:
                    return fault(f"{where}: {r}")
                holding[address] = value
            elif kind == 15:
                bits = [rng.random() < 0.5 for _ in range(count)]
                r = client.write_coils(address, bits, slave=unit)
                if r.isError() or r.address != address or r.count != count:
                    return fault(f"{where}: {r}")
                coils[address:address + count] = bits
            else:
                words = [rng.randrange(0, 65536) for _ in range(count)]
                r = client.write_registers(address, words, slave=unit)
                if r.isError() or r.address != address or r.count != count:
                    return fault(f"{where}: {r}")
                holding[address:address + count] = words
            done += 1
    finally:
        client.close()
        with lock:
            counts.append(done)


def run_silent(port, unit, asks):
    client = ModbusTcpClient('127.0.0.1', port=port, timeout=10, retries=0)
    if not client.connect():
        return fault("silent client: cannot connect")
    slowest = 0.0
    try:
        for _ in range(asks):
            started = time.monotonic()
            r = client.read_holding_registers(0, 1, slave=unit)
            slowest = max(slowest, time.monotonic() - started)
            if not isinstance(r, ExceptionResponse) or r.exception_code != 0x0B:
                return fault(f"silent unit {unit}: {r}")
            time.sleep(0.05)
    finally:
        client.close()
    print(f"silent {asks} slowest_ms {int(slowest * 1000)}", flush=True)


def main():
    port, clients, requests, unit = (int(a) for a in sys.argv[1:5])
    silent = int(sys.argv[5]) if len(sys.argv) > 5 else None
    threads = [threading.Thread(target=run_client, args=(i, port, requests, unit)) for i in range(clients)]
    extra = threading.Thread(target=run_silent, args=(port, silent, 10)) if silent is not None else None
    if extra:
        extra.start()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if extra:
        extra.join()
    if faults:
        print("fault " + faults[0], flush=True)
        sys.exit(1)
    print(f"ok {sum(counts)}", flush=True)


main()
