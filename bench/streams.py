"""Clients of the output STREAM: one that behaves, and ones that do not."""

import json
import os
import queue
import random
import select
import socket
import struct
import threading
import time

MEMBERS = {"gateway": {"version", "gateway", "time"},
           "radio": {"time", "port", "name", "esn", "model", "band", "state"},
           "frame": {"time", "gateway", "port", "name", "esn", "model", "band", "kind", "fields", "text"},
           "command": {"time", "gateway", "port", "name", "esn", "model", "band", "kind", "fields", "text"},
           "lost": {"count"}}


def join(place):
    """A connection to a path or to (address, port)."""
    client = socket.socket(socket.AF_UNIX if isinstance(place, str) else socket.AF_INET)
    client.settimeout(5)
    client.connect(place)
    client.settimeout(None)
    return client


class Records:
    """Takes a connection's bytes apart and holds each line against what a record has to be."""

    def __init__(self):
        self.problems = []
        self.lost = 0
        self._rest = b""
        self._count = 0

    def take(self, data):
        lines = (self._rest + data).split(b"\n")
        self._rest = lines.pop()
        return [record for record in map(self._parse, lines) if record]

    def _parse(self, line):
        self._count += 1
        try:
            record = json.loads(line.decode())
            kind = record["record"]
            members = set(record) - {"record", "raw"}
            if members != MEMBERS[kind] or (kind == "gateway") != (self._count == 1):
                raise ValueError(f"members {sorted(members)}")
        except (ValueError, KeyError, TypeError) as error:
            self.problems.append(f"line {self._count} is no record: {error}: {line[:200]}")
            return None
        if kind == "lost":
            self.lost += record["count"]
        return record


class Listener(threading.Thread):
    """The client that behaves: stays as long as the daemon lets it and joins again."""

    def __init__(self, place, take):
        super().__init__(daemon=True)
        self._place, self._take = place, take
        self.joined = 0  # how often
        self.lost = 0
        self.problems = []
        self.start()

    def run(self):
        while True:
            try:
                with join(self._place) as client:
                    self._read(client)
            except OSError:
                time.sleep(0.2)

    def _read(self, client):
        """Looking at the records has a thread of its own, or a burst after a stall would make a slow client of this."""
        parts = queue.SimpleQueue()
        examiner = threading.Thread(target=self._examine, args=(parts,), daemon=True)
        examiner.start()
        try:
            while data := client.recv(1 << 20):
                parts.put(data)
        finally:
            parts.put(b"")
            examiner.join()

    def _examine(self, parts):
        records = Records()
        is_new = True
        while data := parts.get():
            for record in records.take(data):
                if record["record"] in ("frame", "command"):
                    self._take(record["text"].encode())
            self.joined += is_new
            is_new = False
            self.lost += records.lost
            records.lost = 0
            self.problems += records.problems
            records.problems.clear()


class Rude:
    """Ways to be a client that costs others something, if the daemon lets it."""

    def __init__(self, places, rubbish):
        self.places = places
        self._rubbish = rubbish  # makes a radio hear something long
        self.problems = []
        self.lost = 0  # records, by clients that stopped reading
        self.ways = {"come and go": self.come_and_go, "stop reading": self.stop_reading, "send rubbish": self.send,
                     "half-close": self.half_close, "too many": self.too_many}

    def _join(self):
        return join(random.choice(self.places))

    def come_and_go(self):
        for _ in range(100):
            client = self._join()
            if random.random() < 0.5:  # with a reset
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            elif random.random() < 0.5:
                client.recv(random.randrange(1, 500))
            client.close()
            time.sleep(0.02)

    def stop_reading(self):
        """Until more waits for it than it may have; what it then reads are whole records, and how many it lost."""
        with self._join() as client:
            records = Records()
            for _ in range(40):  # of 60 KiB each, beside the megabyte and what the kernel holds
                self._rubbish()
                time.sleep(0.1)
            end = time.monotonic() + 4
            while select.select([client], [], [], max(0, end - time.monotonic()))[0]:
                data = client.recv(65536)
                if not data:
                    break
                records.take(data)
            self.problems += [f"after it stopped reading: {problem}" for problem in records.problems]
            self.lost += records.lost

    def send(self):
        with self._join() as client:
            client.settimeout(60)  # an output may let the daemon stand still meanwhile, and another after it
            try:
                for _ in range(100):
                    client.sendall(os.urandom(16384))
                    time.sleep(0.02)
            except socket.timeout:
                self.problems.append("what a client sends is not read")

    def half_close(self):
        with self._join() as client:
            client.shutdown(socket.SHUT_WR)
            time.sleep(2)

    def too_many(self):
        clients = []
        try:
            for _ in range(80):
                clients.append(self._join())
            time.sleep(3)
        finally:
            for client in clients:
                client.close()
