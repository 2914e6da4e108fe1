"""What can go wrong between the output GCP and its provider: faults of kind, and of degree."""

import time

from rig import wait_for

SLOW_LINK = (0.5, 3)  # s for each request, from and to
BACKLOG = 2500  # messages; more than such a link takes in the two minutes that a request may rest
BURST = 20.0  # frames per second and radio while a backlog grows
GROWTH = 600  # s that it takes at the most; TCP targets that drop packets hold every radio up meanwhile
CATCH_UP = 240  # s in which what was postponed has to be at the topic once the link is good again


class CloudFaults:
    def __init__(self, soak):
        self.soak, self.cloud, self.random = soak, soak.cloud, soak.random
        self.kinds = {f"token server: {mode}": lambda mode=mode: self.token_server(mode)
                      for mode in ("401", "403", "500", "rubbish", "slow", "mute")}
        self.kinds |= {"token after 12 s": self.late_token, "0.5 to 3 s for each publish": self.slow_link,
                       "backlog over a slow link": self.backlog}

    def token_server(self, mode):
        self.cloud.token_mode = mode
        self.cloud.expire_token()
        time.sleep(self.random.uniform(5, 12))
        self.cloud.token_mode = "ok"
        self.wait_for_token()

    def late_token(self):
        """No token comes sooner, so one of these has to be taken."""
        self.cloud.token_mode = "12 s"
        self.cloud.expire_token()
        try:
            self.wait_for_token()
        finally:
            self.cloud.token_mode = "ok"

    def slow_link(self):
        self.cloud.delay = SLOW_LINK
        time.sleep(self.random.uniform(5, 30))
        self.cloud.delay = (0, 0)
        self.catch_up()

    def backlog(self):
        """Thousands of messages wait for a token and are then flushed at some three a second, new ones behind them."""
        self.cloud.token_mode = "500"
        self.cloud.expire_token()
        self.soak.rate = BURST
        try:
            wait_for(lambda: self.soak.ledger.waiting("GCP")[0] >= BACKLOG, GROWTH, "a backlog")
        finally:
            self.soak.rate = self.soak.RATE
            self.cloud.token_mode = "ok"
        self.cloud.delay = SLOW_LINK
        self.wait_for_token()
        time.sleep(150)
        self.cloud.delay = (0, 0)
        self.catch_up()

    def wait_for_token(self):
        wait_for(lambda: self.cloud.accepted > 0 or not self.soak.anyone_ready(), 120, "a token")
        time.sleep(3)  # what was postponed goes out a second after an accepted message

    def catch_up(self):
        wait_for(lambda: self.soak.ledger.waiting("GCP")[1] > time.monotonic() - 3, CATCH_UP,
                 "what was postponed to reach the topic")
