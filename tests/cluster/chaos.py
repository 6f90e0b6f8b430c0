"""Three nats-servers and three nodes, whose clocks are minutes apart, killed, stopped and robbed of their consumers and of the
postings' stream at random while postings, registrations, timers, listeners and feed clients go on. Every promise of a cluster is held against what came; figures are printed."""

import argparse
import asyncio
import collections
import http.server
import json
import pathlib
import random
import re
import shutil
import signal
import sys
import tempfile
import threading
import time

import support

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "clients"))
import velmora_client  # noqa: E402

NAME = "chaos"
CLOCKS = {"a": None, "b": "+3m", "c": "-5m"}
SLOW_SEC = 0.4  # each seventh call of one listener: something is unfinished whenever a node dies


class Listener:
    """Records which posting came at which of its paths, and how often."""

    def __init__(self):
        self.lock = threading.Lock()
        self.came = collections.defaultdict(collections.Counter)
        own = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                payload = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
                number = payload.get("post_data", {}).get("n")
                with own.lock:
                    own.came[self.path][number] += 1
                if self.path == "/second" and number % 7 == 0:
                    time.sleep(SLOW_SEC)
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True
            request_queue_size = 4096  # all that had to wait comes at once

        self.server = Server(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}"


class FeedClient(velmora_client.Client):
    """Follows the feed at one node, or, without a port, at another one each time."""

    def __init__(self, nodes, node=None):
        super().__init__("http://127.0.0.1:1", timeout=5)
        self.nodes, self.node = nodes, node
        self.messages, self.gaps, self.places = [], [], 0

    def _feed(self, after, events):
        self.address = f"http://127.0.0.1:{(self.node or random.choice(self.nodes)).port}"
        self.places += 1
        return super()._feed(after, events)

    async def record(self):
        async for message in self.follow(on_gap=lambda *gap: self.gaps.append(gap)):
            self.messages.append((message.id, json.dumps(message.posting)))


class Chaos:
    def __init__(self, folder, seed, seconds, only):
        self.folder, self.seconds, self.only = folder, seconds, only
        self.random = random.Random(seed)
        self.failures = []
        self.ended = threading.Event()
        self.lock = threading.Lock()
        self.accepted, self.unsure = {}, 0  # id by number; postings whose fate nobody told
        self.flickered = set()  # ids of postings of an event that comes and goes
        self.gates = [threading.Lock() for _ in range(5)]  # of who posts: held while nothing may be on its way
        self.created, self.deleted, self.unsure_events = set(), set(), set()
        self.races = collections.Counter()
        self.once = set()
        self.done = collections.Counter()
        self.waits = []
        routes = [support.free_port() for _ in range(3)]
        self.engines = [support.Engine(folder, f"n{i}", routes, i) for i in range(3)]
        urls = [engine.url() for engine in self.engines]
        self.nodes = [support.Node(folder, name, {"Name": NAME, "Servers": urls[i:] + urls[:i], "Replicas": 3}, CLOCKS[name], Timeout_ms=20000)
                      for i, name in enumerate("abc")]
        self.listener = Listener()
        self.clients = [FeedClient(self.nodes, node) for node in [*self.nodes, None, None]]

    # ---------------------------------------------------------------- what goes on meanwhile

    def until_answered(self, method, path, body=None, headers=None, limit_sec=60):
        """Asks one node after the other until one answers with anything but 503."""
        end = time.monotonic() + limit_sec
        unsure = False
        while time.monotonic() < end:
            status, answer = random.choice(self.nodes).call(method, path, body, headers, timeout=15)
            if status not in (0, 503):
                return status, answer, unsure
            unsure = unsure or status == 0 or "may have been" in str(answer)
            time.sleep(0.1)
        return 0, None, unsure

    def post(self, first, gate):
        number = first
        while not self.ended.is_set():
            with gate:
                began = time.monotonic()
                status, answer, _ = self.until_answered("POST", "/events/load", {"n": number}, {"Idempotency-Key": f"k{number}"})
            with self.lock:
                self.waits.append(time.monotonic() - began)
                if status == 202:
                    self.accepted[number] = answer["id"]
                else:
                    self.unsure += 1
                    if status not in (0, 202):
                        self.failures.append(f"posting {number} was answered {status}: {answer}")
            number += 1
            time.sleep(0.02)

    def flicker(self, gate):
        """An event that is created and deleted while it is posted."""
        count = 0
        while not self.ended.is_set():
            for method, path, body in (("POST", "/events", {"event_name": "flicker"}), *[("POST", "/events/flicker", {"f": count})] * 3,
                                       ("DELETE", "/events/flicker", None)):
                with gate:
                    status, answer = random.choice(self.nodes).call(method, path, body, timeout=15)
                    if status == 202:
                        self.flickered.add(answer["id"])
                if status not in (0, 201, 202, 204, 404, 412, 503):
                    self.failures.append(f"{method} {path} was answered {status}: {answer}")
            count += 1
            time.sleep(0.05)

    def register(self, which):
        count = 0
        while not self.ended.is_set():
            name, count = f"reg {which}.{count}", count + 1
            status, _, unsure = self.until_answered("POST", "/events", {"event_name": name})
            if status == 201:
                self.created.add(name)
            if status == 0:
                continue
            if status not in (201, 412) or (status == 412 and not unsure):
                self.failures.append(f"creating {name} was answered {status}")
            if count % 3 == 0 and name in self.created:
                status, _, unsure = self.until_answered("DELETE", "/events/" + support.quoted(name))
                if status == 204:
                    self.deleted.add(name)
                elif status != 0 and not unsure:
                    self.failures.append(f"deleting {name} was answered {status}")
                else:
                    self.unsure_events.add(name)
            time.sleep(0.1)

    def race(self):
        """Three nodes are asked for the same at the same time: one may win."""
        count = 0
        while not self.ended.is_set():
            answers = [None] * 3
            name = f"race {count}"

            def ask(index):
                answers[index] = self.nodes[index].call("POST", "/events", {"event_name": name}, timeout=15)[0]

            threads = [threading.Thread(target=ask, args=(i,)) for i in range(3)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            won = answers.count(201)
            self.races["rounds"] += 1
            self.races["won"] += won
            if won > 1:
                self.failures.append(f"{won} of three created {name}")
            if won == 0 and all(status == 412 for status in answers):
                self.races["nobody told"] += 1
            count += 1
            time.sleep(0.15)

    def time(self):
        """Timers that fire once, a few seconds from now."""
        count = 0
        while not self.ended.is_set():
            start = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + 2))
            body = {"event_name": "once", "start_time": start, "timer_data": {"k": count}}
            with self.gates[4]:
                status, _ = random.choice(self.nodes).call("POST", "/timers", body, timeout=15)
                if status == 201:
                    self.once.add(count)
            count += 1
            time.sleep(1)

    # ---------------------------------------------------------------- what is done to them

    def leader(self, stream):
        for engine in self.engines:
            found = engine.streams().get(stream, {}).get("cluster", {}).get("leader")
            if found:
                return next(each for each in self.engines if each.name == found)
        return self.random.choice(self.engines)

    def restart(self, process, pause_sec):
        process.kill()
        time.sleep(pause_sec)
        process.start()
        if process in self.nodes:
            support.eventually(f"node {process.name} is ready again", process.ready)
            return
        try:  # a replica that nats-server 2.9 does not bring up to date again is no reason to stop
            support.eventually("the engine is whole again", lambda: all(engine.healthy() for engine in self.engines), 15)
        except AssertionError:
            self.done["never whole"] += 1

    def kill_node(self):
        self.restart(self.random.choice(self.nodes), self.random.uniform(0, 3))

    def kill_postings_leader(self):
        self.restart(self.leader(NAME + "_postings"), self.random.uniform(0, 3))

    def kill_registry_leader(self):
        self.restart(self.leader(f"KV_{NAME}_registry"), self.random.uniform(0, 3))

    def kill_other_engine(self):
        """One that leads neither: the registry stays as it is."""
        leaders = {self.leader(NAME + "_postings"), self.leader(f"KV_{NAME}_registry")}
        self.restart(next(engine for engine in self.engines if engine not in leaders), self.random.uniform(0, 2))

    def kill_connected_engine(self):
        status, answer = self.random.choice(self.nodes).call("GET", "/cluster", timeout=5)
        server = answer["engine"]["server"] if status == 200 else ""
        engine = next((each for each in self.engines if server.endswith(str(each.port))), self.engines[0])
        self.restart(engine, self.random.uniform(0, 2))

    def stop_node(self):
        node = self.random.choice(self.nodes)
        node.send(signal.SIGSTOP)
        time.sleep(30 if self.seconds > 100 and self.done["stop_node"] == 0 else self.random.uniform(2, 9))
        node.send(signal.SIGCONT)
        if self.done["stop_node"] == 0:  # who dies before he has caught up leaves his clients without half a minute of history
            support.eventually("the node has caught up", lambda: node.ready() and node.figures()["lag_postings"] == 0)

    def delete_consumers(self):
        """Everybody's consumer of calls, and the consumers that the nodes read with."""
        engine = self.random.choice(self.engines)
        for name, stream in engine.streams(consumers=True).items():
            for consumer in stream.get("consumer_detail", []):
                engine.publish(f"$JS.API.CONSUMER.DELETE.{name}.{consumer['name']}")

    def purge(self):
        """All but the last: what nobody has read yet stays."""
        self.random.choice(self.engines).publish(f"$JS.API.STREAM.PURGE.{NAME}_postings", json.dumps({"keep": 1500}))

    def epochs(self):
        """Of all nodes; None for one that does not answer."""
        found = [node.call("GET", "/history?limit=1", timeout=5) for node in self.nodes]
        return {answer["last_id"].split("-")[0] if status == 200 else None for status, answer in found}

    def anew(self):
        """The postings' stream is deleted and made anew, when all that was accepted has come everywhere."""
        for gate in self.gates:
            gate.acquire()
        try:
            for node in self.nodes:
                support.eventually(f"node {node.name} is ready", node.ready)
            self.settles("all has come before the stream is deleted",
                         lambda: not any(self.missing().values()) and not any(self.uncalled().values()) and self.fired_once() >= len(self.once),
                         lambda: f"missing {self.missing()}, not called {self.uncalled()}, {self.fired_once()} of {len(self.once)} timers", 30)
            before = self.epochs()
            self.random.choice(self.engines).publish(f"$JS.API.STREAM.DELETE.{NAME}_postings")
            support.eventually("the stream is another one everywhere",
                               lambda: len(self.epochs()) == 1 and not self.epochs() & {*before, None})
        finally:
            for gate in self.gates:
                gate.release()

    def fired_once(self):
        return sum('"once"' in text for _, text in list(self.clients[0].messages))

    def away(self):
        """The whole engine: a minute in the long form."""
        for engine in self.engines:
            engine.kill()
        time.sleep(60 if self.seconds > 100 else 3)
        for engine in self.engines:
            engine.start()
        for node in self.nodes:
            support.eventually(f"node {node.name} is ready again", node.ready)

    def disturb(self):
        actions = [self.kill_node, self.kill_postings_leader, self.kill_registry_leader, self.kill_connected_engine,
                   self.kill_other_engine, self.stop_node, self.delete_consumers, self.purge, self.anew]
        end = time.monotonic() + self.seconds
        if self.only:
            actions = [action for action in actions if action.__name__ in self.only]
        first = list(actions)
        self.random.shuffle(first)
        while first or time.monotonic() < end:  # each once at least
            action = first.pop() if first else self.random.choice(actions)
            print(f"{self.seconds - (end - time.monotonic()):6.1f} s  {action.__name__}", flush=True)
            action()
            self.done[action.__name__] += 1
            time.sleep(self.random.uniform(0.3, 2))
            if self.seconds > 100 and not self.done["away"] and time.monotonic() > end - self.seconds / 2:
                first.append(self.away)
                self.done["away"] = 0.5
        self.done.pop("away", None)

    # ---------------------------------------------------------------- the whole

    def begin(self):
        for process in [*self.engines]:
            process.start()
        support.eventually("the engine is whole", lambda: all(engine.healthy() for engine in self.engines))
        for node in self.nodes:
            node.start()
        for node in self.nodes:
            support.eventually(f"node {node.name} is ready", node.ready)
        for name in ("load", "tick", "once"):
            status, answer, _ = self.until_answered("POST", "/events", {"event_name": name})
            assert status in (201, 412), answer
        for path in ("/first", "/second"):
            body = {"callback": self.listener.url + path, "listener_data": {"x": 1}}
            status, answer, _ = self.until_answered("POST", "/events/load/listeners", body)
            assert status in (201, 412), answer
        status, answer, _ = self.until_answered("POST", "/timers", {"event_name": "tick", "interval_sec": 1})
        assert status == 201, answer
        self.began = time.monotonic()

    def run(self):
        loop = asyncio.new_event_loop()
        following = threading.Thread(target=loop.run_until_complete, daemon=True,
                                     args=(self.follow_all(),))
        self.begin()
        following.start()
        support.eventually("all follow the feed", lambda: all(client.places for client in self.clients))
        time.sleep(1)
        threads = [threading.Thread(target=self.post, args=(first * 1000000, self.gates[first])) for first in range(3)]
        threads += [threading.Thread(target=self.flicker, args=(self.gates[3],))]
        threads += [threading.Thread(target=self.register, args=(which,)) for which in range(2)]
        threads += [threading.Thread(target=self.race), threading.Thread(target=self.time)]
        for thread in threads:
            thread.start()
        try:
            self.disturb()
        finally:
            self.ended.set()
            for thread in threads:
                thread.join()

    async def follow_all(self):
        await asyncio.gather(*(client.record() for client in self.clients))

    def missing(self):
        ids = {*self.accepted.values(), *self.flickered}
        return {index: len(ids - {message[0] for message in list(client.messages)}) for index, client in enumerate(self.clients)}

    def uncalled(self):
        with self.listener.lock:
            return {path: len(self.accepted.keys() - came.keys()) for path, came in self.listener.came.items()}

    def check(self, what, holds, detail=""):
        print(f"{'ok  ' if holds else 'FAIL'} {what} {detail}", flush=True)
        if not holds:
            self.failures.append(what)

    def settles(self, what, condition, detail, limit_sec=support.PATIENCE_SEC):
        try:
            support.eventually(what, condition, limit_sec)
        except AssertionError:
            pass
        self.check(what, condition(), detail())

    def check_feeds(self):
        self.settles("every accepted posting reached every feed client", lambda: not any(self.missing().values()),
                     lambda: str(self.missing()))
        numbers = {}
        for index, client in enumerate(self.clients):
            seen = [message[0] for message in client.messages]
            epochs = list(dict.fromkeys(text.split("-")[0] for text in seen))
            self.check(f"feed client {index}: none twice, in order, no gap but where the stream was made anew",
                       len(seen) == len(set(seen)) and len(client.gaps) <= self.done["anew"] and
                       seen == sorted(seen, key=lambda text: (epochs.index(text.split("-")[0]), int(text.rsplit("-", 1)[1]))),
                       f"{len(seen)} postings at {client.places} places, {len(client.gaps)} gaps")
            for message in client.messages:
                numbers.setdefault(message[0], set()).add(message[1])
        self.check("the bytes are the same at every node", all(len(texts) == 1 for texts in numbers.values()))
        posted = collections.Counter(json.loads(next(iter(texts))).get("post_data", {}).get("n") for texts in numbers.values())
        posted.pop(None, None)
        self.check("every posting was posted once", all(count == 1 for count in posted.values()),
                   f"{len(posted)} posted, {len(self.accepted)} accepted, {self.unsure} never answered; "
                   f"{len(self.flickered)} of an event that came and went")
        fired = collections.Counter()
        ticks = 0
        for texts in numbers.values():
            posting = json.loads(next(iter(texts)))
            fired.update([posting["post_data"]["k"]] if posting["event_name"] == "once" else [])
            ticks += posting["event_name"] == "tick"
        return fired, ticks

    def tell(self):
        """For whoever looks for the reason: what the nodes and the engine say of the calls."""
        for node in self.nodes:
            print(node.name, json.dumps(node.call("GET", "/cluster")[1]))
        for engine in self.engines:
            for consumer in engine.streams(consumers=True).get(NAME + "_postings", {}).get("consumer_detail", []):
                print(engine.name, json.dumps(consumer) if consumer["name"].endswith("_calls") else consumer["name"])

    def check_calls(self, figures):
        self.settles("every accepted posting reached every listener", lambda: len(self.uncalled()) == 2 and not any(self.uncalled().values()),
                     lambda: str(self.uncalled()))
        if any(self.uncalled().values()):
            self.tell()
        with self.listener.lock:
            repeats = max(sum(came.values()) - len(came) for came in self.listener.came.values())
        self.check("repeated calls are counted", repeats <= figures()["repeated_calls_total"],
                   f"{repeats} postings called again, {figures()['repeated_calls_total']} counted")
        self.check("no calls were lost", figures()["lost_calls_total"] == 0 and figures()["set_aside_total"] == 0,
                   f"{figures()['lost_calls_total']} lost, {figures()['set_aside_total']} set aside")

    def check_registry(self):
        def states():
            return [node.call("GET", "/queue") for node in self.nodes]

        def agree():
            found = states()
            return all(status == 200 for status, _ in found) and len({json.dumps(state, sort_keys=True) for _, state in found}) == 1

        self.settles("the replicas agree", agree, lambda: "")
        if not agree():
            for node in self.nodes:
                print("    ", node.name, node.figures().get("registry_revision"), [len(entries) for entries in states()[0][1].values() if isinstance(entries, list)])
            if self.engines_replicas_differ():
                return
        names = {event["event_name"] for event in states()[0][1]["event_list"]}
        lost = self.created - self.deleted - self.unsure_events - names
        kept = self.deleted & names
        self.check("every registration that was answered is there", not lost and not kept,
                   f"{len(self.created)} created, {len(self.deleted)} deleted, lost {sorted(lost)[:3]}, kept {sorted(kept)[:3]}")
        self.check("three writers never won twice", not any("of three created" in text for text in self.failures), str(dict(self.races)))

    def engines_replicas_differ(self):
        """Whether the engine itself no longer holds one registry but several, which it does after kills of its leader (2.9.10):
        each node knows what the replica has that it reads, and nothing that is promised of the registry can hold."""
        held = [engine.streams().get(f"KV_{NAME}_registry", {}).get("state", {}) for engine in self.engines]
        if len({(state.get("messages"), state.get("last_seq")) for state in held}) == 1:
            return False
        for engine, state in zip(self.engines, held):
            print("    ", engine.name, json.dumps(state))
        void = re.compile(r"the replicas agree|\d of three created|(creating|deleting) reg|posting .*There is no event")
        print("void the registry's promises: the engine's own replicas differ")
        self.failures = [failure for failure in self.failures if not void.match(failure)]
        return True

    def judge(self):
        def figures():
            total = collections.Counter()
            for node in self.nodes:
                total.update(node.figures())
            return total

        time_over = time.monotonic() + 10  # the last timers are due a moment from now
        while time.monotonic() < time_over and len(self.once) > self.fired_once():
            time.sleep(0.1)
        fired, ticks = self.check_feeds()
        self.check_calls(figures)
        self.check_registry()
        late = self.once - fired.keys()
        self.check("each due time fired once, or is counted as skipped", max(fired.values(), default=1) == 1 and
                   len(late) <= figures()["timers_skipped_total"], f"{len(fired)} of {len(self.once)} fired once, {len(late)} not")
        elapsed = time.monotonic() - self.began
        self.check("the repeating timer fired each second at most", 0 < ticks <= elapsed + 1, f"{ticks} in {elapsed:.0f} s")
        waits = sorted(self.waits)
        print(f"     {len(self.accepted) / elapsed:.0f} postings/s; an answer took {waits[len(waits) // 2] * 1000:.0f} ms (p50), "
              f"{waits[len(waits) * 99 // 100] * 1000:.0f} ms (p99), {waits[-1]:.1f} s at most; done: {dict(self.done)}")
        print(f"     {json.dumps({name: value for name, value in sorted(figures().items()) if name.endswith('_total')})}")

    def end(self):
        for process in [*self.nodes, *self.engines]:
            if process.runs():
                process.send(signal.SIGCONT)
            process.kill()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=int, default=180)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("--only", nargs="*", help="names of what is done: kill_node, purge and so on")
    parser.add_argument("--keep", action="store_true", help="the folder with all logs")
    arguments = parser.parse_args()
    print(f"seed {arguments.seed}")
    folder = tempfile.mkdtemp(prefix="velmora-chaos-")
    chaos = Chaos(folder, arguments.seed, arguments.seconds, arguments.only)
    try:
        chaos.run()
        chaos.judge()
    finally:
        chaos.end()
        if not arguments.keep:
            shutil.rmtree(folder, ignore_errors=True)
    for failure in chaos.failures:
        print("FAIL", failure)
    sys.exit(1 if chaos.failures else 0)


if __name__ == "__main__":
    main()
