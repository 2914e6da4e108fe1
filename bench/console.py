"""The console's program, and those who watch its page."""

import http.client
import threading
import time

from rig import Process, free_port


class Console(Process):
    def __init__(self, binary, database, log):
        super().__init__(log)
        self.port = free_port()
        self._command = [binary, "--configfile", database, "--listen", f"127.0.0.1:{self.port}"]

    def start(self):
        self.run(self._command)

    def get(self, path, timeout=20):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        connection.request("GET", path)
        return connection.getresponse()


class Watcher(threading.Thread):
    """Keeps the live list and asks for the state, as an open page does."""

    def __init__(self, console):
        super().__init__(daemon=True)
        self._console = console
        self.records = self.missed = self.states = self.refused = 0
        self.problems = []
        self.is_over = False
        self.start()
        threading.Thread(target=self.ask, daemon=True).start()

    def run(self):
        while True:
            try:
                for line in self._console.get("/api/events", timeout=60):
                    self.records += line.startswith(b"event: record")
                    self.missed += line.startswith(b"event: missed")
            except (OSError, http.client.HTTPException):
                pass
            time.sleep(1)

    def ask(self):
        while not self.is_over:
            time.sleep(2)
            try:
                answer = self._console.get("/api/state")
                answer.read()
                self.states += 1
                self.refused += answer.status != 200  # the file may be locked or gone
            except (OSError, http.client.HTTPException) as error:
                if not self.is_over:
                    self.problems.append(f"/api/state: {error!r}")
