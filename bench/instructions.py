"""Instructions that the daemon executes for one frame, counted by valgrind.

Two runs that are equally long and differ only in the number of frames, so that start, identification and idling cancel
each other out.
"""

import re
import threading
import time

from rig import Radios, add_output, say, wait_for
from sinks import TcpSink

FEW, MANY = 100, 500  # frames of the two runs
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
            if not self._new.wait_for(lambda: self.last >= number, 60):
                raise TimeoutError(f"frame {number} did not come")


def measure(bench):
    kinds = {"RAW": lambda _: None}
    bench.results["instructions"] = figures = {}
    for name, add_outputs in kinds.items():
        many, seconds = run(bench, MANY, add_outputs)
        few, _ = run(bench, FEW, add_outputs, seconds)
        figures[name] = (many - few) / (MANY - FEW)
        say("instructions", {name: figures[name]})


def run(bench, frames, add_outputs, seconds=0):
    """Instructions of a daemon's life with so many frames, and its seconds from the identified radio on."""
    radios = Radios(f"{bench.arguments.bin}/quillon-radiosim", bench.folder, 1, f"i{frames}-", baud=38400)
    daemon = bench.new_daemon(radios.links)
    arrivals = Arrivals()
    add_output(daemon.database, "RAW", "127.0.0.1", TcpSink(arrivals.take).port)
    add_outputs(daemon.database)
    counts = f"{bench.folder}/callgrind.{frames}"
    daemon.start(under=("valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={counts}"))
    try:
        wait_for(radios.all_ready, 300, "identified radios")
        begin = time.monotonic()
        for number in range(1, frames + 1):  # one after the other, so that none shares a wake-up with the next
            radios.command("hear:1 " + FRAME % number)
            arrivals.wait_for(number)
        time.sleep(max(0, begin + seconds - time.monotonic()))
        seconds = time.monotonic() - begin
    finally:
        daemon.stop()
        radios.close()
    with open(counts) as file:
        return int(re.search(r"^(?:totals|summary): (\d+)", file.read(), re.M)[1]), seconds
