"""The daemon beside socat and ser2net: latency and highest rate."""

import os
import statistics
import subprocess
import time
from contextlib import contextmanager

from rig import add_output, say

PORT = 42100
CORES = {"a core each": (0, 1), "any core": (None, None)}  # of probe and program, while latency is measured


class Gateway:
    """One of the programs between a radio's device and a TCP socket."""

    role = "accept"  # the probe's end of the connection

    def __init__(self, bench):
        self.bench = bench
        self.link = f"{bench.folder}/radio"
        self.process = None

    def start(self, probe):
        self.process = subprocess.Popen(self.command(), stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        time.sleep(0.5)

    def stop(self):
        self.process.terminate()
        self.process.wait()


class Socat(Gateway):
    name = "socat"
    flood_frames = 300_000

    def command(self):
        return ["socat", f"{self.link},raw,echo=0,b38400", f"TCP:127.0.0.1:{PORT},nodelay"]


class Ser2net(Gateway):
    """As shipped: the connection's own defaults for how long it collects bytes."""

    name = "ser2net"
    role = "connect"
    flood_frames = 20_000

    def command(self):
        path = f"{self.bench.folder}/ser2net.yaml"
        with open(path, "w") as file:
            file.write("%YAML 1.1\n---\nconnection: &radio\n"
                       f"  accepter: tcp,127.0.0.1,{PORT}\n  connector: serialdev,{self.link},38400n81,local\n")
        return ["ser2net", "-n", "-c", path]


class Quillon(Gateway):
    name = "quillon"
    flood_frames = 6_000

    def __init__(self, bench, outputs=("RAW",)):
        super().__init__(bench)
        self.outputs, self.database = outputs, None
        if len(outputs) > 1:
            self.name = f"quillon, {' '.join(outputs)}"

    def add_outputs(self, database):
        targets = {"RAW": ("127.0.0.1", PORT), "ERAW": ("127.0.0.1", PORT + 1),
                   "FILE": (f"{self.bench.folder}/frames.log",), "STREAM": (f"{self.bench.folder}/stream",)}
        for kind in self.outputs:
            add_output(database, kind, *targets[kind])

    def start(self, probe):
        daemon = self.bench.new_daemon([self.link])
        self.database = daemon.database
        self.add_outputs(daemon.database)
        daemon.start()
        self.process = daemon.process
        shown = False
        for line in probe.stderr:  # until the greeting has been shown and cleared
            if line.startswith(b"*SET,UI,TEXT,"):
                text = line.strip() != b"*SET,UI,TEXT,"
                if shown and not text:
                    break
                shown = shown or text
        time.sleep(0.7)


def run_probe(bench, gateway, kind, count, more=(), cores=(None, None)):
    """Numbers that the probe prints for this gateway; the two may have a core each."""
    command = [f"{bench.arguments.bin}/quillon-probe", kind, gateway.link, gateway.role, str(PORT), str(count)]
    with only_on(cores[0]):
        probe = subprocess.Popen(command + [str(one) for one in more], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
    probe.stderr.readline()
    try:
        with only_on(cores[1]):
            gateway.start(probe)
        output = probe.communicate(b"\n", timeout=300)[0]
    finally:
        gateway.stop()
        probe.kill()
    if probe.returncode != 0:
        raise RuntimeError(f"{gateway.name}: {kind} failed")
    return [float(line) for line in output.split()]


def probed(bench, *arguments, **named):
    """The same, while the machine's host takes no part in it."""
    return bench.host.undisturbed(lambda: run_probe(bench, *arguments, **named))


def compare(bench):
    """Latency and throughput, the programs taking turns."""
    every = Quillon(bench, ("RAW", "ERAW", "FILE"))
    gateways = [Socat(bench), Ser2net(bench), Quillon(bench)]
    rounds = {gateway.name: [] for gateway in gateways + [every]}
    for number in range(bench.arguments.rounds):
        for gateway in gateways:
            figures = {}
            for where, cores in CORES.items():
                latencies = sorted(probed(bench, gateway, "latency", bench.arguments.samples, cores=cores))
                figures[f"p50, {where}"] = latencies[len(latencies) // 2] / 1000
                figures[f"p99, {where}"] = latencies[len(latencies) * 99 // 100] / 1000
            figures["rate"] = gateway.flood_frames / probed(bench, gateway, "flood", gateway.flood_frames)[0]
            rounds[gateway.name].append(figures)
        rounds[every.name].append({"rate": bench.host.undisturbed(lambda: flood_every_output(bench, every))})
        say(f"round {number + 1}", {name: rounds[name][-1] for name in rounds})
    bench.results["rounds"] = rounds
    bench.results["comparison"] = {
        name: {figure: statistics.median(one[figure] for one in of) for figure in of[0]}
        for name, of in rounds.items()}


def flood_every_output(bench, gateway):
    count = gateway.flood_frames
    seconds, drained = run_probe(bench, gateway, "flood", count, [PORT + 1])
    with open(f"{bench.folder}/frames.log", "rb") as file:
        in_file = file.read().count(b",1200003,")
    if in_file != count or drained < count * 48:
        raise RuntimeError(f"lost frames: {in_file} of {count} in the file, {drained} bytes at ERAW")
    return count / seconds


@contextmanager
def only_on(core):
    """Programs started meanwhile run on this core alone."""
    allowed = os.sched_getaffinity(0)
    if core in allowed:
        os.sched_setaffinity(0, {core})
    try:
        yield
    finally:
        os.sched_setaffinity(0, allowed)
