#!/usr/bin/env python3
"""Runs the daemon on two simulated radios and tells what happens; started by scripts/demo."""

import argparse
import base64
import http.server
import json
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

RADIOS = {"slow-radio": (4800, "37980001"), "fast-radio": (19200, "28940002")}
FIRST_SCAN = 5.0  # seconds after the daemon's start
EMULATOR_PACKAGE = "google-cloud-cli-pubsub-emulator"

started = time.monotonic()
printing = threading.Lock()


def say(who, text):
    with printing:
        print(f"{time.monotonic() - started:6.1f} s  {who:<11} {text}", flush=True)


class Programs:
    """The child processes; all end with the demonstration."""

    def __init__(self, folder):
        self.folder = folder
        self.running = []

    def start(self, arguments, on_line=None, **options):
        process = subprocess.Popen([str(a) for a in arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   text=True, errors="replace", **options)
        self.running.append(process)

        def read():
            for line in process.stdout:
                if on_line:
                    on_line(line.rstrip("\n"))

        threading.Thread(target=read, daemon=True).start()
        return process

    def end(self):
        for process in reversed(self.running):
            process.terminate()
        for process in self.running:
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()


class Radio:
    """A simulated radio, with what it tells of itself."""

    def __init__(self, name, programs, tools):
        self.name = name
        self.baud, self.esn = RADIOS[name]
        self.link = programs.folder / name
        self.identified_after = None
        self.scanned_at = None
        programs.start([tools / "quillon-radiosim", "--link", self.link, "--baud", self.baud, "--esn", self.esn,
                        "--comment1", "demo", "--traffic", "0.5"], self.tell)

    def tell(self, line):
        text = line.split(": ", 1)[-1]
        if text.startswith("display ["):
            say(self.name, "shows " + text.removeprefix("display "))
        elif text == "received *GET,INFO,ESN" and self.identified_after is None:
            self.identified_after = time.monotonic() - self.scanned_at
            say(self.name, f"was found at {self.baud} bit/s, {self.identified_after:.1f} s after the first scan of "
                           f"its port, and tells its ESN {self.esn}")


class Watcher:
    """quillonctl watch: shows its lines and counts the frames of each radio."""

    def __init__(self, programs, control):
        self.frames = {name: 0 for name in RADIOS}
        programs.start(control + ["watch"], self.tell)

    def tell(self, line):
        say("watch", line)
        columns = line.split()
        if columns[2:3] == ["heard"] and columns[1] in self.frames:
            self.frames[columns[1]] += 1


class PubSub:
    """The Pub/Sub emulator with a topic and a subscription, and a token server that trusts everybody."""

    def __init__(self, jar, programs):
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        self.url = f"http://127.0.0.1:{port}"
        self.pulled = 0
        ready = threading.Event()
        programs.start(["java", "-jar", jar, "--host=127.0.0.1", f"--port={port}"],
                       lambda line: ready.set() if "Server started" in line else None, cwd=programs.folder)
        if not ready.wait(20):
            raise RuntimeError("the Pub/Sub emulator did not start")
        self.call("PUT", "topics/demo", {})
        self.call("PUT", "subscriptions/demo", {"topic": "projects/demo/topics/demo"})

        class TokenServer(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                self.rfile.read(int(self.headers["Content-Length"]))
                self.send_response(200)
                self.end_headers()
                self.wfile.write(b'{"access_token":"demo"}')

            def log_message(self, *_):
                pass

        tokens = http.server.ThreadingHTTPServer(("127.0.0.1", 0), TokenServer)
        threading.Thread(target=tokens.serve_forever, daemon=True).start()
        key = subprocess.run(["openssl", "genpkey", "-algorithm", "RSA"], capture_output=True, text=True, check=True)
        self.credential = programs.folder / "credential.json"
        self.credential.write_text(json.dumps({
            "project_id": "demo", "private_key_id": "1", "private_key": key.stdout,
            "client_email": "demo@example.org", "token_uri": f"http://127.0.0.1:{tokens.server_port}/token"}))
        threading.Thread(target=self.pull, daemon=True).start()

    def call(self, verb, path, body):
        request = urllib.request.Request(f"{self.url}/v1/projects/demo/{path}", json.dumps(body).encode(),
                                         {"Content-Type": "application/json"}, method=verb)
        with urllib.request.urlopen(request, timeout=10) as answer:
            return json.load(answer)

    def pull(self):
        while True:
            time.sleep(1)
            try:
                answer = self.call("POST", "subscriptions/demo:pull", {"maxMessages": 100, "returnImmediately": True})
            except OSError:
                return
            received = answer.get("receivedMessages", [])
            for entry in received:
                fields = json.loads(base64.b64decode(entry["message"]["data"]))
                self.pulled += 1
                if self.pulled <= 3:
                    say("pub/sub", "delivers " + json.dumps(fields, ensure_ascii=False))
            if received:
                self.call("POST", "subscriptions/demo:acknowledge", {"ackIds": [e["ackId"] for e in received]})


def emulator_jar():
    files = subprocess.run(["dpkg", "-L", EMULATOR_PACKAGE], capture_output=True, text=True, check=False).stdout
    return next((line for line in files.splitlines() if line.endswith("-all.jar")), None)


def make_database(database, control, tools, stream, log_file, pubsub):
    daemon = subprocess.Popen([tools / "quillon", "--configfile", database], stderr=subprocess.DEVNULL)
    while subprocess.run(control + ["pending", "list"], capture_output=True, check=False).returncode != 0:
        time.sleep(0.1)
    daemon.terminate()
    daemon.wait()
    commands = [["forwarder", "remove", "1"],  # the cloud output that every new database has
                ["forwarder", "add", "stream", str(stream)],
                ["forwarder", "add", "file", str(log_file)]]
    if pubsub:
        commands.append(["forwarder", "add", "gcp", str(pubsub.credential), "--topic", "demo", "--endpoint", pubsub.url])
    for command in commands:
        subprocess.run(control + command, check=True, capture_output=True)


def main():
    parser = argparse.ArgumentParser(description="The daemon at work with two simulated radios.")
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="folder of the built programs")
    parser.add_argument("--seconds", type=float, default=None if sys.stdin.isatty() else 60,
                        help="end after that time; code 0 if both radios were heard (60 without a terminal)")
    arguments = parser.parse_args()
    tools = arguments.bin.resolve()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    with tempfile.TemporaryDirectory(prefix="quillon-demo-") as name:
        folder = pathlib.Path(name)
        programs = Programs(folder)
        try:
            return run(arguments.seconds, folder, programs, tools)
        except KeyboardInterrupt:
            return 0
        finally:
            programs.end()


def start_console(programs, tools, database):
    """Starts the console on any free port; yields the page's address."""
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    programs.start([tools / "quillon-console", "--configfile", database, "--listen", f"127.0.0.1:{port}"])
    return f"http://127.0.0.1:{port}/"


def run(seconds, folder, programs, tools):
    database, log_file, stream = folder / "quillon.sqlite", folder / "frames.log", folder / "stream"
    control = [str(tools / "quillonctl"), "--configfile", str(database)]
    jar = emulator_jar()
    pubsub = PubSub(jar, programs) if jar else None
    say("demo", f"everything is in {folder}")
    say("demo", f"programs may join a stream, frames also go to {log_file.name}"
        + (", and to the Pub/Sub emulator" if pubsub else f" (no Pub/Sub: {EMULATOR_PACKAGE} is not installed)"))
    make_database(database, control, tools, stream, log_file, pubsub)

    radios = [Radio(name, programs, tools) for name in RADIOS]
    while not all(radio.link.exists() for radio in radios):
        time.sleep(0.05)
    for radio in radios:
        device = radio.link.resolve()
        subprocess.run(control + ["radio", "add", str(device), "--name", radio.name], check=True, capture_output=True)
        radio.scanned_at = time.monotonic() + FIRST_SCAN
        say("demo", f"{radio.name} is plugged in at {device}: {radio.baud} bit/s, which the daemon has to work out")
    say("demo", "quillonctl watch")
    watcher = Watcher(programs, control)
    programs.start([tools / "quillon", "--configfile", database])
    say("demo", f"the daemon starts; its first scan comes after {FIRST_SCAN:.0f} s")

    page = start_console(programs, tools, database)
    say("demo", f"the console shows all of it at {page}")

    begin, said = time.monotonic(), False
    while seconds is None or time.monotonic() - begin < seconds:
        time.sleep(0.2)
        if not said and time.monotonic() - begin > 22:
            said = True
            say("demo", "quillonctl say \"Hello all\"")
            subprocess.run(control + ["say", "Hello all"], check=True, capture_output=True)
    return summary(radios, watcher, log_file, pubsub, control)


def summary(radios, watcher, log_file, pubsub, control):
    print("\n" + subprocess.run(control + ["status"], capture_output=True, text=True, check=False).stdout)
    lines = log_file.read_bytes().count(b"\n")
    print(f"frames that were watched: {watcher.frames}; lines in the file: {lines}"
          + (f"; messages pulled from Pub/Sub: {pubsub.pulled}" if pubsub else ""))
    passed = all(watcher.frames.values()) and all(radio.identified_after is not None for radio in radios)
    print("demo: frames arrived from both radios" if passed else "demo: not both radios were heard")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
