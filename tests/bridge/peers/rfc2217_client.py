#!/usr/bin/python3
"""pyserial's rfc2217:// client against a shared pane, for the share tests.

    rfc2217_client.py URL NEAR_PTY FAR_PTY settings|transfer [MEGABYTES]

NEAR_PTY is the pty the shared pane has open (its termios are checked with
stty), FAR_PTY the other end of the pair. Prints "PASS name" or
"FAIL name: why" per check and "DONE" at the end. Where the test must look
at the pane itself it prints "WAIT what" and reads one line from stdin.
"""
import random
import subprocess
import sys
import threading
import time

import serial


def say(line):
    print(line, flush=True)


def check(name, ok, why=""):
    say(("PASS " if ok else "FAIL ") + name + ("" if ok else ": " + why))


def wait_for_test(what):
    say("WAIT " + what)
    sys.stdin.readline()


def stty(path):
    out = subprocess.run(["stty", "-F", path, "-a"], capture_output=True, text=True, timeout=10)
    return out.stdout.replace("\n", " ")


def termios_shows(path, words, seconds=3.0):
    """Whether stty shows every word, looked at until `seconds` pass (a
    setting the client does not wait for lands a moment later)."""
    deadline = time.monotonic() + seconds
    while True:
        shown = stty(path)
        fields = shown.replace(";", " ").split()
        # A phrase is looked for as it stands, a flag as a whole field
        # ("parenb" is not "-parenb").
        if all((w in shown) if " " in w else (w in fields) for w in words):
            return True, shown
        if time.monotonic() > deadline:
            return False, shown
        time.sleep(0.05)


def settings(url, near):
    port = serial.serial_for_url(url, baudrate=9600, timeout=2)
    ok, shown = termios_shows(near, ["speed 9600 baud"])
    check("open at 9600", ok, shown)

    # Each change is confirmed by the server (pyserial raises otherwise) and
    # must then stand in the pty's termios.
    steps = [
        ("baud 57600", "baudrate", 57600, ["speed 57600 baud"]),
        ("baud 230400", "baudrate", 230400, ["speed 230400 baud"]),
        ("data bits 7", "bytesize", 7, ["cs7"]),
        ("data bits 5", "bytesize", 5, ["cs5"]),
        ("data bits 8", "bytesize", 8, ["cs8"]),
        ("parity even", "parity", serial.PARITY_EVEN, ["parenb", "-parodd"]),
        ("parity odd", "parity", serial.PARITY_ODD, ["parenb", "parodd"]),
        ("parity none", "parity", serial.PARITY_NONE, ["-parenb"]),
        ("stop bits 2", "stopbits", serial.STOPBITS_TWO, ["cstopb"]),
        ("stop bits 1", "stopbits", serial.STOPBITS_ONE, ["-cstopb"]),
        ("rts/cts", "rtscts", True, ["crtscts"]),
        ("no rts/cts", "rtscts", False, ["-crtscts"]),
        ("xon/xoff", "xonxoff", True, ["ixon"]),
        ("no xon/xoff", "xonxoff", False, ["-ixon"]),
    ]
    for name, attribute, value, words in steps:
        previous = getattr(port, attribute)
        try:
            setattr(port, attribute, value)
        except (serial.SerialException, ValueError) as error:
            # Refused: the server answered with the value in force, and
            # the line must indeed not have taken the one asked for.
            taken, shown = termios_shows(near, words, seconds=0)
            check(name + " refused truthfully", not taken, "the line took it: " + shown)
            say("REFUSED " + name + " " + str(error))
            # pyserial keeps the refused value and would send it again.
            setattr(port, attribute, previous)
            continue
        ok, shown = termios_shows(near, words)
        check(name, ok, shown)

    # A pty has no DTR or RTS: the server says the line kept its level, so
    # pyserial reports the change as not accepted.
    for name, attribute in (("dtr", "dtr"), ("rts", "rts")):
        try:
            setattr(port, attribute, False)
            say("ACCEPTED " + name)
        except (serial.SerialException, ValueError) as error:
            say("REFUSED " + name + " " + str(error))
        wait_for_test(name + "-off")

    port.break_condition = True
    wait_for_test("break-on")
    port.break_condition = False
    wait_for_test("break-off")

    # Purges are acknowledged; the connection goes on working.
    port.reset_input_buffer()
    port.reset_output_buffer()
    port.write(b"after purge\xff\r\n")
    port.flush()
    wait_for_test("purge")
    port.close()


def pattern(size, seed):
    rng = random.Random(seed)
    chunks = []
    total = 0
    while total < size:
        kind = rng.randrange(4)
        if kind == 0:
            chunk = b"\xff" * rng.randrange(1, 2000)  # IAC runs, the worst case
        elif kind == 1:
            chunk = b"\xff\xfa\x2c\x01\xff\xf0\xff\xff\xfd\x2c"  # looks like commands
        else:
            chunk = rng.randbytes(rng.randrange(1, 8192))
        chunks.append(chunk)
        total += len(chunk)
    return b"".join(chunks)[:size]


def transfer(url, far, megabytes):
    size = int(megabytes * 1024 * 1024)
    up = pattern(size, 1)    # client -> line
    down = pattern(size, 2)  # line -> client
    port = serial.serial_for_url(url, baudrate=115200, timeout=5)
    line = serial.Serial(far, 115200, timeout=5)
    results = {}

    def writer(target, data, key):
        try:
            for i in range(0, len(data), 65536):
                target.write(data[i:i + 65536])
            target.flush()
        except Exception as error:  # reported, not raised: the other side goes on
            results[key] = "write failed: %s" % error

    def reader(source, expected, key):
        got = bytearray()
        idle_until = time.monotonic() + 60
        while len(got) < len(expected) and time.monotonic() < idle_until:
            chunk = source.read(min(65536, len(expected) - len(got)))
            if chunk:
                got += chunk
                idle_until = time.monotonic() + 60
        results[key] = bytes(got)

    started = time.monotonic()
    threads = [
        threading.Thread(target=writer, args=(port, up, "up-write")),
        threading.Thread(target=writer, args=(line, down, "down-write")),
        threading.Thread(target=reader, args=(line, up, "up")),
        threading.Thread(target=reader, args=(port, down, "down")),
    ]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    seconds = time.monotonic() - started
    for key in ("up-write", "down-write"):
        if key in results:
            check(key, False, results[key])
    for key, expected in (("up", up), ("down", down)):
        got = results.get(key, b"")
        first_bad = next((i for i in range(min(len(got), len(expected))) if got[i] != expected[i]), None)
        check("%s %d bytes exact" % (key, len(expected)), got == expected,
              "got %d bytes, first difference at %s" % (len(got), first_bad))
    say("SECONDS %.1f" % seconds)
    port.close()
    line.close()


def main():
    url, near, far, scenario = sys.argv[1:5]
    try:
        if scenario == "settings":
            settings(url, near)
        else:
            transfer(url, far, float(sys.argv[5]) if len(sys.argv) > 5 else 10)
    except Exception as error:
        check("scenario " + scenario, False, repr(error))
    say("DONE")


if __name__ == "__main__":
    main()
