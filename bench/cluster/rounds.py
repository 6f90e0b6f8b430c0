"""Measures a cluster of three nodes over three nats-servers beside the bare engine, one server, and Redis streams, in rounds
with servers started anew, and prints one table; the figures go to cluster-results.json beside the programs."""

import argparse
import concurrent.futures
import http.server
import json
import os
import pathlib
import re
import shutil
import statistics
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path += [str(HERE.parent), str(HERE.parents[1] / "tests/cluster")]
from contestants import BUILD, LOAD, SERVER, ProgramFailed, figures, free_port, output_of  # noqa: E402
from rows import Row, at_least, at_most, below  # noqa: E402
import run  # noqa: E402
import support  # noqa: E402

support.SERVER = str(SERVER)
BENCH = BUILD / "bench/cluster_bench"
EVENT = "bench.event"
BODY = '{"sensor":"door-17","state":"open","reading":21.5}'
POSTERS = 128  # at each node
HELD = 60     # postings whose calls do not end when a node is killed


class Holding:
    """A listener that does not answer a posting's first call, and takes the time of its second."""

    def __init__(self):
        self.lock, self.first, self.again, self.release = threading.Lock(), set(), [], threading.Event()
        own = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                number = json.loads(self.rfile.read(int(self.headers["Content-Length"])))["post_data"]["n"]
                with own.lock:
                    repeated = number in own.first
                    own.first.add(number)
                    if repeated:
                        own.again.append(time.monotonic())
                if not repeated:
                    own.release.wait()
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads, request_queue_size = True, 4096

        self.server = Server(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}/held"

    def close(self):
        self.release.set()
        self.server.shutdown()
        self.server.server_close()


class Round:
    """Everything that is measured, started anew, for the life of the object."""

    def __init__(self, wanted):
        self.wanted = wanted
        self.folder = tempfile.mkdtemp(prefix="velmora-bench-")
        routes = [support.free_port() for _ in range(3)]
        self.engines = [support.Engine(self.folder, f"n{i}", routes, i) for i in range(3)]
        urls = [engine.url() for engine in self.engines]
        self.nodes = [support.Node(self.folder, name, {"Name": "bench", "Servers": urls[i:] + urls[:i], "Replicas": 3}, Timeout_ms=60000)
                      for i, name in enumerate("abc")]
        self.single = support.Process(self.folder, "single")
        self.single.port = free_port()
        self.redis = []

    def __enter__(self):
        for engine in self.engines:
            engine.start()
        support.eventually("the engine is whole", lambda: all(engine.healthy() for engine in self.engines))
        for node in self.nodes:
            node.start()
        config = pathlib.Path(self.folder) / "single.json"
        config.write_text(json.dumps({"BindAddress": {"ListenPort": self.single.port}, "EventManager": {"event_list": [{"event_name": EVENT}]}}))
        self.single.run([support.SERVER, "--config", str(config)])
        for node in self.nodes:
            support.eventually("the node is ready", node.ready)
        status, answer = self.nodes[0].call("POST", "/events", {"event_name": EVENT})
        assert status == 201, answer
        for node in self.nodes:
            support.eventually("the event is there", lambda: node.call("GET", "/events/" + EVENT)[0] == 200)
        return self

    def __exit__(self, *_):
        for process in [*self.nodes, self.single, *self.engines, *self.redis]:
            process.kill()
        shutil.rmtree(self.folder, ignore_errors=True)

    # ---------------------------------------------------------------- what is measured, in this order

    def memory(self):
        def resident_mb(process):
            return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{process.process.pid}/status").read_text()).group(1)) / 1024

        return {"node_mb": statistics.mean(map(resident_mb, self.nodes)), "single_mb": resident_mb(self.single)}

    def turns(self):
        a, b = self.nodes[:2]
        return figures(BENCH, "turns", a.port, b.port, self.engines[0].url(), self.engines[1].url(), self.wanted.count)

    def raw(self):
        return figures(BENCH, "raw", self.wanted.messages, 4096, *(engine.url() for engine in self.engines))

    def handed_out(self):
        """Whether every posting has gone to a node, which has said that its calls have ended."""
        for engine in self.engines:
            stream = engine.streams(consumers=True).get("bench_postings", {})
            for consumer in stream.get("consumer_detail", []):
                if consumer["name"] == "bench_calls" and consumer.get("cluster", {}).get("leader") == engine.name:
                    return consumer["num_pending"] == 0 and consumer["num_ack_pending"] == 0
        return False

    def posting(self):
        script = pathlib.Path(self.folder) / "post.lua"
        script.write_text(f"wrk.method = \"POST\"\nwrk.body = '{BODY}'\nwrk.headers[\"Content-Type\"] = \"application/json\"\n")

        def load(node):
            text = output_of(["wrk", "-t1", f"-c{POSTERS}", f"-d{self.wanted.seconds}s", "-s", script,
                              f"http://127.0.0.1:{node.port}/api/v1/events/{EVENT}"])
            if "Non-2xx" in text or "Socket errors" in text:
                raise ProgramFailed("not every posting was taken: " + text)
            return int(re.search(r"(\d+) requests in", text).group(1))

        began = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            posted = sum(pool.map(load, self.nodes))
        answered = time.monotonic() - began
        support.eventually("every posting has been handed out", self.handed_out)
        return {"answered_per_s": posted / answered, "handed_out_per_s": posted / (time.monotonic() - began)}

    def fan_out(self, ports, clients):
        return figures(LOAD, "fanout", "ws", ",".join(map(str, ports)), clients, POSTERS, POSTERS, self.wanted.deliveries // clients)

    def feeds(self):
        return self.fan_out([node.port for node in self.nodes], 3 * self.wanted.clients)

    def feeds_of_one(self):
        return self.fan_out([self.single.port], 3 * self.wanted.clients)

    def stream(self):
        ports = [free_port() for _ in range(3)]
        for index, port in enumerate(ports):
            server = support.Process(self.folder, f"redis{index}")
            of = ["--replicaof", "127.0.0.1", str(ports[0])] if index else []
            (pathlib.Path(self.folder) / server.name).mkdir()
            server.run(["redis-server", "--port", str(port), "--bind", "127.0.0.1", "--dir", f"{self.folder}/{server.name}", "--save", "",
                        "--appendonly", "yes", "--repl-diskless-sync-delay", "0", *of])
            self.redis.append(server)
        support.eventually("both replicas are level", lambda: self.replicas_of(ports[0]) == 2)
        return figures(BENCH, "stream", ports[0], self.wanted.messages, POSTERS)

    @staticmethod
    def replicas_of(port):
        try:
            return output_of(["redis-cli", "-p", port, "info", "replication"]).count("state=online")
        except ProgramFailed:
            return 0

    def takeover(self):
        """The last: it kills the node with the most unfinished postings."""
        listener = Holding()
        try:
            self.nodes[0].call("POST", "/events", {"event_name": "held"})
            status, answer = self.nodes[0].call("POST", "/events/held/listeners", {"callback": listener.url, "listener_data": {"x": 1}})
            assert status == 201, answer
            for number in range(HELD):
                assert self.nodes[number % 3].call("POST", "/events/held", {"n": number})[0] == 202
            support.eventually("every call has begun", lambda: len(listener.first) == HELD)
            running = {node: node.figures()["running_calls"] for node in self.nodes}
            victim = max(running, key=running.get)
            assert not listener.again and running[victim] > 0, {node.name: count for node, count in running.items()}
            killed = time.monotonic()
            victim.kill()
            support.eventually("they are taken over", lambda: len(listener.again) >= running[victim])
            return {"first_s": min(listener.again) - killed, "last_s": max(listener.again) - killed, "postings": running[victim]}
        finally:
            listener.close()


MEASUREMENTS = ["memory", "turns", "raw", "posting", "stream", "feeds", "feeds_of_one", "takeover"]


def rows(clients):
    return [
        Row("cluster: POST at one node to feed at another, p50", ("turns", "ours_p50_us"), ("turns", "plain_p50_us"),
            "publish to ordered consumer", at_most(1.5), at_most(1.2), "ms", 1e-3),
        Row("cluster: the same, p99", ("turns", "ours_p99_us"), ("turns", "plain_p99_us"), "publish to ordered consumer", None, None, "ms", 1e-3),
        Row("cluster: POST, 3 replicas", ("posting", "answered_per_s"), ("raw", "postings_per_s"), "raw publishing with ids",
            at_least(0.4), at_least(0.7), "k/s", 1e-3),
        Row("cluster: until handed out and done", ("posting", "handed_out_per_s"), ("stream", "postings_per_s"),
            "Redis stream, group, 2 replicas", None, at_least(1), "k/s", 1e-3),
        Row(f"cluster: feeds, 3 x {clients:,} clients, deliveries", ("feeds", "deliveries_per_s"), ("feeds_of_one", "deliveries_per_s"),
            f"one server, {3 * clients:,} clients", None, None, "M/s", 1e-6),
        Row("cluster: kill -9 until its calls are repeated", ("takeover", "first_s"), None, "6 s, and what is promised", None, below(8), "s"),
        Row("cluster: the same, the last of them", ("takeover", "last_s"), None, "", below(10), None, "s"),
        Row("cluster: memory of an idle node", ("memory", "node_mb"), ("memory", "single_mb"), "one server", None, at_most(1.25), "MB"),
    ]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--clients", type=int, default=1000, help="of each node's feed")
    parser.add_argument("--count", type=int, default=1000, help="postings whose time is taken")
    parser.add_argument("--messages", type=int, default=40000, help="for the engine and Redis")
    parser.add_argument("--seconds", type=int, default=3, help="of posting")
    parser.add_argument("--deliveries", type=int, default=3_000_000)
    parser.add_argument("--only", nargs="*", default=MEASUREMENTS, choices=MEASUREMENTS)
    wanted = parser.parse_args()
    deadline, about, samples, failures = time.monotonic() + 300, run.machine(), {}, {}
    number = 0
    while number < wanted.rounds and time.monotonic() < deadline:
        number += 1
        with Round(wanted) as measured:
            for what in [name for name in MEASUREMENTS if name in wanted.only]:
                print(f"round {number}: {what}", file=sys.stderr, flush=True)
                run.measure(what, lambda _, what=what: getattr(measured, what)(), None, samples, failures)
    results = [run.evaluate(row, samples) for row in rows(wanted.clients) if row.ours[0] in wanted.only]
    about["load_after"] = os.getloadavg()[0]
    everything = {"machine": about, "rows": results, "samples": samples, "failures": failures}
    (BUILD / "cluster-results.json").write_text(json.dumps(everything, indent=1))
    print(run.table(results))
    print("\n" + run.footnote(everything))
    for what, failure in failures.items():
        print(f"failed: {what}: {failure}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
