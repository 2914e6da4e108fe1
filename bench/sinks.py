"""The other ends of the TCP outputs and of the file, which can be made to fail."""

import fcntl
import os
import socket
import struct
import termios
import threading
import time


class TcpSink:
    """A TCP server for one connection at a time, on a port that it keeps over its failures."""

    def __init__(self, take):
        self._take = take  # gets the bytes of a connection so far, returns how many it is done with
        self.stalled = threading.Event()
        self._listener = self._client = None
        self._fillers = []
        self.port = 0
        self.listen()

    def listen(self):
        self._drop_listener()
        self._listener = self._bound(16)
        threading.Thread(target=self._serve, args=(self._listener,), daemon=True).start()

    def _bound(self, backlog):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
        listener.bind(("127.0.0.1", self.port))
        self.port = listener.getsockname()[1]
        listener.listen(backlog)
        return listener

    def _serve(self, listener):
        while True:
            try:
                client = listener.accept()[0]
            except OSError:
                return
            self._client = client
            self._read(client)

    def _read(self, client):
        data = b""
        while True:
            while self.stalled.is_set():
                time.sleep(0.02)
            try:
                received = client.recv(65536)
            except OSError:
                return
            if not received:
                client.close()
                return
            data += received
            data = data[max(self._take(data), len(data) - 16):]

    def _read_out(self, client):
        """What was sent before is read first, however busy the machine is."""
        quiet, end = 0, time.monotonic() + 5
        while quiet < 10 and time.monotonic() < end and not self.stalled.is_set():
            unread = fcntl.ioctl(client, termios.FIONREAD, bytes(4))
            quiet = 0 if any(unread) else quiet + 1
            time.sleep(0.02)

    def hang_up(self, reset=False):
        client = self._client
        if client is None:
            return
        try:
            self._read_out(client)
            if reset:
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            client.shutdown(socket.SHUT_RDWR) if not reset else None
            client.close()
        except OSError:
            pass

    def _drop_listener(self):
        for filler in self._fillers:
            filler.close()
        self._fillers = []
        if self._listener:
            try:
                self._listener.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            self._listener.close()
            self._listener = None

    def vanish(self):
        """Nobody listens any more."""
        self._drop_listener()
        self.hang_up()

    def drop_packets(self):
        """The port is there, and its full backlog makes the kernel drop every further SYN."""
        self.vanish()
        self._listener = self._bound(0)
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(("127.0.0.1", self.port))
            self._fillers.append(filler)


class FileTail(threading.Thread):
    """Follows the file output; the daemon cuts off what a full disk took in part."""

    def __init__(self, path, take):
        super().__init__(daemon=True)
        self._path, self._take = path, take
        self._position, self._rest = 0, b""
        self._lock = threading.Lock()
        self.start()

    def run(self):
        while True:
            self.read()
            time.sleep(0.01)

    def read(self):
        with self._lock:
            try:
                with open(self._path, "rb") as file:
                    size = os.fstat(file.fileno()).st_size
                    if size < self._position:
                        self._position, self._rest = size, b""
                    file.seek(self._position)
                    new = file.read()
            except FileNotFoundError:
                return
            if new:
                self._position += len(new)
                data = self._rest + new
                self._rest = data[max(self._take(data), len(data) - 16):]

    def rewind(self):
        """The next start of the daemon begins the file anew."""
        self.read()
        with self._lock:
            if os.path.exists(self._path):
                os.truncate(self._path, 0)
            self._position, self._rest = 0, b""
