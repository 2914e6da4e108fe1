"""The output STREAM: its latency beside RAW's, many clients, and one that stops reading."""

import statistics
import subprocess
import time

from peers import Quillon, probed
from rig import LINE_RATE, add_output, lines_in, say, wait_until

CLIENTS = 64
WARM_UP = 4500  # frames, after which more than its megabyte waits for a client that reads nothing


class Streaming(Quillon):
    """The daemon with RAW and STREAM, and perhaps with a client of the stream beside the probe."""

    def __init__(self, bench, outputs=("RAW", "STREAM"), client=()):
        super().__init__(bench, outputs)
        self.path = f"{bench.folder}/stream"
        self.client, self.client_process = client, None

    def start(self, probe):
        super().start(probe)
        if self.client:
            self.client_process = start_clients(self.bench, self.client[0], self.path, *self.client[1:])

    def stop(self):
        super().stop()
        if self.client_process:
            self.client_process.kill()
            self.client_process.wait()


def start_clients(bench, kind, path, *count):
    client = subprocess.Popen([f"{bench.arguments.bin}/quillon-probe", kind, path, *count], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    client.stderr.readline()
    return client


def measure(bench):
    figures = bench.results["stream"] = {"beside": {}}
    for order in (("RAW", "STREAM"), ("STREAM", "RAW")):
        figures["beside"][" before ".join(order)] = median_of(bench, lambda order=order: beside(bench, order))
    figures["stuck"] = median_of(bench, lambda: stuck(bench))
    figures["clients"] = [
        bench.host.undisturbed(lambda count=count: many_clients(bench, count), lambda result: result["lost"])
        for count in (0, 1, CLIENTS)]
    say("stream", figures)


def median_of(bench, once):
    rounds = [once() for _ in range(bench.arguments.rounds)]
    say("stream", rounds)
    return {name: statistics.median(one[name] for one in rounds) for name in rounds[0]}


def quantiles(name, latencies):
    """In µs."""
    latencies = sorted(latencies)
    return {f"{name} p50": latencies[len(latencies) // 2] / 1000,
            f"{name} p99": latencies[len(latencies) * 99 // 100] / 1000}


def beside(bench, order):
    """Both latencies of the same frames."""
    gateway = Streaming(bench, order)
    numbers = probed(bench, gateway, "beside", bench.arguments.samples, [gateway.path])
    return quantiles("RAW", numbers[::2]) | quantiles("STREAM", numbers[1::2])


def stuck(bench):
    """RAW's latency beside a client that reads and beside one that has stopped."""
    figures = {}
    for name, client in (("reads", ("clients", "1")), ("stopped", ("stuck",))):
        numbers = probed(bench, Streaming(bench, client=client), "latency", WARM_UP + bench.arguments.samples)
        figures |= quantiles(name, numbers[WARM_UP:])
    return figures


def many_clients(bench, count):
    """Eight radios at line rate, and what it costs that so many listen."""
    path = f"{bench.folder}/stream"
    radios, daemon, log = bench.identified_radios(8, lambda database: add_output(database, "STREAM", path))
    clients = start_clients(bench, "clients", path, str(count))
    time.sleep(2)
    before, cpu = lines_in(log), daemon.cpu_seconds()
    radios.command(f"traffic {LINE_RATE}")
    time.sleep(bench.arguments.seconds)
    cpu = daemon.cpu_seconds() - cpu
    radios.command("traffic 0")
    sent = sum(radios.last_line)
    wait_until(lambda: lines_in(log) - before >= sent, 30)
    time.sleep(1)
    pairs = [line.split() for line in clients.communicate(b"\n", timeout=30)[0].splitlines()]
    result = {"clients": count, "sent": sent, "lost": sum(sent - int(frames) for frames, _ in pairs),
              "gaps": sum(int(gaps) for _, gaps in pairs), "core": cpu / bench.arguments.seconds,
              "rss": daemon.status("VmRSS") / 1024}
    daemon.stop()
    radios.close()
    say("stream", result)
    return result
