"""Measures the daemon beside socat and ser2net."""

import argparse
import atexit
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from datetime import date

import durable
import instructions
import pages
import peers
import streaming
import tables
from host import Host
from rig import (LINE_RATE, Daemon, Process, Radios, add_output, add_radios, lines_in, make_database, open_paths, say,
                 wait_for, wait_until)
from sinks import TcpSink
from trace import trace_frames


class Bench:
    def __init__(self, arguments):
        self.arguments = arguments
        self.host = Host()
        self.folder = tempfile.mkdtemp(prefix="quillon-bench-")
        self.results = earlier_results(arguments) if arguments.parts else {}
        self.results |= {"date": str(date.today()), "machine": machine(), "versions": versions(arguments.bin)}

    def new_daemon(self, links, baud=38400):
        """A daemon with a file of its own, in which these radios have their row."""
        folder = tempfile.mkdtemp(dir=self.folder)
        daemon = Daemon(f"{self.arguments.bin}/quillon", f"{folder}/quillon.sqlite", f"{folder}/log")
        make_database(daemon)
        add_radios(daemon.database, links, baud)
        return daemon

    def radios_at_line_rate(self):
        self.results["fleet"] = [
            self.host.undisturbed(lambda count=count: self.fleet(count), lambda figures: figures["lost"])
            for count in self.arguments.fleets]

    def fleet(self, count):
        radios, daemon, log = self.identified_radios(count)
        time.sleep(2)
        lines_before = lines_in(log)
        before = daemon.cpu_seconds()
        radios.command(f"traffic {LINE_RATE}")
        time.sleep(self.arguments.seconds)
        cpu = daemon.cpu_seconds() - before
        radios.command("traffic 0")
        sent = sum(radios.last_line)
        end = time.monotonic() + 30
        while lines_in(log) - lines_before < sent and time.monotonic() < end:
            time.sleep(0.2)
        result = {"radios": count, "sent": sent, "lost": sent - (lines_in(log) - lines_before),
                  "cpu": cpu, "core": cpu / self.arguments.seconds, "rss": daemon.status("VmRSS") / 1024}
        daemon.stop()
        radios.close()
        say("fleet", result)
        return result

    def line_rate_radios(self, count):
        return Radios(f"{self.arguments.bin}/quillon-radiosim", self.folder, count, baud=38400, line_rate=True)

    def identified_radios(self, count, add_outputs=None, links=(), radios=None):
        """Radios, the daemon that has identified them and writes to FILE and RAW or others, and the file's path."""
        radios = radios or self.line_rate_radios(count)
        daemon = self.new_daemon([*radios.links, *links])
        log = f"{self.folder}/frames.log"
        (add_outputs or add_raw)(daemon.database)
        add_output(daemon.database, "FILE", log)
        daemon.start()
        wait_for(radios.all_ready, 120, "identified radios")
        return radios, daemon, log

    def idle(self):
        radios, daemon, _ = self.identified_radios(8)
        time.sleep(5)
        cpu, wakeups = daemon.cpu_seconds(), daemon.status("voluntary_ctxt_switches")
        time.sleep(self.arguments.idle)
        self.results["idle"] = {
            "cpu_per_hour": (daemon.cpu_seconds() - cpu) * 3600 / self.arguments.idle,
            "wakeups": (daemon.status("voluntary_ctxt_switches") - wakeups) / self.arguments.idle,
            "rss": daemon.status("VmRSS") / 1024}
        daemon.stop()
        radios.close()
        say("idle", self.results["idle"])

    def start_up(self):
        figures = []
        for _ in range(self.arguments.rounds):
            radios = self.line_rate_radios(1)
            daemon = self.new_daemon(radios.links)
            log = f"{self.folder}/start.log"
            if os.path.exists(log):
                os.remove(log)
            add_output(daemon.database, "FILE", log)
            device = os.path.realpath(radios.links[0])
            start = time.monotonic()
            daemon.start()
            wait_until(lambda: device in open_paths(daemon.process.pid))
            scanned = time.monotonic() - start
            wait_until(lambda: lines_in(log) > 0)
            figures.append((scanned, time.monotonic() - start))
            daemon.stop()
            radios.close()
        self.results["start"] = {"scan": statistics.median(f[0] for f in figures),
                                 "frame": statistics.median(f[1] for f in figures)}
        say("start", self.results["start"])

    def size(self):
        stripped = f"{self.folder}/stripped"
        subprocess.run(["strip", "-o", stripped, f"{self.arguments.bin}/quillon"], check=True)
        self.results["size"] = os.path.getsize(stripped)

    def database_work(self):
        radios, daemon, _ = self.identified_radios(1)
        time.sleep(1)
        self.results["database"] = trace_frames(daemon, radios, f"{self.folder}/strace")
        daemon.stop()
        radios.close()
        say("database", self.results["database"])


def add_raw(database):
    add_output(database, "RAW", "127.0.0.1", TcpSink(len).port)


def earlier_results(arguments):
    """What the parts that are not measured this time came to before."""
    try:
        with open(f"{arguments.output}.json") as file:
            return json.load(file)
    except FileNotFoundError:
        return {}


def machine():
    with open("/proc/cpuinfo") as file:
        model = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), platform.machine())
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release()}"


def versions(folder):
    def package(name):
        return subprocess.run(["dpkg-query", "-W", "-f", "${Version}", name], capture_output=True, text=True).stdout

    daemon = subprocess.run([f"{folder}/quillon", "--version"], capture_output=True, text=True).stdout.split()[-1]
    return {"quillon": daemon, "socat": package("socat"), "ser2net": package("ser2net"),
            "Qt": package("libqt5core5a"), "SQLite": package("libsqlite3-0")}


PARTS = {"instructions": instructions.measure, "size": Bench.size, "database": Bench.database_work,
         "start": Bench.start_up, "idle": Bench.idle, "compare": peers.compare, "fleet": Bench.radios_at_line_rate,
         "durable": durable.measure, "stream": streaming.measure, "console": pages.measure}


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("parts", nargs="*", metavar="PART",
                        help=", ".join(PARTS) + " (all); the figures of the others stay as they were measured before")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--output", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="short runs, to try the script")
    parser.add_argument("--rounds", type=int, default=5, help="rounds of every comparison (5)")
    parser.add_argument("--samples", type=int, default=2000, help="frames of a latency measurement (2000)")
    parser.add_argument("--only", default="", metavar="REGEX", help="outputs whose instructions are counted (all)")
    parser.add_argument("--document", action="store_true", help="put the tables into docs/benchmarks.md")
    arguments = parser.parse_args()
    arguments.fleets, arguments.seconds, arguments.idle = [1, 8, 32, 64], 60, 300
    if arguments.quick:
        arguments.rounds, arguments.samples = 1, 300
        arguments.fleets, arguments.seconds, arguments.idle = [1, 8], 5, 20

    atexit.register(Process.kill_all)
    bench = Bench(arguments)
    for name, part in PARTS.items():
        if not arguments.parts or name in arguments.parts:
            bench.host.forget()
            part(bench)
            bench.results.setdefault("host", {})[name] = bench.host.counts
    shutil.rmtree(bench.folder, ignore_errors=True)
    with open(f"{arguments.output}.json", "w") as file:
        json.dump(bench.results, file, indent=2)
    text = tables.render(bench.results)
    with open(f"{arguments.output}.md", "w") as file:
        file.write(text)
    print(text)
    if arguments.document:
        tables.put_into("docs/benchmarks.md", text)


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    main()
    sys.stdout.flush()
    os._exit(0)  # threads that wait for a connection are nobody's any more
