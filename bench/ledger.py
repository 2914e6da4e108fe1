"""Who has seen which frame, and why a missing one is missing."""

import re
import threading
import time
from collections import Counter

TOKEN = re.compile(rb"R(\d\d)N(\d{7})E")  # radio and running number, in every frame of the driver
SLACK = 0.5  # s between what the driver does and what the daemon sees
PROMISE = 1.0  # s after which a durable output has what was heard on the disk or at its server


class Ledger:
    def __init__(self, outputs, durable=()):
        self.outputs, self.durable = outputs, durable
        self.sent = {}  # token: time
        self.heard = {}  # token: time at which the first output had it
        self.received = {output: {} for output in outputs}  # token: time, in the order of coming
        self.doubled = Counter()
        self.disordered = Counter()
        self.largest_gap = Counter()
        self.largest_delay = Counter()
        self.kills = []  # times
        self._missing = {output: {} for output in outputs}  # token: time of sending, oldest first
        self._last_number = {}
        self._last_time = {}
        self._windows = []  # (cause, outputs, radios, start, end); end is None while it is open
        self._excused = {output: {} for output in outputs}  # token: cause
        self._pending = {}  # sent and at no output yet, oldest first
        self._lock = threading.RLock()

    def frame(self, radio, number):
        return b"R%02dN%07dE" % (radio, number)

    def add_sent(self, radio, number):
        token = (radio, number)
        with self._lock:
            self.sent[token] = self._pending[token] = now = time.monotonic()
            for missing in self._missing.values():
                missing[token] = now

    def unsend(self, radio, number):
        """The radio had no listener: the frame never left it."""
        with self._lock:
            for tokens in (self.sent, self._pending, *self._missing.values()):
                tokens.pop((radio, number), None)

    def add_received(self, output, data):
        """Takes in what came at an output; returns where the last token ended."""
        now, end = time.monotonic(), 0
        with self._lock:
            for match in TOKEN.finditer(data):
                end = match.end()
                self._add_token(output, (int(match[1]), int(match[2])), now)
        return end

    def _add_token(self, output, token, now):
        seen = self.received[output]
        if token in seen:
            self.doubled[output] += 1
            return
        seen[token] = now
        self.heard.setdefault(token, now)
        self._missing[output].pop(token, None)
        radio, number = token
        if number < self._last_number.get((output, radio), 0):
            self.disordered[output] += 1
        self._last_number[output, radio] = number
        self.largest_delay[output] = max(self.largest_delay[output], now - self.sent.get(token, now))
        self.largest_gap[output] = max(self.largest_gap[output], now - self._last_time.get(output, now))
        self._last_time[output] = now
        self._pending.pop(token, None)

    def backlog_since(self):
        """When the oldest frame was sent that is at no output yet: the daemon may be in a blocking wait."""
        with self._lock:
            now = time.monotonic()
            for token, at in list(self._pending.items()):
                if all(self._cause(output, token, at) for output in self.outputs):
                    del self._pending[token]
                else:
                    return min(at, now)
            return now

    def waiting(self, output, age=float("inf")):
        """How many frames that were heard in the last seconds this one may still get, and when the oldest was sent."""
        with self._lock:
            count, now = 0, time.monotonic()
            since = now
            for token, at in list(self._missing[output].items()):
                if self.heard.get(token, 0) < now - age or token not in self.heard:
                    continue
                if self._cause(output, token, at):
                    del self._missing[output][token]
                else:
                    count, since = count + 1, min(since, at)
            return count, since

    def open_window(self, cause, outputs, radios=None, since=None):
        """From now on, losses at these outputs have a cause; returns a function that ends the window."""
        window = [cause, outputs, radios, min(since or time.monotonic(), self.backlog_since()) - SLACK, None]
        with self._lock:
            self._windows.append(window)

        def close():
            window[4] = time.monotonic() + SLACK
        return close

    def cut(self, cause, outputs, radios=None):
        """What is on its way at this moment is lost."""
        self.open_window(cause, outputs, radios)()

    def excuse(self, output, data, cause):
        with self._lock:
            for match in TOKEN.finditer(data):
                self._excused[output][int(match[1]), int(match[2])] = cause

    def _cause(self, output, token, at):
        if output in self.durable and token in self.heard:
            # Whatever else happened: nothing excuses a loss but an end without notice right after the hearing.
            killed = any(kill - PROMISE < self.heard[token] <= kill + PROMISE for kill in self.kills)
            return "heard in the second before SIGKILL" if killed else None
        if token in self._excused[output]:
            return self._excused[output][token]
        for cause, outputs, radios, start, end in self._windows:
            if output in outputs and start <= at and (end is None or at <= end) \
                    and (radios is None or token[0] in radios):
                return cause
        return None

    def judge(self, output):
        """Counts missing frames by cause; the cause None is a loss that nothing explains."""
        causes, unexplained = Counter(), []
        for token, at in self.sent.items():
            if token not in self.received[output]:
                cause = self._cause(output, token, at)
                causes[cause] += 1
                if cause is None:
                    unexplained.append(token)
        return causes, unexplained
