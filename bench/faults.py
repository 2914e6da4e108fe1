"""What can go wrong around the daemon. A fault runs in a thread of its own; faults of one family never overlap."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

from cloudfaults import CloudFaults
from pubsubfaults import DISK, PubSubFaults
from rig import connect, copy_rows, filled_disk, wait_for

TCP = ("RAW", "ERAW")
ALL = TCP + ("FILE", "GCP", "PUBSUB", "STREAM")
SPEEDS = (1200, 2400, 4800, 9600, 19200, 38400)

RUBBISH = {  # bytes for radiosim's "raw"
    "noise": lambda random: "".join(f"\\x{random.randrange(4, 256):02x}" for _ in range(random.randrange(1, 300))),
    "truncated frame": lambda random: "\\x02*NTF,DPMR,RXVCALL,IND,00473",
    "frame of 60 KiB": lambda random: "\\x02*NTF,DPMR,RXMSG," + random.choice("x,") * 60 * 1024 + "\\x03",
    "NUL bytes": lambda random: "\\x02*NTF,DPMR\\0,RXVCALL\\0\\0,1,2,3\\x03",
    "non-UTF-8 bytes": lambda random: "\\x02*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,\"\\xff\\xfe\\xc3\\x28\\x80\"\\x03",
    "message of 60 KiB":  # which every output gets
        lambda random: "\\x02*NTF,DPMR,RXMSG,IND,0047312,1200003,1,30,GPS,\"" + "x" * 60 * 1024 + "\"\\x03",
    "stray delimiters": lambda random: "\\x03\\x02\\x02\\x03\\x03junk\\x02\\x03",
}


class Faults:
    def __init__(self, soak):
        self.soak, self.random = soak, soak.random
        kinds = {
            "radio": {"unplug mid-frame": self.unplug, "speed change": self.change_speed},
            "rubbish": {kind: lambda kind=kind: self.rubbish(kind) for kind in RUBBISH},
            "cloud": CloudFaults(soak).kinds,
            "database": {"database locked": self.lock, "database deleted": self.delete,
                         "database replaced": self.replace},
            "daemon": {"SIGTERM": lambda: self.restart(signal.SIGTERM),
                       "SIGKILL": lambda: self.restart(signal.SIGKILL)},
        }
        if soak.has_mounts:
            kinds["database"]["database read-only"] = self.make_read_only
            kinds["disk"] = {"disk full": self.fill_disk}
        for output in TCP:
            kinds[output] = {f"{output}: {name}": lambda output=output, way=way: way(output) for name, way in (
                ("closes", self.close), ("resets", self.reset), ("stops reading", self.stall),
                ("absent", self.vanish), ("drops packets", self.drop_packets))}
        self.also_busy = {}  # kind: another family that must not run meanwhile
        self.outlives_daemon = set()  # kinds that a restart does not wait for
        if "PUBSUB" in soak.kinds:
            kinds["pubsub"] = PubSubFaults(soak).kinds
            self.also_busy[DISK] = "database"
            self.outlives_daemon = set(kinds["pubsub"]) - {DISK}
        if "STREAM" in soak.kinds:
            kinds["stream"] = {f"stream clients: {name}": way for name, way in soak.rude.ways.items()}
        chosen = re.compile(soak.arguments.only)
        self.kinds = {family: {kind: fault for kind, fault in of.items() if chosen.search(kind)}
                      for family, of in kinds.items()}

    def pause(self, low, high):
        time.sleep(self.random.uniform(low, high))

    def pick_radio(self):
        ready = [radio for radio in range(len(self.soak.radios.links)) if self.soak.radios.is_ready(radio)]
        return self.random.choice(ready) if ready else None

    # Radios

    def unplug(self):
        radio = self.pick_radio()
        if radio is None:
            return False
        with self.soak.sending[radio]:
            self.soak.radios.command(f"raw:{radio + 1} \\x02*NTF,DPMR,RX")
            self.soak.ledger.cut("unread when the radio was unplugged", ALL, (radio,))
            self.soak.radios.command(f"unplug {radio + 1}")
            self.soak.radios.forget([radio])
        self.pause(0, 4)
        self.soak.radios.command(f"plug {radio + 1}")

    def change_speed(self):
        radio = self.pick_radio()
        if radio is None:
            return False
        with self.soak.sending[radio]:
            close = self.soak.ledger.open_window("radio at another speed", ALL, (radio,))
            speed, self.soak.speeds[radio] = self.soak.speeds[radio], self.random.choice(SPEEDS)
            self.soak.radios.command(f"baud {self.soak.speeds[radio]} {radio + 1}")
        self.pause(1, 4)
        with self.soak.sending[radio]:
            if self.random.random() < 0.5:  # back again, or found at its new speed after a plug is pulled
                self.soak.speeds[radio] = speed
                self.soak.radios.command(f"baud {speed} {radio + 1}")
            else:
                self.soak.radios.command(f"unplug {radio + 1}")
                self.soak.radios.forget([radio])
                self.soak.radios.command(f"plug {radio + 1}")
            close()

    def rubbish(self, kind):
        radio = self.random.randrange(len(self.soak.radios.links))
        answer = self.soak.radios.command(f"raw:{radio + 1} {RUBBISH[kind](self.random)}")
        return answer == "ok"

    # TCP servers

    def _break(self, output, breaking, healing=None, low=3.0, high=8.0):
        sink = self.soak.sinks[output]
        before = self.soak.daemon.connections(sink.port)
        close = self.soak.ledger.open_window("not connected", (output,))
        breaking(sink)
        if healing:
            self.pause(low, high)
            healing(sink)
        # The daemon's word, not the server's: a connection may come when the daemon has just given it up.
        wait_for(lambda: self.soak.daemon.connections(sink.port) > before, 200, f"{output} to connect again")
        close()

    def close(self, output):
        self._break(output, lambda sink: sink.hang_up())

    def reset(self, output):
        self._break(output, lambda sink: sink.hang_up(reset=True))

    def vanish(self, output):
        self._break(output, lambda sink: sink.vanish(), lambda sink: sink.listen())

    def drop_packets(self, output):
        self._break(output, lambda sink: sink.drop_packets(), lambda sink: sink.listen(), 5, 20)

    def stall(self, output):
        sink = self.soak.sinks[output]
        sink.stalled.set()
        for _ in range(2):  # enough to fill the buffers, so that the daemon has to wait
            self.rubbish("message of 60 KiB")
        self.pause(3, 12)
        sink.stalled.clear()

    # Database

    def lock(self):
        with connect(self.soak.database) as other:
            other.execute("BEGIN EXCLUSIVE")
            time.sleep(3)
            other.execute("COMMIT")

    def delete(self):
        os.remove(self.soak.database)
        wait_for(lambda: os.path.exists(self.soak.database), 60, "a new database file")
        time.sleep(1)
        copy_rows(self.soak.template, self.soak.database)

    def replace(self):
        shutil.copyfile(self.soak.template, self.soak.database + ".new")
        os.replace(self.soak.database + ".new", self.soak.database)

    def make_read_only(self):
        """What is opened from now on is. Mounted elsewhere first: the kernel refuses it while a file is written."""
        folder = os.path.dirname(self.soak.database)
        with tempfile.TemporaryDirectory() as other:
            subprocess.run(["mount", "--bind", folder, other], check=True)
            try:
                subprocess.run(["mount", "-o", "remount,bind,ro", other], check=True)
                subprocess.run(["mount", "--bind", other, folder], check=True)
                self.pause(2, 4)
                subprocess.run(["umount", "-l", folder], check=True)
            finally:
                subprocess.run(["umount", "-l", other], check=True)

    # Disk and daemon

    def fill_disk(self):
        close = self.soak.ledger.open_window("disk full", ("FILE",))
        with filled_disk(os.path.dirname(self.soak.file_path)):
            self.pause(2, 5)
        close()

    def restart(self, how):
        self.soak.restart(how)
