"""What the console costs: idle, and with 32 pages open while a hundred frames come each second."""

import statistics
import time

from console import Console
from peers import run_probe
from rig import add_output, say
from streaming import Streaming, quantiles, start_clients

PAGES = 32
RATE = 100  # frames per second


class Watched(Streaming):
    """The daemon with RAW and STREAM, and a console on which pages are open."""

    def __init__(self, bench, pages):
        super().__init__(bench)
        self.pages = pages
        self.console = self.watchers = self.counts = None
        self.figures = {}

    def start(self, probe):
        super().start(probe)
        if self.pages:
            self.console = start_console(self.bench, self.database)
            self.watchers = start_clients(self.bench, "clients", f"http:{self.console.port}", str(self.pages))
            time.sleep(1)
            self.begin = self.console.cpu_seconds(), time.monotonic()

    def stop(self):
        if self.watchers:
            cpu, at = self.begin
            self.figures = {"core": (self.console.cpu_seconds() - cpu) / (time.monotonic() - at),
                            "rss": self.console.status("VmRSS") / 1024}
            time.sleep(1)
            self.counts = [[int(number) for number in line.split()]
                           for line in self.watchers.communicate(b"\n", timeout=30)[0].splitlines()]
            self.console.stop()
        super().stop()


def start_console(bench, database):
    console = Console(f"{bench.arguments.bin}/quillon-console", database, f"{bench.folder}/console.log")
    console.start()
    time.sleep(2)
    return console


def measure(bench):
    bench.results["console"] = {"idle": idle(bench), **loaded(bench)}
    say("console", bench.results["console"])


def idle(bench):
    """Eight identified radios that say nothing, and no page open."""
    radios, daemon, _ = bench.identified_radios(
        8, lambda database: add_output(database, "STREAM", f"{bench.folder}/stream"))
    console = start_console(bench, daemon.database)
    time.sleep(5)
    cpu = console.cpu_seconds()
    time.sleep(bench.arguments.idle)
    figures = {"cpu_per_hour": (console.cpu_seconds() - cpu) * 3600 / bench.arguments.idle,
               "rss": console.status("VmRSS") / 1024}
    console.stop()
    daemon.stop()
    radios.close()
    return figures


def loaded(bench):
    rounds = []
    for _ in range(bench.arguments.rounds):
        rounds.append({})
        for name, pages in (("without", 0), ("with", PAGES)):
            rounds[-1] |= bench.host.undisturbed(lambda name=name, pages=pages: watched(bench, name, pages),
                                                 lambda figures: figures.get("behind") or figures.get("missed"))
        say("console", rounds[-1])
    return {"latency": {name: statistics.median(one[name] for one in rounds) for name in rounds[0] if " p" in name},
            "pages": PAGES, **{name: sum(one[name] for one in rounds) for name in ("behind", "missed")},
            **{name: rounds[-1][name] for name in ("core", "rss")}}


def watched(bench, name, pages):
    """RAW's latency with so many pages open; how many of them were behind, how many records they missed."""
    gateway = Watched(bench, pages)
    count = RATE * bench.arguments.seconds // 2
    figures = quantiles(name, run_probe(bench, gateway, "latency", count, [1000 // RATE]))
    if pages:
        figures |= gateway.figures
        figures["behind"] = sum(frames < count for frames, _ in gateway.counts)
        figures["missed"] = sum(gaps for _, gaps in gateway.counts)
    return figures
