"""A Pub/Sub topic on loopback that keeps to the REST reference, until it is made to fail."""

import base64
import hashlib
import json
import os
import random
import socket
import threading
import time

from cloud import Cloud, CloudRequest
from ledger import TOKEN

LIFE = 60  # s that a token is good
POISON = "POISON"  # a batch with a message that says so is refused as a whole
LARGEST = 1024 * 1024  # bytes of a request
MOST = 500  # messages of a request
ATTRIBUTES = {"outbox", "sequence", "gateway", "port", "trx"}
FIELDS = {"port", "portDesc", "radioBand", "radioModel", "trx", "rawData", "transmissionDate", "source",
          "owner_email", "owner_dept"}
STATUS = {400: "INVALID_ARGUMENT", 401: "UNAUTHENTICATED", 403: "PERMISSION_DENIED", 404: "NOT_FOUND",
          408: "DEADLINE_EXCEEDED", 429: "RESOURCE_EXHAUSTED", 500: "INTERNAL", 503: "UNAVAILABLE"}
NO_ANSWERS = {  # with status 200, yet not what a topic answers
    "empty": lambda count: b"",
    "a page": lambda count: b"<html>Log in to this network</html>",
    "an empty object": lambda count: b"{}",
    "too few ids": lambda count: json.dumps({"messageIds": ["1"] * (count - 1)}).encode(),
    "noise": lambda count: os.urandom(200),
}


class Messages:
    """What came at the topic, held against what a message has to be."""

    def __init__(self):
        self.problems = []
        self.count = self.doubled = 0
        self._digests = {}  # (outbox, sequence): of data and attributes
        self._places = {}  # token of a frame: (outbox, sequence)
        self._lock = threading.Lock()

    def parse(self, body):
        """The messages of a request as (outbox, sequence, raw data); anything not as it has to be is a problem."""
        if len(body) > LARGEST:
            self.problems.append(f"a request of {len(body)} bytes")
        document = json.loads(body)
        if set(document) != {"messages"} or not 1 <= len(document["messages"]) <= MOST:
            raise ValueError(f"members {sorted(document)}, {len(document.get('messages', []))} messages")
        return [self._parse_message(message) for message in document["messages"]]

    def _parse_message(self, message):
        attributes = message["attributes"]
        fields = json.loads(base64.b64decode(message["data"], validate=True))
        if set(message) != {"data", "attributes"} or set(attributes) != ATTRIBUTES or set(fields) != FIELDS:
            raise ValueError(f"{sorted(message)}, {sorted(attributes)}, {sorted(fields)}")
        if not all(isinstance(value, str) for value in attributes.values()) or int(attributes["sequence"]) < 1:
            raise ValueError(f"attributes {attributes}")
        if (attributes["port"], attributes["trx"]) != (fields["port"], fields["trx"]):
            raise ValueError(f"attributes {attributes} beside {fields}")
        digest = hashlib.sha1(json.dumps(message, sort_keys=True).encode()).digest()
        return attributes["outbox"], int(attributes["sequence"]), fields["rawData"].encode(), digest

    def take(self, messages):
        with self._lock:
            for outbox, sequence, raw, digest in messages:
                self.count += 1
                known = self._digests.setdefault((outbox, sequence), digest)
                self.doubled += known is not digest and known == digest
                if known != digest:
                    self.problems.append(f"sequence {sequence} of {outbox} was used twice")
                for match in TOKEN.finditer(raw):
                    token = int(match[1]), int(match[2])
                    if self._places.setdefault(token, (outbox, sequence)) != (outbox, sequence):
                        self.problems.append(f"frame {token} came under {self._places[token]} and {outbox, sequence}")

    def misplaced(self, order):
        """Frames that have a smaller sequence number than one that was heard before them."""
        with self._lock:
            by_outbox = {}
            for token in order:
                if token in self._places:
                    outbox, sequence = self._places[token]
                    by_outbox.setdefault(outbox, []).append((sequence, token))
        return [later[1] for heard in by_outbox.values() for earlier, later in zip(heard, heard[1:])
                if later[0] <= earlier[0]]

    def outboxes(self):
        return {outbox for outbox, _ in self._digests}


class PubSub(Cloud):
    """For the output PUBSUB."""

    def __init__(self, take):
        self.messages = Messages()
        self.publish_mode = "ok"
        self.answers = {}  # code: how often
        self._tokens = {}  # token: until when
        self._clients = set()
        super().__init__(take, None, PubSubRequest)

    def token(self):
        token = f"p{self.generation}-{random.getrandbits(32)}"
        self._tokens[token] = time.monotonic() + LIFE
        return {"access_token": token, "expires_in": LIFE, "token_type": "Bearer"}

    def is_good(self, token):
        return self._tokens.get(token, 0) > time.monotonic()

    def expire_token(self):
        self._tokens.clear()

    def get_request(self):
        client = super().get_request()
        self._clients.add(client[0])
        return client

    def shutdown_request(self, request):
        self._clients.discard(request)
        super().shutdown_request(request)

    def die(self):
        """Nobody listens any more, and every connection breaks."""
        self.shutdown()
        self.server_close()
        for client in list(self._clients):
            try:
                client.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def rise(self):
        address = self.server_address
        self.socket = socket.socket(self.address_family, self.socket_type)
        self.server_address = address
        self.server_bind()
        self.server_activate()
        threading.Thread(target=self.serve_forever, args=(0.1,), daemon=True).start()


class LazyPubSub(PubSub):
    """Reads its messages when all is over, so that it does not take the machine from what is measured meanwhile."""

    def __init__(self, take):
        super().__init__(take)
        self.RequestHandlerClass = LazyRequest
        self._bodies = []

    def keep(self, body):
        self._bodies.append(body)

    def catch_up(self):
        while self._bodies:
            messages = self.messages.parse(self._bodies.pop(0))
            self.messages.take(messages)
            self.take(b"".join(message[2] for message in messages))


class LazyRequest(CloudRequest):
    def answer_publish(self, body):
        self.server.keep(body)
        time.sleep(random.uniform(*self.server.delay))
        self.reply(200, json.dumps({"messageIds": ["1"] * body.count(b'"attributes":')}).encode())


class PubSubRequest(CloudRequest):
    def answer_publish(self, body):
        server, mode = self.server, self.server.publish_mode
        if self.path != "/v1/projects/soak/topics/topic:publish" or self.headers["Content-Type"] != "application/json":
            server.messages.problems.append(f"{self.path} with {self.headers['Content-Type']}")
        try:
            messages = server.messages.parse(body)
        except (ValueError, KeyError, TypeError) as error:
            server.messages.problems.append(f"a request that is no publish request: {error}: {body[:300]}")
            self.refuse(400, "not a publish request")
            return
        if not self.bears_good_token():
            self.refuse(401, "the token has expired")
        elif mode in ("408", "429", "500", "502", "503", "401", "403", "404"):
            self.refuse(int(mode), f"made to answer {mode}")
        elif mode in NO_ANSWERS:
            self.reply(200, NO_ANSWERS[mode](len(messages)))
        elif mode == "mute":
            self.wait_for_other_mode()
        elif mode == "cut":
            self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n{\"messageIds\":[")
            self.close_connection = True
        elif any(POISON.encode() in message[2] for message in messages):
            self.refuse(400, "a message that this topic does not take")
        else:
            self.accept(messages, mode)

    def accept(self, messages, mode):
        self.server.messages.take(messages)
        self.server.take(b"".join(message[2] for message in messages))
        answer = json.dumps({"messageIds": [str(random.getrandbits(48)) for _ in messages]}).encode()
        if mode == "taken, not answered":
            self.close_connection = True
        elif mode == "drip":
            self.drip(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(answer) + answer)
        else:
            time.sleep(random.uniform(*self.server.delay))
            self.server.accepted += 1
            self.reply(200, answer)

    def refuse(self, code, reason):
        self.server.answers[code] = self.server.answers.get(code, 0) + 1
        body = json.dumps({"error": {"code": code, "message": reason, "status": STATUS.get(code, "UNKNOWN")}})
        self.reply(code, body.encode(), [("Retry-After", "2")] if code in (429, 503) else [])

    def wait_for_other_mode(self):
        mode = self.server.publish_mode
        while self.server.publish_mode == mode:
            time.sleep(0.1)
        self.close_connection = True

    def drip(self, answer):
        """A byte at a time for some seconds, then the rest."""
        for start in range(40):
            self.wfile.write(answer[start:start + 1])
            time.sleep(0.1)
        self.wfile.write(answer[40:])
