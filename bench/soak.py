"""Five minutes of everything at once against one server: postings over REST, feed clients that come and go, timers,
watches, listeners that answer and that fail. Memory and descriptors at the end must equal those after the first minute,
and every line of the log at "error" must be one that the load explains."""

import argparse
import base64
import collections
import http.client
import json
import os
import re
import socket
import sys
import threading
import time

from contestants import Contestants, SERVER, resident_bytes

EXPLAINED = re.compile(r'Callback to "http://127\.0\.0\.1:\d+" failed: 500')  # the listener that always fails
GROWTH_ALLOWED = 1.10  # of resident memory, as what was freed is not all given back at once
PAUSE_SEC = 0.01


class Load:
    """The threads of the load; each counts what it did and keeps what went wrong."""

    def __init__(self, port, folder):
        self.port, self.folder = port, folder
        self.counts, self.faults = collections.Counter(), []
        self.ended = threading.Event()
        self.threads = []

    def call(self, connection, method, path, body=None, expected=(200, 201, 202, 204)):
        connection.request(method, path, json.dumps(body) if body is not None else None,
                           {"Content-Type": "application/json"} if body is not None else {})
        answer = connection.getresponse()
        text = answer.read()
        if answer.status not in expected:
            raise RuntimeError(f"{method} {path}: {answer.status} {text[:200]!r}")
        return json.loads(text) if text else None

    def run(self, deed):
        def loop():
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
            turn = 0
            while not self.ended.is_set() and len(self.faults) < 20:
                try:
                    deed(connection, turn)
                    self.counts[deed.__name__] += 1
                except Exception as fault:  # whatever went wrong belongs into the report
                    self.faults.append(f"{deed.__name__}: {fault}")
                turn += 1
        thread = threading.Thread(target=loop, daemon=True)
        thread.start()
        self.threads.append(thread)

    def post(self, connection, turn):
        self.call(connection, "POST", f"/api/v1/events/soak.{turn % 3}", {"turn": turn, "text": "x" * (turn % 300)})
        time.sleep(PAUSE_SEC)

    def read(self, connection, turn):
        for path in ("/api/v1/history?limit=50", "/api/v1/queue", "/api/v1/deliveries?limit=20", "/metrics"):
            connection.request("GET", path)
            if connection.getresponse().read() == b"":
                raise RuntimeError(f"{path}: empty")
        time.sleep(0.1)

    def change(self, connection, turn):
        """Timers, watches, events and listeners come and go; their number stays the same."""
        watched = f"{self.folder}/watched-{turn % 20}"
        self.call(connection, "POST", "/api/v1/timers", {"event_name": "soak.0", "interval_sec": 1})
        self.call(connection, "POST", "/api/v1/watches", {"path": watched, "event_name": "soak.1"}, (201, 409))
        with open(watched, "a") as file:
            file.write("x")
        name = f"passing.{turn}"
        self.call(connection, "POST", "/api/v1/events", {"event_name": name})
        self.call(connection, "POST", f"/api/v1/events/{name}/listeners", {"callback": "http://127.0.0.1:9/"})
        self.call(connection, "DELETE", f"/api/v1/events/{name}")
        if turn % 20 == 19:
            self.call(connection, "DELETE", "/api/v1/timers")
            self.call(connection, "DELETE", "/api/v1/watches")
        time.sleep(0.05)

    def listen(self, connection, turn):
        """A feed client for a while; half of them leave without a word."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=10) as feed:
            key = base64.b64encode(os.urandom(16)).decode()
            feed.sendall(f"GET /api/v1/feed HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
                         f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n\r\n".encode())
            until = time.monotonic() + 0.2 + (turn % 5) / 2
            while time.monotonic() < until and not self.ended.is_set():
                if not feed.recv(65536):
                    raise RuntimeError("the feed ended")
            if turn % 2:
                feed.sendall(b"\x88\x82\0\0\0\0\x03\xe8")

    def end(self):
        self.ended.set()
        for thread in self.threads:
            thread.join(30)


def state_of(process):
    return {"resident_mb": round(resident_bytes(process) / 2**20, 1),
            "descriptors": len(os.listdir(f"/proc/{process.pid}/fd")),
            "threads": len(os.listdir(f"/proc/{process.pid}/task"))}


def start_server(run):
    for number in range(20):
        (run.folder / f"watched-{number}").write_text("")
    hook = f"http://127.0.0.1:{run.ports['listener']}"
    listeners = [[{"callback": hook + "/ok", "listener_data": {"n": 1}}],
                 [{"callback": hook + "/fail", "listener_data": {"n": 2}}], []]
    (run.folder / "soak.json").write_text(json.dumps({
        "BindAddress": {"Host": "127.0.0.1", "ListenPort": 0}, "Timeout_ms": 5000,
        "StateFile": str(run.folder / "state.json"),
        "EventManager": {"event_list": [{"event_name": f"soak.{n}", "listener_list": listeners[n]} for n in range(3)]}}))
    return run.start_saying_port("soak", [SERVER, "--config", run.folder / "soak.json", "--log-level", "warn"])


def soak(run, seconds, settle):
    process = start_server(run)
    load = Load(run.ports["soak"], run.folder)
    for deed in [load.post] * 4 + [load.listen] * 8 + [load.read, load.change]:
        load.run(deed)
    time.sleep(settle)
    first = state_of(process)
    print(f"after {settle} s under load: {first}", flush=True)
    time.sleep(seconds - settle)
    last = state_of(process)
    print(f"after {seconds} s under load: {last}", flush=True)
    load.end()
    log = (run.folder / "soak.log").read_text().splitlines()
    return first, last, load, log


def report(first, last, load, log):
    errors = [line for line in log if re.search(r"\b(ERROR|CRIT|ALERT|error|crit|alert)\b", line)]
    unexplained = [line for line in errors if not EXPLAINED.search(line)]
    print(f"done: {dict(load.counts)}")
    print(f"error lines: {len(errors)}, of which the failing listener explains {len(errors) - len(unexplained)}")
    for line in [*unexplained[:10], *load.faults[:10]]:
        print(f"unexplained: {line}")
    # Descriptors and threads breathe with the requests that are under way.
    steady = (last["resident_mb"] <= first["resident_mb"] * GROWTH_ALLOWED
              and last["descriptors"] <= first["descriptors"] + 40 and last["threads"] <= first["threads"] + 40)
    print("steady" if steady else "GROWN")
    return steady and not unexplained and not load.faults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=int, default=300)
    parser.add_argument("--settle", type=int, default=60, help="seconds after which the first reading is taken")
    wanted = parser.parse_args()
    with Contestants() as run:
        run.nginx("listener", core=1)
        good = report(*soak(run, wanted.seconds, wanted.settle))
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
