"""What can go wrong between the output PUBSUB and its topic, the outbox's disk included."""

import os
import time

from cloudfaults import SLOW_LINK
from pubsub import NO_ANSWERS, POISON
from rig import filled_disk, wait_for

CATCH_UP = 150  # s; a topic that was not there is tried again after 60
DISK = "outbox's disk full"
MODES = ("mute", "408", "429", "500", "502", "503", "401", "403", "404", "cut", "drip", "taken, not answered",
         *NO_ANSWERS)


class PubSubFaults:
    def __init__(self, soak):
        self.soak, self.topic, self.random = soak, soak.topic, soak.random
        self.kinds = {f"publish: {mode}": lambda mode=mode: self.publish(mode) for mode in MODES}
        self.kinds |= {f"PUBSUB token: {mode}": lambda mode=mode: self.token(mode)
                       for mode in ("401", "403", "500", "rubbish", "slow", "mute", "12 s")}
        self.kinds |= {"publish: 0.5 to 3 s for each": self.slow_link, "publish: server dead": self.dead,
                       "publish: 400 for one message": self.poison}
        if soak.has_mounts:
            self.kinds[DISK] = self.fill_disk

    def pause(self):
        time.sleep(self.random.uniform(3, 15))

    def publish(self, mode):
        self.topic.publish_mode = mode
        self.pause()
        self.topic.publish_mode = "ok"
        self.catch_up()

    def token(self, mode):
        self.topic.token_mode = mode
        self.topic.expire_token()
        self.pause()
        self.topic.token_mode = "ok"
        self.catch_up()

    def slow_link(self):
        self.topic.delay = SLOW_LINK
        time.sleep(self.random.uniform(5, 30))
        self.topic.delay = (0, 0)
        self.catch_up()

    def dead(self):
        self.topic.die()
        self.pause()
        self.topic.rise()
        self.catch_up()

    def poison(self):
        """Alone, and in the middle of a batch."""
        for _ in range(2):
            radio = self.random.randrange(len(self.soak.radios.links))
            self.soak.radios.command(f"hear:{radio + 1} *NTF,DPMR,RXVCALL,IND,0047312,{POISON},1,30")
            self.topic.publish_mode = "503"
            self.pause()
        self.topic.publish_mode = "ok"
        self.catch_up()

    def fill_disk(self):
        """While nothing can be sent, so that messages have nowhere to go but the memory."""
        self.topic.publish_mode = "503"
        time.sleep(1)
        with filled_disk(os.path.dirname(self.soak.database)):
            self.pause()
        time.sleep(5)  # the outbox may be written again
        self.topic.publish_mode = "ok"
        self.catch_up()

    def catch_up(self):
        wait_for(lambda: not self.soak.anyone_ready() or self.soak.ledger.waiting("PUBSUB")[1] > time.monotonic() - 5,
                 CATCH_UP, "what waited to reach the topic")
