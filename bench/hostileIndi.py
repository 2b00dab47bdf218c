#!/usr/bin/env python3
"""INDI servers that lie, stall, flood and break off, against the real client.

  bench/hostileIndi.py --programs build/release/bin [--short]

Each of them is asked for the mount's position once. The client must end by itself within the 30 s that
a mount has to connect, with a position or a message, in bounded memory, and may not let anything through that a terminal obeys. Exit
code 1 when it did not.
"""
import argparse
import concurrent.futures
import os
import pathlib
import random
import re
import socket
import struct
import subprocess
import sys
import threading
import time

from reliability import write_table

DEVICE = "Mount"
NUMBERS = ('<defNumberVector device="Mount" name="EQUATORIAL_EOD_COORD" label="" group="" state="Ok" '
           'perm="rw" timeout="60" timestamp="2026-01-01T00:00:00">'
           '<defNumber name="RA" label="" format="%10.6m" min="0" max="24" step="0">{ra}</defNumber>'
           '<defNumber name="DEC" label="" format="%10.6m" min="-90" max="90" step="0">{dec}'
           '</defNumber></defNumberVector>')
SWITCH = ('<{kind}SwitchVector device="Mount" name="CONNECTION" label="" group="" state="Ok" '
          'perm="rw" rule="OneOfMany" timeout="60" timestamp="2026-01-01T00:00:00">'
          '<{one}Switch name="CONNECT" label="">On</{one}Switch>'
          '<{one}Switch name="DISCONNECT" label="">Off</{one}Switch></{kind}SwitchVector>')
DEFINED = SWITCH.format(kind="def", one="def")
ANSWER = SWITCH.format(kind="set", one="one")
UPDATE = NUMBERS.replace("defNumber", "setNumber", 1).replace("</defNumberVector", "</setNumberVector")
UPDATE = UPDATE.replace("<defNumber ", "<oneNumber ").replace("</defNumber>", "</oneNumber>")


def good(ra=5.5, dec=45.0):
    return DEFINED + NUMBERS.format(ra=ra, dec=dec), ANSWER + UPDATE.format(ra=ra, dec=dec)


def scripted(first, later="", pause=0.0, reset=False, hold=True):
    """A server that sends `first` when it is asked what it has and `later` after each request."""
    def serve(client):
        client.recv(65536)
        client.sendall(first.encode(errors="surrogateescape"))
        while hold and client.recv(65536):
            if later:
                time.sleep(pause)
                client.sendall(later.encode(errors="surrogateescape"))
        if reset:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    return serve


def flood(piece):
    def serve(client):
        end = time.monotonic() + 12
        while time.monotonic() < end:
            client.sendall(piece)
    return serve


def drip(text):
    def serve(client):
        for character in text:
            client.sendall(character.encode())
            time.sleep(0.05)
    return serve


def servers(numbers):
    first, later = good()
    garbage = bytes(numbers.randrange(256) for _ in range(65536))
    message = ('<message device="Mount" timestamp="2026-01-01T00:00:00" message="\x1b]0;owned\x07'
               '&lt;b&gt;&#27;[2J"/>')
    busy = ANSWER.replace('state="Ok"', 'state="Alert"', 1)
    found = {
        "honest": scripted(first, later),
        "silent": scripted(""),
        "gone at once": scripted("", hold=False),
        "gone after half a message": scripted(first[:len(first) // 2], hold=False),
        "reset after the first request": scripted(first, reset=True, hold=False),
        "half a message, then silence": scripted(first[:-30], ""),
        "one byte at a time": drip(first),
        "slow answers": scripted(first, later, pause=4),
        "noise": flood(garbage),
        "an endless tag": flood(b"<" + b"a" * 65535),
        "an endless text": flood(b"a" * 65536),
        "an endless row of properties": flood(b"".join(
            DEFINED.replace("CONNECTION", f"P{i}").encode() for i in range(200))),
        "an endless row of messages": flood((message * 100).encode()),
        "deep nesting": flood(b"<a>" * 20000),
        "control characters and markup": scripted(message + first, message + busy),
        "wrong types": scripted(
            DEFINED.replace("Switch", "Text") + NUMBERS.replace("Number", "Switch"), later),
        "no such elements": scripted(first.replace('"RA"', '"X"').replace('"DEC"', '"Y"'), later),
        "no number": scripted(*good("north", "pole")),
        "not a number": scripted(*good("nan", "nan")),
        "infinite": scripted(*good("inf", "-inf")),
        "beyond the sky": scripted(*good(1e300, -1e300)),
        "sexagesimal": scripted(*good("5:30:00", "45:0:0")),
        "another device": scripted(first.replace("Mount", "Focuser"), later),
        "a huge count": scripted(first, later + '<setBLOBVector device="Mount" name="B">'
                                 '<oneBLOB name="b" size="99999999999" format=".f">QUJD</oneBLOB>'
                                 '</setBLOBVector>'),
        "taken back": scripted(first, '<delProperty device="Mount"/>'),
    }
    for i in range(20):
        bytes_ = bytearray(first.encode())
        for _ in range(numbers.randrange(1, 9)):
            bytes_[numbers.randrange(len(bytes_))] = numbers.randrange(256)
        found[f"damaged {i + 1}"] = scripted(bytes_.decode(errors="surrogateescape"), later)
    return found


class Server:
    def __init__(self, serve):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.run, args=[serve], daemon=True).start()

    def run(self, serve):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.one, args=[serve, client], daemon=True).start()

    @staticmethod
    def one(serve, client):
        try:
            with client:
                serve(client)
        except OSError:
            pass  # the client has left


def attempt(probe, name, serve):
    server = Server(serve)
    environment = dict(os.environ, VESTREL_TELESCOPE=f"indi://127.0.0.1:{server.port}/{DEVICE}")
    start = time.monotonic()
    try:
        end = subprocess.run([probe, "telescope"], env=environment, capture_output=True, timeout=60,
                             check=False)
        code, said = end.returncode, end.stdout.decode(errors="replace")
    except subprocess.TimeoutExpired:
        code, said = "never ended", ""
    seconds = time.monotonic() - start
    server.listener.close()
    peak = int((re.search(r"peak: (\d+)", said) or [0, 0])[1]) / 1048576
    loaded = bool(re.search(r"loaded: \S", said))
    message = re.search(r"message: (.*)", said)
    outcome = "a position" if loaded else message[1] if message else f"nothing ({code})"
    wrong = code != 0 or seconds > 33 or peak > 300 or outcome.startswith("nothing")
    wrong |= bool(re.search("[\0-\x09\x0b-\x1f\x7f-\x9f]", said))
    wrong |= name == "honest" and not loaded
    wrong |= name in ("not a number", "infinite", "beyond the sky") and loaded
    return [name, outcome, f"{seconds:.1f} s", f"{peak:.0f} MB", "**bad**" if wrong else ""]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--short", action="store_true")
    options = parser.parse_args()
    probe = pathlib.Path(options.programs) / "vestrel-probe"
    seed = random.randrange(1 << 32)
    print("seed", seed)
    rows = []
    bad = 0
    found = servers(random.Random(seed))
    if options.short:
        found = {name: found[name] for name in (
            "honest", "gone at once", "gone after half a message", "reset after the first request",
            "control characters and markup", "another device")}
    with concurrent.futures.ThreadPoolExecutor(8) as pool:  # most of the time they wait
        for row in pool.map(lambda item: attempt(probe, *item), found.items()):
            rows.append(row)
            bad += bool(row[-1])
            print(*row, flush=True)
    if not options.short:
        rows = [[re.sub(r"[|`<>]", "?", str(cell)) for cell in row] for row in rows]
        write_table("hostile INDI", ["server", "outcome", "time", "peak memory", ""], rows,
                    f"{len(rows)} servers, seed {seed}.")
    return bad != 0


if __name__ == "__main__":
    sys.exit(main())
