"""Throws faults at the daemon for a while and tells what became of every frame."""

import argparse
import fcntl
import os
import random
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter

from cloud import Cloud
from console import Console, Watcher
from faults import ALL, Faults, RUBBISH, TCP
from ledger import Ledger
from outcome import Outcome
from pubsub import PubSub
from rig import LINE_RATE, Daemon, Process, Radios, add_output, add_radios, free_port, make_database, wait_for
from sinks import FileTail, TcpSink
from streams import Listener, Rude

RADIOS = 8


def isolate():
    """In a network and mount namespace of its own: loopback alone, small send buffers."""
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sH14x", b"lo", 0x41))  # SIOCSIFFLAGS: up and running
    with open("/proc/sys/net/ipv4/tcp_wmem", "w") as file:
        file.write("4096 8192 16384")


class Soak:
    RATE = 2.0  # frames per second and radio

    def __init__(self, arguments):
        self.arguments = arguments
        self.random = random.Random(arguments.seed)
        self.folder = tempfile.mkdtemp(prefix="q", dir="/tmp")
        for name in ("db", "out"):
            os.mkdir(f"{self.folder}/{name}")
        self.has_mounts = arguments.isolated and self.mount()
        self.database = f"{self.folder}/db/quillon.sqlite"
        self.template = f"{self.folder}/template.sqlite"
        self.file_path = f"{self.folder}/out/frames.log"
        self.kinds = [kind for kind in ALL if kind not in arguments.without.split(",")]
        self.ledger = Ledger(self.kinds, durable=("PUBSUB",))
        self.daemon = Daemon(f"{arguments.bin}/quillon", self.database, f"{self.folder}/daemon.log")
        self.console = None
        self.problems = []
        self.samples = []  # (time, life, resident KiB, open files)
        self.console_samples = []  # (time, resident KiB)
        self.thrown, self.not_thrown = Counter(), Counter()
        self.life = 0
        self.rate = self.RATE
        self.cpu = 0.0
        self.stops = []  # s that each end of the daemon took
        self.restarting = threading.Lock()
        self.is_sending = threading.Event()
        self.is_enough = threading.Event()  # no more faults: the report is wanted
        self.is_over = False

    def mount(self):
        return all(subprocess.run(["mount", "-t", "tmpfs", "-o", "size=128m", "none", f"{self.folder}/{name}"],
                                  capture_output=True).returncode == 0 for name in ("db", "out"))

    def set_up(self):
        make_database(self.daemon)
        ledger = self.ledger
        self.sinks = {name: TcpSink(lambda data, name=name: ledger.add_received(name, data)) for name in TCP}
        self.tail = FileTail(self.file_path, lambda data: ledger.add_received("FILE", data))
        self.cloud = Cloud(lambda frame: ledger.add_received("GCP", frame),
                           lambda frame: ledger.excuse("GCP", frame, "message of a refused publish"))
        for name in TCP:
            add_output(self.database, name, "127.0.0.1", self.sinks[name].port)
        add_output(self.database, "FILE", self.file_path)
        add_output(self.database, "DUOS")
        add_output(self.database, "GCP", self.cloud.url(), 0, self.cloud.secret(), "topic")
        if "PUBSUB" in self.kinds:
            self.topic = PubSub(lambda frames: ledger.add_received("PUBSUB", frames))
            add_output(self.database, "PUBSUB", self.topic.url(), 0, self.topic.secret(), "topic")
        if "STREAM" in self.kinds:
            self.set_up_streams()
        self.radios = Radios(f"{self.arguments.bin}/quillon-radiosim", self.folder, RADIOS)
        self.speeds = [19200] * RADIOS
        self.sending = [threading.Lock() for _ in range(RADIOS)]
        add_radios(self.database, self.radios.links)
        shutil.copyfile(self.database, self.template)
        self.console = Console(f"{self.arguments.bin}/quillon-console", self.database, f"{self.folder}/console.log")
        self.watchers = []
        threading.Thread(target=self.sample, daemon=True).start()
        for radio in range(RADIOS):
            threading.Thread(target=self.send, args=(radio,), daemon=True).start()

    def set_up_streams(self):
        path, address = f"{self.folder}/stream", ("127.0.0.1", free_port())
        add_output(self.database, "STREAM", path)
        add_output(self.database, "STREAM", *address)
        self.listener = Listener(path, lambda text: self.ledger.add_received("STREAM", text))
        self.rude = Rude((path, address), lambda: self.radios.command(
            f"raw:{self.random.randrange(RADIOS) + 1} {RUBBISH['message of 60 KiB'](self.random)}"))

    def anyone_ready(self):
        return any(self.radios.is_ready(radio) for radio in range(RADIOS))

    # Life of the daemon

    def start(self):
        self.daemon.start()
        self.life += 1

    def end(self, how):
        """Ends the daemon, with every frame that it was sent accounted for."""
        self.radios.forget()
        self.ledger.cut(f"unread at {how.name}", ALL)
        on_its_way = self.ledger.open_window("held in memory when the daemon ended", ("GCP",),
                                             since=self.ledger.waiting("GCP", age=5)[1])
        self.cpu += self.daemon.cpu_seconds() if self.daemon.is_running() else 0
        begin = time.monotonic()
        if how == signal.SIGKILL:
            self.ledger.kills.append(begin)
        code = self.daemon.stop(how)
        self.stops.append(time.monotonic() - begin)
        self.tail.rewind()
        on_its_way()
        if code != (0 if how == signal.SIGTERM else -signal.SIGKILL):
            self.problems.append(f"{how.name} ended the daemon with code {code}")

    def restart(self, how):
        with self.restarting:
            connections = {name: self.daemon.connections(sink.port) for name, sink in self.sinks.items()}
            close = self.ledger.open_window("not connected", TCP + ("STREAM",))
            joined = self.listener.joined if "STREAM" in self.kinds else 0
            self.end(how)
            self.start()
            wait_for(self.anyone_ready, 200, "an identified radio")
            if "STREAM" in self.kinds:
                wait_for(lambda: self.listener.joined > joined, 30, "the stream's listener")
            wait_for(lambda: all(self.daemon.connections(self.sinks[name].port) > connections[name] for name in TCP),
                     200, "connections")
            close()

    def sample(self):
        while not self.is_over:
            with self.restarting:
                try:
                    self.samples.append((time.monotonic(), self.life, self.daemon.status("VmRSS"),
                                         self.daemon.open_files()))
                    if self.console.is_running():
                        self.console_samples.append((time.monotonic(), self.console.status("VmRSS")))
                except (FileNotFoundError, ProcessLookupError, TypeError, AttributeError):
                    pass
            if self.life and not self.restarting.locked() and not self.daemon.is_running():
                self.problems.append(f"the daemon ended by itself with code {self.daemon.process.returncode}")
                return
            if self.console.process and not self.console.is_running():
                self.problems.append(f"the console ended by itself with code {self.console.process.returncode}")
                return
            time.sleep(1)

    # Traffic and faults

    def send(self, radio):
        number = 0
        while not self.is_over:
            time.sleep(1 / self.rate)
            with self.sending[radio]:
                if not self.is_sending.is_set() or not self.radios.is_ready(radio):
                    continue
                number += 1
                self.ledger.add_sent(radio, number)
                token = self.ledger.frame(radio, number).decode()
                answer = self.radios.command(f"hear:{radio + 1} *NTF,DPMR,RXVCALL,IND,0047312,{token},1,30")
                if answer != "ok":
                    self.ledger.unsend(radio, number)

    def throw_faults(self, seconds):
        faults = Faults(self)
        busy = {family: threading.Lock() for family in faults.kinds}
        families = [family for family, kinds in faults.kinds.items() if family != "daemon" and kinds]
        end = time.monotonic() + seconds
        threads = {}  # by kind
        next_restart = time.monotonic() + self.random.uniform(60, 120)
        while time.monotonic() < end and not self.problems and not self.is_enough.is_set():
            time.sleep(self.random.uniform(0.5, 3))
            family = self.random.choice(families)
            if time.monotonic() > next_restart and faults.kinds["daemon"]:
                family, next_restart = "daemon", time.monotonic() + self.random.uniform(90, 400)
                for kind, thread in threads.items():
                    if kind not in faults.outlives_daemon:
                        thread.join()
                self.let_the_cloud_catch_up()
            if not busy[family].acquire(blocking=False):
                continue
            kind = self.random.choice(sorted(faults.kinds[family]))
            held = [busy[family]]
            other = busy.get(faults.also_busy.get(kind))
            if other and not other.acquire(blocking=False):
                busy[family].release()
                continue
            held += [other] if other else []
            threads[kind] = threading.Thread(target=self.throw, args=(kind, faults.kinds[family][kind], held))
            threads[kind].start()
            if family == "daemon":
                threads[kind].join()
        for thread in threads.values():
            thread.join()

    def let_the_cloud_catch_up(self):
        """So that a restart costs no more than what is on its way."""
        end = time.monotonic() + 60
        while time.monotonic() < end and self.ledger.waiting("GCP", age=300)[1] < time.monotonic() - 3:
            time.sleep(0.2)

    def throw(self, kind, fault, busy):
        if self.arguments.verbose:
            print(f"{time.monotonic() - self.began:8.1f} s  {kind}", flush=True)
        try:
            done = fault() is not False
            (self.thrown if done else self.not_thrown)[kind] += 1
        except Exception as error:  # pylint: disable=broad-except
            self.problems.append(f"{kind}: {error}")
        finally:
            for lock in busy:
                lock.release()

    # The phases

    def run(self):
        self.set_up()
        self.began = time.monotonic()
        self.start()
        if "console" not in self.arguments.without:
            self.console.start()
            self.watchers = [Watcher(self.console) for _ in range(2)]
        wait_for(self.radios.all_ready, 90, "identified radios")
        wait_for(lambda: all(self.daemon.connections(sink.port) for sink in self.sinks.values()), 30, "connections")
        self.is_sending.set()
        begin = time.monotonic()
        self.throw_faults(self.arguments.seconds)
        self.arguments.seconds = time.monotonic() - begin
        wait_for(self.radios.all_ready, 120, "identified radios after the last fault")
        time.sleep(15)
        self.is_sending.clear()
        wait_for(lambda: time.monotonic() - self.ledger.backlog_since() < 0.1, 60, "the last frame")
        self.let_the_cloud_catch_up()
        if "PUBSUB" in self.kinds:  # what a topic refused last is tried again after a minute
            end = time.monotonic() + 150
            while time.monotonic() < end and self.ledger.waiting("PUBSUB")[0]:
                time.sleep(0.2)
        time.sleep(5)
        self.is_over = True
        idle = self.measure_idle()
        line = self.check_line_rate()
        self.end(signal.SIGTERM)
        if self.watchers:
            answer = self.console.get("/api/state")
            if answer.status != 200:
                self.problems.append(f"the console answers {answer.status} after the last fault")
            for watcher in self.watchers:
                watcher.is_over = True
            self.console.stop()
        self.radios.close()
        return Outcome(self).report(idle, line)

    def measure_idle(self):
        seconds = 30
        before = self.daemon.cpu_seconds()
        time.sleep(seconds)
        share = (self.daemon.cpu_seconds() - before) / seconds
        if share > 0.01 and not self.arguments.sanitized:
            self.problems.append(f"{share:.1%} of a core while nothing was sent")
        return share

    def check_line_rate(self):
        """One radio at 38400 bit/s, as fast as the line allows, while both TCP targets silently drop packets."""
        # Lines come at the line's rate, but a pseudo-terminal holds less than a serial port: what it does not take
        # waits in the simulated radio and must go out at once afterwards, so the radio's own pacing is off.
        radio = Radios(f"{self.arguments.bin}/quillon-radiosim", self.folder, 1, "fast", baud=38400)
        add_radios(self.database, radio.links)
        wait_for(radio.all_ready, 60, "the fast radio")
        arrivals, rest = {}, b""
        seconds = self.arguments.line_seconds
        for sink in self.sinks.values():
            sink.drop_packets()
        radio.command(f"traffic {LINE_RATE} 1")
        start = time.monotonic()
        position = os.path.getsize(self.file_path)
        healed = False
        while time.monotonic() < start + seconds + 60:
            time.sleep(0.02)
            with open(self.file_path, "rb") as file:
                file.seek(position)
                new = file.read()
            position += len(new)
            lines = (rest + new).split(b"\n")
            rest = lines.pop()
            for text in lines:
                for field in text.replace(b'"', b",").replace(b"\x03", b",").split(b","):
                    if field[:1] == b"N" and field[1:].isdigit():
                        arrivals.setdefault(int(field[1:]), time.monotonic())
            if not healed and time.monotonic() > start + seconds:
                healed = True
                radio.command("traffic 0 1")
                for sink in self.sinks.values():
                    sink.listen()
            if healed and len(arrivals) >= radio.last_line[0]:
                break
        sent = radio.last_line[0]
        delay = max((at - start - number / LINE_RATE for number, at in arrivals.items()), default=0)
        radio.close()
        return sent, sent - len(arrivals), delay


def main():
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__)
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--isolated", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--preset", default="release", help="build to run, such as asan (release)")
    parser.add_argument("--hours", type=float, default=0.05,
                        help="length of the faults (0.05: three minutes); SIGUSR1 ends them earlier")
    parser.add_argument("--seed", type=int, default=int(time.time()), help="which faults come when")
    parser.add_argument("--line-seconds", type=int, default=90, help="length of the check at line rate (90)")
    parser.add_argument("--without", default="", metavar="KINDS", help="leave out outputs or the console: GCP,console")
    parser.add_argument("--only", default="", metavar="REGEX", help="throw only faults whose name matches")
    parser.add_argument("--plot", metavar="FILE", help="draw memory over time as SVG")
    parser.add_argument("--verbose", action="store_true", help="print every fault")
    arguments = parser.parse_args()
    arguments.seconds = arguments.hours * 3600
    arguments.sanitized = arguments.preset == "asan"
    if arguments.isolated:
        isolate()
    print(f"soak: seed {arguments.seed}, {arguments.seconds:.0f} s of faults, about two minutes more around them",
          flush=True)
    soak = Soak(arguments)
    signal.signal(signal.SIGUSR1, lambda *_: soak.is_enough.set())
    try:
        return soak.run()
    except Exception as error:
        print(f"soak: failed: {error}; see {soak.daemon.log}", *soak.problems, sep="\n")
        Process.kill_all()
        return 1


if __name__ == "__main__":
    sys.stdout.reconfigure(line_buffering=True)
    code = main()
    sys.stdout.flush()
    os._exit(code)  # threads that wait for a server are nobody's any more
