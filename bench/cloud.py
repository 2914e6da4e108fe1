"""A cloud provider's token endpoint and topic on loopback, which can be made to fail or to be slow."""

import base64
import json
import os
import random
import socket
import subprocess
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


class Cloud(ThreadingHTTPServer):
    """For the output GCP. A token is good until it is made to expire."""

    daemon_threads = True
    request_queue_size = 128

    def __init__(self, take, refuse, request=None):
        super().__init__(("127.0.0.1", 0), request or CloudRequest)
        self.take, self.refuse = take, refuse
        self.token_mode = "ok"
        self.delay = (0, 0)  # s that an answer to a publish takes, between
        self.generation = 1
        self.accepted = 0  # publishes with the token of this generation
        threading.Thread(target=self.serve_forever, args=(0.1,), daemon=True).start()

    def handle_error(self, request, client_address):
        pass  # the daemon may end at any time

    def expire_token(self):
        self.generation += 1
        self.accepted = 0

    def token(self):
        return {"access_token": f"t{self.generation}"}

    def is_good(self, token):
        return token == f"t{self.generation}"

    def secret(self):
        key = subprocess.run(["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"],
                             check=True, capture_output=True, text=True).stdout
        document = {"type": "service_account", "project_id": "soak", "private_key_id": "k", "private_key": key,
                    "client_email": "a@example.org", "token_uri": f"{self.url()}/token"}
        return base64.b64encode(json.dumps(document).encode()).decode()

    def url(self):
        return f"http://127.0.0.1:{self.server_address[1]}"


class CloudRequest(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def log_message(self, *_):
        pass

    def do_POST(self):
        # Over TLS a request is one segment. Without, its body comes only when its header is acknowledged.
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
        length = int(self.headers["Content-Length"])
        body = self.rfile.read(length)
        if len(body) < length:
            self.close_connection = True  # the daemon has ended
        elif self.path == "/token":
            self.answer_token(self.server.token_mode)
        else:
            self.answer_publish(body)

    def answer_token(self, mode):
        if mode in ("401", "403", "500"):
            self.reply(int(mode), b"{}")
        elif mode == "rubbish":
            self.reply(200, b"\x00<html>" + os.urandom(300))
        elif mode == "mute":
            time.sleep(15)
            self.close_connection = True
        else:
            time.sleep({"slow": 4, "12 s": 12}.get(mode, 0))
            self.reply(200, json.dumps(self.server.token()).encode())

    def bears_good_token(self):
        kind, _, token = self.headers.get("Authorization", "").partition(" ")
        return kind == "Bearer" and self.server.is_good(token)

    def answer_publish(self, body):
        text = body.split(b"'data':'")[1].split(b"'")[0]
        message = json.loads(base64.urlsafe_b64decode(text + b"=" * (-len(text) % 4)))
        frame = message["rawData"].encode()
        if not self.bears_good_token():
            self.server.refuse(frame)
            self.reply(401, b"{}")
            return
        self.server.take(frame)
        self.server.accepted += 1
        time.sleep(random.uniform(*self.server.delay))
        self.reply(200, b"{}")

    def reply(self, code, body, headers=()):
        self.send_response(code)
        self.send_header("Content-Length", str(len(body)))
        for name, value in headers:
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)
