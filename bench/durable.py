"""The two outputs for Google Cloud Pub/Sub beside each other, and what the durable one costs."""

import glob
import os
import re
import sqlite3
import statistics
import subprocess
import threading
import time

from cloud import Cloud
from peers import PORT
from pubsub import LazyPubSub, PubSub
from rig import LINE_RATE, Radios, add_output, lines_in, open_paths, say, wait_for, wait_until

AWAY = 0.7  # s that a distant server needs for a request
BACKLOG = {"GCP": 150, "PUBSUB": 12000}  # messages that wait for the server whose rate is measured
MILLION = 1_000_000


class Arrivals:
    """What came at a topic, and when."""

    def __init__(self):
        self.times = []  # one for each message
        self.by_number = {}  # number of a frame: time
        self.frames = 0

    def take(self, frames):
        now = time.monotonic()
        numbers = re.findall(rb",N(\d{6})", frames)
        self.times += [now] * max(1, frames.count(b"*"))
        self.frames += len(numbers)
        for number in numbers:
            self.by_number.setdefault(int(number), now)


def topic_for(kind, arrivals):
    return PubSub(arrivals.take) if kind == "PUBSUB" else Cloud(arrivals.take, lambda frame: None)


def add_topic(database, kind, topic):
    add_output(database, kind, topic.url(), 0, topic.secret(), "topic")


def measure(bench):
    figures = bench.results["durable"] = {}
    for kind in ("GCP", "PUBSUB"):
        figures[f"{kind}: rate"] = flush_rate(bench, kind)
        figures.update({f"{kind}: {name}": value for name, value in local_latency(bench, kind).items()})
        say("durable", figures)
    for where, delay in (("at once", 0), (f"after {AWAY} s", AWAY), ("never", None)):
        figures[f"written, answers {where}"] = bytes_written(bench, delay)
    figures.update(with_a_million(bench))
    say("durable", figures)
    bench.results["load"] = compare_under_load(bench)
    say("load", bench.results["load"])


def flush_rate(bench, kind):
    """Messages per second from a full outbox, or from what is postponed, to a distant server."""
    arrivals = Arrivals()
    topic = topic_for(kind, arrivals)
    topic.token_mode = "500"
    radios, daemon, log = bench.identified_radios(8, lambda database: add_topic(database, kind, topic))
    before = lines_in(log)
    radios.command(f"traffic {LINE_RATE}")
    wait_for(lambda: lines_in(log) >= before + BACKLOG[kind], 120, "a backlog")
    radios.command("traffic 0")
    time.sleep(2)
    topic.delay = (AWAY, AWAY)
    topic.token_mode = "ok"
    number = 900_000
    begin = time.monotonic()
    while len(arrivals.times) < BACKLOG[kind] and time.monotonic() < begin + 180:
        radios.command(f"hear:1 *NTF,DPMR,RXVCALL,IND,0047312,1200003,N{number:06d},30")  # an occasion to begin
        number += 1
        time.sleep(1)
    times = arrivals.times[:]
    daemon.stop()
    radios.close()
    last = min(len(times), BACKLOG[kind]) * 95 // 100
    # From the second request on: the first may hold a single message.
    first = next(index for index, at in enumerate(times) if at > times[0] + AWAY / 2)
    return (last - first) / (times[last] - times[first])


def local_latency(bench, kind):
    """From the frame at the radio to the request at a server on the same machine, in ms."""
    arrivals = Arrivals()
    topic = topic_for(kind, arrivals)
    at_once = Radios(f"{bench.arguments.bin}/quillon-radiosim", bench.folder, baud=38400)  # a line's time would count
    radios, daemon, _ = bench.identified_radios(1, lambda database: add_topic(database, kind, topic), radios=at_once)
    time.sleep(3)
    sent = {}
    begin = time.monotonic()
    for number in range(1, bench.arguments.samples // 4 + 1):
        time.sleep(max(0, begin + number / 10 - time.monotonic()))
        sent[number] = time.monotonic()
        radios.command(f"hear:1 *NTF,DPMR,RXVCALL,IND,0047312,1200003,N{number:06d},30")
    time.sleep(2)
    daemon.stop()
    radios.close()
    latencies = sorted(arrivals.by_number[number] - at for number, at in sent.items() if number in arrivals.by_number)
    if len(latencies) < len(sent):
        raise RuntimeError(f"{kind}: {len(sent) - len(latencies)} of {len(sent)} frames did not come")
    return {"p50": latencies[len(latencies) // 2] * 1000, "p99": latencies[len(latencies) * 99 // 100] * 1000}


def bytes_written(bench, delay):
    """Per message at ten frames a second, as /proc/PID/io counts what a process hands to the disk; None: no answer."""
    arrivals = Arrivals()
    topic = topic_for("PUBSUB", arrivals)
    radios = bench.line_rate_radios(1)
    daemon = bench.new_daemon(radios.links)
    add_topic(daemon.database, "PUBSUB", topic)
    topic.publish_mode = "mute" if delay is None else "ok"
    topic.delay = (delay or 0, delay or 0)
    daemon.start()
    wait_for(radios.all_ready, 120, "identified radios")
    time.sleep(5)
    before, count = daemon.bytes_written(), 10 * bench.arguments.seconds
    begin = time.monotonic()
    for number in range(1, count + 1):
        time.sleep(max(0, begin + number / 10 - time.monotonic()))
        radios.command(f"hear:1 *NTF,DPMR,RXVCALL,IND,0047312,1200003,N{number:06d},30")
    time.sleep(3)
    written = daemon.bytes_written() - before
    topic.publish_mode = "ok"
    daemon.stop()
    radios.close()
    return written / count


def with_a_million(bench):
    """Memory, start and the operator's command beside a full outbox, whose server is away."""
    topic = topic_for("PUBSUB", Arrivals())
    topic.publish_mode = "503"
    radios = bench.line_rate_radios(1)
    daemon = bench.new_daemon(radios.links)
    add_topic(daemon.database, "PUBSUB", topic)
    without = time_to_scan(daemon, radios)
    wait_for(radios.all_ready, 60, "identified radios")
    time.sleep(2)
    daemon.stop()
    fill(daemon.database)
    figures = {"start without": without, "start with": time_to_scan(daemon, radios)}
    time.sleep(20)
    seconds = []
    for _ in range(3):
        begin = time.monotonic()
        subprocess.run([f"{bench.arguments.bin}/quillonctl", "-c", daemon.database, "status"], check=True,
                       stdout=subprocess.DEVNULL)
        seconds.append(time.monotonic() - begin)
    topic.delay, topic.publish_mode = (AWAY, AWAY), "ok"
    time.sleep(bench.arguments.seconds)
    figures |= {"status": statistics.median(seconds), "memory": daemon.status("VmHWM") / 1024}
    daemon.stop()
    radios.close()
    return figures


def time_to_scan(daemon, radios):
    device = os.path.realpath(radios.links[0])
    begin = time.monotonic()
    daemon.start()
    wait_until(lambda: device in open_paths(daemon.process.pid))
    return time.monotonic() - begin


def fill(database):
    """Copies the newest message of the outbox until there are a million."""
    with sqlite3.connect(database) as store:
        store.execute("INSERT INTO system_configuration (name, value) VALUES ('outbox_limit', '4096')")
    outbox, = glob.glob(database.removesuffix(".sqlite") + ".outbox-*.sqlite")
    with sqlite3.connect(outbox) as store:
        last, json = store.execute("SELECT sequence, json FROM message ORDER BY sequence DESC LIMIT 1").fetchone()
        store.execute("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?)"
                      " INSERT INTO message SELECT ? + i, ? FROM n", (MILLION, last, json))
        store.execute("UPDATE state SET reserved = max(reserved, ?), waiting = (SELECT count(*) FROM message)",
                      (last + MILLION + 1,))


def compare_under_load(bench):
    """Without and with PUBSUB in turns; medians, and the frames of all rounds."""
    rounds = {"RAW FILE": [], "RAW FILE PUBSUB": []}
    for _ in range(min(bench.arguments.rounds, 3)):
        for name, of in rounds.items():
            kinds = ("PUBSUB",) if "PUBSUB" in name else ()
            of.append(bench.host.undisturbed(
                lambda kinds=kinds: under_load(bench, kinds),
                lambda figures: any(value for figure, value in figures.items() if figure.startswith("lost"))))
    return {name: {figure: (statistics.median if figure in ("p50", "p99", "core") else sum)(one[figure] for one in of)
                   for figure in of[0]} for name, of in rounds.items()}


def under_load(bench, kinds):
    """Eight radios at line rate for a minute, the probe's being one of them: RAW's latency in µs, and frames lost."""
    arrivals = Arrivals()
    topic = LazyPubSub(arrivals.take)
    topic.delay = (AWAY, AWAY)
    count = LINE_RATE * bench.arguments.seconds
    link = f"{bench.folder}/radio"
    probe = subprocess.Popen([f"{bench.arguments.bin}/quillon-probe", "among", link, "accept", str(PORT), str(count)],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    probe.stderr.readline()
    measured = threading.Event()
    threading.Thread(target=lambda: [measured.set() for line in probe.stderr if line == b"measured\n"],
                     daemon=True).start()

    def add_outputs(database):
        add_output(database, "RAW", "127.0.0.1", PORT)
        for kind in kinds:
            add_topic(database, kind, topic)

    radios, daemon, log = bench.identified_radios(7, add_outputs, [link])
    time.sleep(8)  # the probe's radio has been greeted, too
    radios.command(f"traffic {LINE_RATE}")
    cpu = daemon.cpu_seconds()
    probe.stdin.write(b"\n")
    probe.stdin.flush()
    measured.wait(bench.arguments.seconds + 60)
    cpu = daemon.cpu_seconds() - cpu
    radios.command("traffic 0")
    *latencies, others = [int(line) for line in probe.communicate(timeout=60)[0].split()]
    sent = sum(radios.last_line)
    if kinds:
        wait_until(lambda: topic.catch_up() or arrivals.frames >= sent, 60)
    with open(log, "rb") as file:
        in_file = file.read().count(b",N0")
    daemon.stop()
    radios.close()
    latencies.sort()
    return {"p50": latencies[len(latencies) // 2] / 1000, "p99": latencies[len(latencies) * 99 // 100] / 1000,
            "sent": sent + count, "lost RAW": sent - others, "lost FILE": sent - in_file,
            "lost PUBSUB": sent - arrivals.frames if kinds else 0,
            "core": cpu / bench.arguments.seconds}
