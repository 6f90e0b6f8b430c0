"""What was answered 202 reaches a listener that comes back later, however often the server is killed in between.
VELMORA_KILLS says how often that is; a few times where it says nothing."""

import http.client
import json
import os
import random
import signal
import threading
import unittest

from support import Listener, Server, event, until


class Refusing(Listener):
    """Takes few calls at first, and counts what it takes."""

    def __init__(self):
        super().__init__()
        self.taken, self.refusing = {}, True

    def answer(self, _path, body):
        if self.refusing and random.random() < 0.7:
            return 503, {}
        number = json.loads(body)["post_data"]["n"]
        self.taken[number] = self.taken.get(number, 0) + 1
        return 200, {}


class KillTest(unittest.TestCase):
    def setUp(self):
        self.listener = Refusing()
        self.addCleanup(self.listener.close)
        callback = self.listener.url + "/hook"
        self.server = Server({"Log": {"Level": "crit"}, "Deliveries": {"Journal": "deliveries.db"},
                              "Destinations": [{"Match": callback, "Attempts": 100, "Backoff_ms": 20, "Timeout_ms": 2000}],
                              "EventManager": {"event_list": [event("e", callback)]}})
        self.addCleanup(self.server.close)
        self.answered, self.number = set(), 0

    def post_until_killed(self):
        killer = threading.Timer(random.uniform(0, 0.15), self.server.end, [signal.SIGKILL])
        killer.start()
        try:
            while True:
                self.number += 1
                if self.server.ask("POST", "/events/e", {"n": self.number})[0] == 202:
                    self.answered.add(self.number)
        except (OSError, http.client.HTTPException):
            pass
        killer.join()

    def test_no_posting_that_was_answered_is_lost(self):
        kills = int(os.environ.get("VELMORA_KILLS", "6"))
        for _ in range(kills):
            self.post_until_killed()
            self.server.start()
        self.listener.refusing = False
        until(lambda: self.answered <= self.listener.taken.keys())
        self.assertGreater(len(self.answered), 0)
        self.assertEqual(self.server.end(), 0)
        twice = sum(1 for number in self.answered if self.listener.taken[number] > 1)
        print("%d kills, %d postings answered, none lost, %d taken more than once" % (kills, len(self.answered), twice))


if __name__ == "__main__":
    unittest.main()
