"""The daemon, the simulated radios and the database file, as a driver handles them."""

import json
import os
import queue
import re
import signal
import socket
import sqlite3
import subprocess
import threading
import time
from contextlib import contextmanager

LINE_RATE = 70  # frames per second and radio at 38400 bit/s
TICKS = os.sysconf("SC_CLK_TCK")
TABLES = ("radio_adapters", "port_blacklist", "system_configuration", "data_forwarder", "pending_actions")


class Radios:
    """A fleet of simulated radios, steered through the standard input of quillon-radiosim."""

    def __init__(self, binary, folder, count=1, name="r", **options):
        self.links = [f"{folder}/{name}{n + 1}" for n in range(count)]
        self.ready_at = [None] * count  # when the greeting had been shown and cleared
        self._greeted = [False] * count
        self._answers = queue.Queue()
        self._lock = threading.Lock()
        self.last_line = [0] * count
        command = [binary, "--control", "--count", str(count), "--link", f"{folder}/{name}%1"]
        for option, value in options.items():
            command += [f"--{option.replace('_', '-')}"] + ([] if value is True else [str(value)])
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        threading.Thread(target=self._read, daemon=True).start()
        while not all(os.path.islink(link) for link in self.links):
            time.sleep(0.02)

    def _read(self):
        for line in self.process.stdout:
            if line.startswith((b"ok", b"error")):
                self._answers.put(line.strip().decode())
                continue
            event = re.match(rb"radio (\d+): (display \[(.*)\]|.* after line (\d+))", line)
            if event and event[4]:
                self.last_line[int(event[1]) - 1] = int(event[4])
            elif event:
                self._displayed(int(event[1]) - 1, event[3])

    def _displayed(self, radio, text):
        if text:
            self._greeted[radio], self.ready_at[radio] = True, None
        elif self._greeted[radio] and self.ready_at[radio] is None:
            self.ready_at[radio] = time.monotonic() + 0.7

    def command(self, line):
        """The radios' answer: "ok", or "error: " and a reason."""
        with self._lock:
            self.process.stdin.write(line.encode() + b"\n")
            self.process.stdin.flush()
            return self._answers.get(timeout=60)

    def forget(self, radios=None):
        """A radio that has to be identified anew is not ready."""
        for radio in range(len(self.links)) if radios is None else radios:
            self._greeted[radio], self.ready_at[radio] = False, None

    def is_ready(self, radio):
        at = self.ready_at[radio]
        return at is not None and time.monotonic() > at

    def all_ready(self):
        return all(self.is_ready(radio) for radio in range(len(self.links)))

    def close(self):
        self.process.stdin.close()
        self.process.wait()


class Process:
    """A child process, and what the kernel knows of it."""

    started = []

    def __init__(self, log):
        self.log = log
        self.process = None

    def run(self, command):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log)
        Process.started.append(self)

    def stop(self, how=signal.SIGTERM, timeout=120):
        """The exit code; -1000 when it had to be killed. A blocking wait of an output comes first."""
        self.process.send_signal(how)
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return -1000

    @classmethod
    def kill_all(cls):
        for one in cls.started:
            if one.is_running():
                one.process.kill()

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", "rb") as file:
            fields = file.read().rsplit(b")", 1)[1].split()
        return sum(int(field) for field in fields[11:15]) / TICKS  # the last two are those of ended children

    def status(self, key):
        """A number of /proc/PID/status: VmRSS (KiB), voluntary_ctxt_switches and the like."""
        with open(f"/proc/{self.process.pid}/status") as file:
            return int(re.search(rf"^{key}:\s+(\d+)", file.read(), re.M)[1])

    def bytes_written(self):
        """What the process has handed to the disk, whole pages of files that it changed."""
        with open(f"/proc/{self.process.pid}/io") as file:
            return int(re.search(r"^write_bytes: (\d+)", file.read(), re.M)[1])

    def open_files(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))


class Daemon(Process):
    """The daemon; its log goes to a file."""

    def __init__(self, binary, database, log):
        super().__init__(log)
        self.binary, self.database = binary, database

    def start(self, under=()):
        """Perhaps under a program that watches it, such as valgrind."""
        self.run([*under, self.binary, "-c", self.database])

    def connections(self, port):
        """How often the log says that an output has connected to this port."""
        with open(self.log, "rb") as log:
            return log.read().count(b": %d ] socket connected" % port)


def wait_for(condition, timeout, what):
    end = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: not within {timeout} s")
        time.sleep(0.05)


def free_port():
    with socket.socket() as any_socket:
        any_socket.bind(("127.0.0.1", 0))
        return any_socket.getsockname()[1]


def connect(database, timeout=20):
    return sqlite3.connect(database, timeout=timeout, isolation_level=None)


def make_database(daemon):
    """Lets the daemon write a new file, so that it holds exactly its tables and defaults; its output is off."""
    daemon.start()

    def is_complete():
        if not os.path.exists(daemon.database):
            return False
        with connect(daemon.database) as store:
            return store.execute("SELECT count(*) FROM sqlite_master").fetchone()[0] == len(TABLES)

    wait_for(is_complete, 10, "a new database")
    time.sleep(0.3)
    daemon.stop()
    with connect(daemon.database) as store:
        store.execute("DELETE FROM data_forwarder")


def add_radios(database, links, baud=0):
    with connect(database) as store:
        for link in links:
            store.execute(
                "INSERT INTO radio_adapters (method, port, name, autobaud, tx_enabled, baudrate, enabled, discovered,"
                " status, esn) VALUES ('STATIC', ?, ?, ?, 1, ?, 1, 0, 0, '')",
                (link, os.path.basename(link), 0 if baud else 1, baud))


def add_output(database, kind, target="", port="", secret="", context=""):
    with connect(database) as store:
        store.execute(
            "INSERT INTO data_forwarder (type, target, port, secret, context, comment, enabled, status)"
            " VALUES (?, ?, ?, ?, ?, '', 1, 0)", (kind, target, str(port), secret, context))


def copy_rows(source, database):
    """Puts the rows of one file into another that has the same tables, in one transaction."""
    with connect(database) as store:
        store.execute("ATTACH ? AS source", (source,))
        store.execute("BEGIN IMMEDIATE")
        for table in TABLES:
            store.execute(f"DELETE FROM main.{table}")
            store.execute(f"INSERT INTO main.{table} SELECT * FROM source.{table}")
        store.execute("COMMIT")


def wait_until(condition, timeout=float("inf")):
    """Looks closely; returns when the time is over, too."""
    end = time.monotonic() + timeout
    while not condition() and time.monotonic() < end:
        time.sleep(0.001)


def open_paths(pid):
    paths = []
    for name in os.listdir(f"/proc/{pid}/fd"):
        try:
            paths.append(os.readlink(f"/proc/{pid}/fd/{name}"))
        except FileNotFoundError:
            pass
    return paths


def lines_in(path):
    try:
        with open(path, "rb") as file:
            return file.read().count(b"READ: ")
    except FileNotFoundError:
        return 0


@contextmanager
def filled_disk(folder):
    """A small file system without a byte to spare."""
    filler = f"{folder}/filler"
    try:
        with open(filler, "wb", buffering=0) as file:
            for size in (65536, 4096, 1):
                try:
                    while True:
                        file.write(b"x" * size)
                except OSError:
                    pass
        yield
    finally:
        os.remove(filler)


def say(what, figures):
    print(f"bench: {what}: {json.dumps(figures)}", flush=True)
