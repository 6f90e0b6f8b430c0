"""The feed under restarts: independent clients (Python's websockets, curl) that are killed and come back while postings are
made and the server is killed and started anew. Nothing comes twice, and nothing is missed of which no gap is said."""

import asyncio
import http.client
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import unittest

try:
    import websockets
except ImportError:
    websockets = None

SERVER = os.environ["VELMORA_SERVER"]
PATIENCE_SEC = 120
EVENTS = ["a.1", "a.2", "b"]


class Server:
    """One server on one port, which may be killed and started again."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-test-")
        self.port = 0
        self.start()

    def start(self):
        config = pathlib.Path(self.folder) / "config.json"
        events = [{"event_name": name} for name in EVENTS]
        config.write_text(json.dumps({"BindAddress": {"ListenPort": self.port}, "EventManager": {"event_list": events}}))
        self.process = subprocess.Popen([SERVER, "--config", str(config)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                        text=True)
        self.port = int(re.search(r":(\d+)$", self.process.stdout.readline().strip()).group(1))

    def kill(self, how=signal.SIGKILL):
        self.process.send_signal(how)
        self.process.wait(PATIENCE_SEC)
        self.process.stdout.close()

    def post(self, name, data):
        """The posting's id; None where the server was away."""
        try:
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE_SEC)
            connection.request("POST", "/api/v1/events/" + name, json.dumps(data), {"Content-Type": "application/json"})
            answer = connection.getresponse()
            return json.loads(answer.read())["id"] if answer.status == 202 else None
        except (OSError, http.client.HTTPException):
            return None
        finally:
            connection.close()

    def end(self):
        self.kill()
        shutil.rmtree(self.folder)


def number(text):
    return int(text.rpartition("-")[2])


class Resume(unittest.TestCase):
    def setUp(self):
        self.server = Server()
        self.addCleanup(lambda: self.server.end())
        self.posted = {}  # id -> event, of what was answered with 202

    def load(self, count, restarts):
        """Posts, and kills and starts the server meanwhile."""
        chance = random.Random(7)
        kills = sorted(chance.sample(range(count // 4, count - count // 4), restarts))
        for i in range(count):
            if kills and i == kills[0]:
                kills.pop(0)
                self.server.kill(chance.choice([signal.SIGKILL, signal.SIGTERM]))
                self.server.start()
            name = chance.choice(EVENTS)
            posted = self.server.post(name, {"i": i})
            if posted:
                self.posted[posted] = name
        self.last = self.server.post("b", {"last": True})
        self.assertIsNotNone(self.last)

    def check(self, got, wanted, gaps):
        """`got` are ids in order; `gaps` how many were passed when each gap was said."""
        self.assertEqual(len(got), len(set(got)), "something came twice")
        epochs = list(dict.fromkeys(text.rpartition("-")[0] for text in got))
        self.assertEqual(got, sorted(got, key=lambda text: (epochs.index(text.rpartition("-")[0]), number(text))))
        for i, epoch in enumerate(epochs):
            have = {number(text) for text in got if text.startswith(epoch + "-")}
            sent = {number(text) for text, name in self.posted.items() if text.startswith(epoch + "-") and wanted(name)}
            missed = sent - have
            # What an epoch's end has swallowed is behind all that came, and a gap was said.
            if missed:
                self.assertTrue(gaps, "something is missing without a gap")
                self.assertGreater(min(missed), max(have))
                self.assertLess(i, len(epochs) - 1)

    async def websocket(self, query, seed, greeted):
        chance, got, gaps, last = random.Random(seed), [], [], ""
        while True:
            after = "&after=" + last if last else ""
            try:
                async with websockets.connect(f"ws://127.0.0.1:{self.server.port}/api/v1/feed?{query}{after}",
                                              subprotocols=["velmora.feed.v2"], max_size=None,
                                              close_timeout=0.1) as feed:
                    hello = json.loads(await feed.recv())
                    if not last:
                        last = hello["id"]
                        greeted.release()
                    if hello["gap"]:
                        gaps.append(len(got))
                    for _ in range(chance.randrange(1, 400)):
                        message = json.loads(await feed.recv())
                        last = message["id"]
                        got.append(last)
                        if message["posting"].get("post_data", {}).get("last"):
                            return got, gaps
                    feed.transport.abort()  # killed, without a word of farewell
            except (OSError, websockets.exceptions.WebSocketException):
                await asyncio.sleep(0.01)

    @unittest.skipIf(websockets is None, "python3-websockets is not installed")
    def test_websockets_that_are_killed_get_all_and_nothing_twice(self):
        async def run():
            queries = ["", "event_name=b", "event_name=a.*&event_name=b", "event_name=*"]
            greeted = asyncio.Semaphore(0)
            clients = [asyncio.create_task(self.websocket(query, i, greeted)) for i, query in enumerate(queries * 2)]
            for _ in clients:  # nobody misses what is posted before it has come for the first time
                await asyncio.wait_for(greeted.acquire(), PATIENCE_SEC)
            loader = threading.Thread(target=self.load, args=(1600, 4))
            loader.start()
            results = await asyncio.wait_for(asyncio.gather(*clients), PATIENCE_SEC)
            loader.join()
            return queries * 2, results

        queries, results = asyncio.run(run())
        for query, (got, gaps) in zip(queries, results):
            self.check(got, (lambda name: name == "b") if query == "event_name=b" else (lambda name: True), gaps)
            self.assertEqual(got[-1], self.last)

    @unittest.skipUnless(shutil.which("curl"), "curl is not installed")
    def test_curl_follows_server_sent_events_and_comes_back(self):
        got, gaps, last, chance = [], [], "", random.Random(3)
        loader = threading.Thread(target=self.load, args=(800, 2))
        curl = None
        try:
            while not (got and got[-1] == getattr(self, "last", "")):
                resume = ["-H", "Last-Event-ID: " + last] if last else []
                curl = subprocess.Popen(["curl", "-sN", "-m", str(PATIENCE_SEC), "-H", "Accept: text/event-stream", *resume,
                                         f"http://127.0.0.1:{self.server.port}/api/v1/feed"], stdout=subprocess.PIPE, text=True)
                left, kind, identity = chance.randrange(1, 300), "", ""
                for line in curl.stdout:
                    field, _, value = line.rstrip("\n").partition(": ")
                    if field == "event":
                        kind = value
                    elif field == "id":
                        identity = value
                    elif field == "data":
                        last = identity
                        if kind == "velmora.hello":
                            gaps += [len(got)] if json.loads(value)["gap"] else []
                            if loader.ident is None:
                                loader.start()
                            continue
                        got.append(last)
                        self.assertEqual(json.loads(value)["event_name"], kind)
                        left -= 1
                        if left == 0 or json.loads(value).get("post_data", {}).get("last"):
                            break
                curl.kill()
                curl.wait()
                curl.stdout.close()
                if got and not loader.is_alive():
                    loader.join()
        finally:
            if curl and curl.poll() is None:
                curl.kill()
        loader.join()
        self.check(got, lambda name: True, gaps)


class OtherOrigins(unittest.TestCase):
    """A page's requests from an origin that is allowed, and from one that is not."""

    def test_allowed_origins_may_ask_and_others_not(self):
        folder = tempfile.mkdtemp(prefix="velmora-test-")
        self.addCleanup(shutil.rmtree, folder)
        config = pathlib.Path(folder) / "config.json"

        def ask(options, method, path, **headers):
            config.write_text(json.dumps({"BindAddress": {"ListenPort": 0, **options}, "AccessToken": "a-token-for-the-test"}))
            process = subprocess.Popen([SERVER, "--config", str(config)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            try:
                port = int(re.search(r":(\d+)$", process.stdout.readline().strip()).group(1))
                connection = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE_SEC)
                connection.request(method, path, None, {name.replace("_", "-"): value for name, value in headers.items()})
                answer = connection.getresponse()
                answer.close()
                connection.close()
                return answer.status, dict(answer.getheaders())
            finally:
                process.kill()
                process.wait()
                process.stdout.close()

        origin, token = "https://dashboard.example:8443", "Bearer a-token-for-the-test"
        for options, status in (({}, 403), ({"AllowedOrigins": ["https://dashboard.example"]}, 403),
                                ({"AllowedOrigins": ["http://a", origin]}, 200), ({"AllowedOrigins": ["*"]}, 200)):
            answered, headers = ask(options, "GET", "/api/v1/events", Origin=origin, Authorization=token)
            self.assertEqual((answered, headers.get("Access-Control-Allow-Origin")),
                             (status, origin if status == 200 else None), options)
        allowed = {"AllowedOrigins": [origin]}
        preflight = {"Origin": origin, "Access_Control_Request_Method": "POST"}
        status, headers = ask(allowed, "OPTIONS", "/api/v1/events/a", **preflight)
        self.assertEqual((status, headers["Access-Control-Allow-Origin"], "POST" in headers["Access-Control-Allow-Methods"]),
                         (204, origin, True))
        self.assertEqual(ask({}, "OPTIONS", "/api/v1/events/a", **preflight)[0], 403)
        status, headers = ask(allowed, "GET", "/api/v1/events", Origin=origin)  # the page may read why
        self.assertEqual((status, headers["Access-Control-Allow-Origin"]), (401, origin))
        status, headers = ask(allowed, "GET", "/api/v1/feed/sse", Origin=origin, Authorization=token)
        self.assertEqual((status, headers["Access-Control-Allow-Origin"], headers["Content-Type"]),
                         (200, origin, "text/event-stream"))


if __name__ == "__main__":
    unittest.main()
