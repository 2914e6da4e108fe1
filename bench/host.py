"""The host of a virtual machine, which may give the processors to other guests while something is measured."""

import os
import time

from rig import TICKS, say

LIMIT = 0.005  # share of the processors' time that the host may have taken during a measurement
TRIES = 5


class Host:
    def __init__(self):
        self.forget()

    def forget(self):
        self.counts = {"measurements": 0, "repetitions": 0, "disturbed": 0}

    def undisturbed(self, once, is_final=lambda figures: False):
        """What a measurement gives while the host leaves the processors alone, or while it takes least.

        Only the time that it took decides; figures that are final, as those with a loss are, are never thrown away.
        """
        tries = []
        while len(tries) < TRIES:
            begin, before = time.monotonic(), stolen_seconds()
            figures = once()
            share = (stolen_seconds() - before) / (time.monotonic() - begin) / os.cpu_count()
            tries.append((share, figures))
            if share <= LIMIT or is_final(figures):
                break
        if not is_final(figures):
            share, figures = min(tries, key=lambda one: one[0])
        if len(tries) > 1:
            say("host", {"taken": [f"{one[0]:.2%}" for one in tries]})
        self.counts["measurements"] += 1
        self.counts["repetitions"] += len(tries) - 1
        self.counts["disturbed"] += share > LIMIT
        return figures


def stolen_seconds():
    """Of all processors, since the machine was started."""
    with open("/proc/stat", encoding="ascii") as file:
        return int(file.readline().split()[8]) / TICKS
