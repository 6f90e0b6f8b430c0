"""The client library for Python against a real server."""

import asyncio
import os
import pathlib
import random
import sys
import threading
import unittest

import support

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "clients"))
from velmora_client import Client, VelmoraError  # noqa: E402

try:
    import websockets  # noqa: F401
    HAS_WEBSOCKETS = True
except ImportError:
    HAS_WEBSOCKETS = False

TOKEN = "a-token-of-the-test"


class Requests(support.ServerCase):
    configuration = {"AccessToken": TOKEN, "EventManager": {"event_list": [{"event_name": "a/b c"}]}}

    def test_posts_and_reads_what_was_missed(self):
        client = Client(self.server.url, TOKEN)
        first = client.post("a/b c", {"n": 1})
        second = client.post("a/b c")
        answer = client.history(after=first, events=["a*"])
        self.assertEqual(([item["event_name"] for item in answer["history"]], answer["last_id"]), (["a/b c"], second))

    def test_says_why_it_was_refused(self):
        with self.assertRaises(VelmoraError) as refused:
            Client(self.server.url, TOKEN).request("POST", "/timers", {"event_name": 5})
        self.assertEqual((refused.exception.status, refused.exception.errors[0]["pointer"]), (422, "/event_name"))
        for client, status in ((Client(self.server.url, "wrong"), 401), (Client("http://127.0.0.1:1"), 0)):
            with self.assertRaises(VelmoraError) as refused:
                client.post("a/b c")
            self.assertEqual(refused.exception.status, status)


@unittest.skipUnless(HAS_WEBSOCKETS, "python3-websockets is not installed")
class Following(support.ServerCase):
    configuration = {"AccessToken": TOKEN, "EventManager": {"event_list": [{"event_name": "a.1"}, {"event_name": "b"}]}}

    def follow(self, wanted, **options):
        """The messages of `wanted` postings, as a thread gathers them, and that thread."""
        got, gaps = [], []

        async def gather():
            feed = Client(self.server.url, TOKEN).follow(on_gap=lambda after, at: gaps.append((after, at)), **options)
            async for message in feed:
                got.append(message)
                if message.posting.get("post_data", {}).get("last"):
                    return

        thread = threading.Thread(target=lambda: asyncio.run(asyncio.wait_for(gather(), 4 * support.PATIENCE_SEC)))
        thread.start()
        self.addCleanup(thread.join)
        return got, gaps, thread

    def post(self, client, name, **data):
        try:
            return client.post(name, data)
        except VelmoraError as failure:
            self.assertEqual(failure.status, 0)  # the server is away
            return None

    def test_resumes_without_a_loss_that_it_does_not_report(self):
        client = Client(self.server.url, TOKEN)
        start = client.history()["last_id"] or client.post("b")
        got, gaps, thread = self.follow(1, events=["a.*"], after=start)
        posted = []
        for round_ in range(3):
            for number in range(random.randrange(20, 200)):
                posted.append(self.post(client, "a.1", n=number))
                posted[-1] and client.post("b")
            self.server.kill()
            self.server.start()
        support.eventually(lambda: self.post(client, "a.1", last=True) and not thread.is_alive(), "the last one comes")
        ids = [message.id for message in got]
        self.assertEqual(len(ids), len(set(ids)), "nothing twice")
        self.assertTrue(all(message.posting["event_name"] == "a.1" for message in got))
        epochs = list(dict.fromkeys(id_.rpartition("-")[0] for id_ in ids))
        for epoch in epochs[:1] if not gaps else epochs:
            of_epoch = [id_ for id_ in ids if id_.rpartition("-")[0] == epoch]
            sent = [id_ for id_ in posted if id_ and id_.rpartition("-")[0] == epoch]
            self.assertEqual(of_epoch[:len(sent)], sent[-len(of_epoch):] if epoch != epochs[0] else sent[:len(of_epoch)])
        self.assertTrue(gaps, "a restart begins a new epoch")

    def test_gives_up_what_is_refused(self):
        async def first(client, **options):
            async for message in client.follow(**options):
                return message

        for client, options, status in ((Client(self.server.url, "wrong"), {}, 401),
                                        (Client(self.server.url, TOKEN), {"after": "nonsense"}, 400)):
            with self.assertRaises(VelmoraError) as refused:
                asyncio.run(asyncio.wait_for(first(client, **options), support.PATIENCE_SEC))
            self.assertEqual(refused.exception.status, status)


if __name__ == "__main__":
    unittest.main()
