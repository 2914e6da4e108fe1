"""Instructions that the daemon executes for one frame, counted by valgrind.

Counting begins when the radio has been identified and greeted. Two runs that are equally long and differ only in the
number of frames make idling and the end cancel each other out.
"""

import re
import subprocess
import threading
import time

from pubsub import PubSub
from rig import Radios, add_output, say, wait_for
from sinks import TcpSink
from streams import Listener

FEW, MANY = 100, 500  # frames of the two runs
RATE = 20  # frames per second where they do not wait for each other; valgrind is too slow for a line's 70
AWAY = 2  # s that the server needs for a request then, so that batches are as large as at a line's rate and 0.7 s
# x86 has an instruction that copies a whole buffer, which valgrind counts once for each byte and ARM has not.
COPIES = "GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000"
FRAME = "*NTF,DPMR,RXVCALL,IND,0047312,1200003,N%06d,30"


class Arrivals:
    """Counts the frames that came at an output."""

    def __init__(self):
        self.last = 0
        self._new = threading.Condition()

    def take(self, data):
        numbers = [int(number) for number in re.findall(rb",N(\d{6}),", data)]
        if numbers:
            with self._new:
                self.last = max(self.last, numbers[-1])
                self._new.notify_all()
        return data.rfind(b"\x03") + 1

    def wait_for(self, number):
        with self._new:
            if not self._new.wait_for(lambda: self.last >= number, 150):
                raise TimeoutError(f"frame {number} did not come")


def add_raw(bench, database, arrivals):
    add_output(database, "RAW", "127.0.0.1", TcpSink(arrivals.take).port)


def add_three(bench, database, arrivals):
    add_raw(bench, database, arrivals)
    add_output(database, "ERAW", "127.0.0.1", TcpSink(len).port)
    add_output(database, "FILE", f"{bench.folder}/instructions.log")


def add_stream(bench, database, arrivals):
    path = f"{bench.folder}/stream"
    add_output(database, "STREAM", path)
    Listener(path, arrivals.take)


def add_pubsub(bench, database, arrivals, delay=0):
    topic = PubSub(arrivals.take)
    topic.delay = (delay, delay)
    add_output(database, "PUBSUB", topic.url(), 0, topic.secret(), "topic")


def add_distant_pubsub(bench, database, arrivals):
    add_pubsub(bench, database, arrivals, AWAY)


KINDS = {  # name: how its outputs are added, whether a frame waits for the one before it
    "RAW": (add_raw, True),
    "RAW ERAW FILE": (add_three, True),
    "STREAM, one client": (add_stream, True),
    "PUBSUB, a request for each frame": (add_pubsub, True),
    f"PUBSUB, {RATE} frames/s, server {AWAY} s away": (add_distant_pubsub, False),
}


def measure(bench):
    bench.results["instructions"] = figures = {}
    for name, (add_outputs, waits) in KINDS.items():
        if not re.search(bench.arguments.only, name):
            continue
        many, seconds = run(bench, MANY, add_outputs, waits)
        few, _ = run(bench, FEW, add_outputs, waits, seconds)
        figures[name] = (many - few) / (MANY - FEW)
        say("instructions", {name: figures[name]})


def run(bench, frames, add_outputs, waits, seconds=0):
    """Instructions of a daemon's life with so many frames, and its seconds from the identified radio on."""
    radios = Radios(f"{bench.arguments.bin}/quillon-radiosim", bench.folder, 1, f"i{time.monotonic_ns()}-", baud=38400)
    daemon = bench.new_daemon(radios.links)
    arrivals = Arrivals()
    add_outputs(bench, daemon.database, arrivals)
    counts = f"{bench.folder}/callgrind.out"
    daemon.start(under=("env", COPIES, "valgrind", "--quiet", "--tool=callgrind", "--fair-sched=try",
                        "--instr-atstart=no", f"--callgrind-out-file={counts}"))
    try:
        wait_for(radios.all_ready, 300, "identified radios")
        subprocess.run(["callgrind_control", "--instr=on", str(daemon.process.pid)], check=True, capture_output=True)
        begin = time.monotonic()
        for number in range(1, frames + 1):
            radios.command("hear:1 " + FRAME % number)
            if waits:  # so that none shares a wake-up with the next
                arrivals.wait_for(number)
            else:
                time.sleep(max(0, begin + number / RATE - time.monotonic()))
        arrivals.wait_for(frames)
        time.sleep(max(0, begin + seconds - time.monotonic()))
        seconds = time.monotonic() - begin
    finally:
        daemon.stop()
        radios.close()
    with open(counts) as file:
        return int(re.search(r"^(?:totals|summary): (\d+)", file.read(), re.M)[1]), seconds
