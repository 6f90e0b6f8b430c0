"""What the tests of a cluster share: nats-servers and nodes that are started, killed, stopped and looked at."""

import glob
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time
import urllib.parse

SERVER = os.environ.get("VELMORA_SERVER", "velmora-server")
PATIENCE_SEC = 90


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def eventually(what, condition, limit_sec=PATIENCE_SEC):
    """What the condition answers as soon as that is true."""
    end = time.monotonic() + limit_sec
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("did not happen: " + what)
        time.sleep(0.05)


def ask(port, method, path, body=None, headers=None, timeout=30):
    """Status and JSON of an answer; (0, reason) where there is none."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    try:
        data = None if body is None else json.dumps(body)
        connection.request(method, path, data, {**({"Content-Type": "application/json"} if data else {}), **(headers or {})})
        answer = connection.getresponse()
        text = answer.read().decode()
        try:
            return answer.status, json.loads(text) if text else None
        except ValueError:
            return answer.status, text
    except (OSError, http.client.HTTPException) as failure:
        return 0, str(failure)
    finally:
        connection.close()


class Process:
    """A program that may be killed, stopped and started again; its output goes to a file."""

    def __init__(self, folder, name):
        self.name = name
        self.log = pathlib.Path(folder) / (name + ".log")
        self.process = None
        self.environment = {}

    def run(self, arguments):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(arguments, stdout=log, stderr=log, stdin=subprocess.DEVNULL, env={**os.environ, **self.environment})

    def runs(self):
        return self.process is not None and self.process.poll() is None

    def send(self, number):
        self.process.send_signal(number)

    def kill(self, number=signal.SIGKILL):
        if self.process is not None and self.process.poll() is None:
            self.process.send_signal(number)
            self.process.wait(PATIENCE_SEC)


class Engine(Process):
    """One nats-server, of several that know each other."""

    def __init__(self, folder, name, route_ports, index, settings=""):
        super().__init__(folder, name)
        self.port, self.monitor = free_port(), free_port()
        routes = ", ".join(f"nats-route://127.0.0.1:{port}" for port in route_ports)
        several = f"cluster {{ name: chaos, listen: 127.0.0.1:{route_ports[index]}, routes: [{routes}] }}\n" if len(route_ports) > 1 else ""
        self.config = pathlib.Path(folder) / (name + ".conf")
        self.config.write_text(f"server_name: {name}\nlisten: 127.0.0.1:{self.port}\nhttp: 127.0.0.1:{self.monitor}\n"
                               f"jetstream {{ store_dir: \"{folder}/{name}\" }}\n{several}{settings}")

    def start(self):
        self.run(["nats-server", "-c", str(self.config)])

    def healthy(self):
        return self.runs() and ask(self.monitor, "GET", "/healthz", timeout=2)[0] == 200

    def url(self):
        return f"nats://127.0.0.1:{self.port}"

    def streams(self, consumers=False):
        """Details of the streams by name; nothing where it does not answer."""
        path = "/jsz?accounts=true&streams=true" + ("&consumers=true" if consumers else "")
        status, found = ask(self.monitor, "GET", path, timeout=2)
        accounts = found.get("account_details", []) if status == 200 else []
        return {stream["name"]: stream for account in accounts for stream in account.get("stream_detail", [])}

    def publish(self, subject, body=""):
        """What any client of the engine may do, in the engine's own protocol."""
        with socket.create_connection(("127.0.0.1", self.port), 5) as connection:
            data = body.encode()
            connection.sendall(f"CONNECT {{\"verbose\":false}}\r\nPUB {subject} {len(data)}\r\n".encode() + data + b"\r\nPING\r\n")
            read = b""
            while b"PONG" not in read:
                got = connection.recv(4096)
                if not got:
                    raise OSError("the engine hung up")
                read += got


CLOCK_LIBRARY = next(iter(glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")), None)  # Debian's libfaketime


class Node(Process):
    """One velmora-server on a port that it keeps, by a clock that is `clock` ("+3m") ahead where that can be had."""

    def __init__(self, folder, name, cluster, clock=None, **others):
        super().__init__(folder, name)
        if clock and CLOCK_LIBRARY:
            self.environment = {"LD_PRELOAD": CLOCK_LIBRARY, "FAKETIME": clock, "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        self.port = free_port()
        self.config = pathlib.Path(folder) / (name + ".json")
        settings = {"BindAddress": {"ListenPort": self.port}, "Log": {"Level": os.environ.get("LOG_LEVEL", "notice")}, "Cluster": {"Node": name, **cluster}, **others}
        self.config.write_text(json.dumps(settings))
        self.counted = {}  # of the runs before

    def start(self):
        self.run([SERVER, "--config", str(self.config)])

    def call(self, method, path, body=None, headers=None, timeout=30):
        return ask(self.port, method, "/api/v1" + path, body, headers, timeout)

    def ready(self):
        return self.runs() and ask(self.port, "GET", "/readyz", timeout=2)[0] == 200

    def figures(self):
        """The cluster's figures on /metrics, those of the runs before included."""
        status, text = ask(self.port, "GET", "/metrics", timeout=5)
        now = {name: int(float(value)) for name, value in re.findall(r"^velmora_cluster_(\w+) ([\d.]+)$", str(text), re.M)} if status == 200 else {}
        return {name: now.get(name, 0) + self.counted.get(name, 0) for name in {*now, *self.counted}}

    def kill(self, number=signal.SIGKILL):
        if self.runs():
            self.counted = {name: value for name, value in self.figures().items() if name.endswith("_total")}
        super().kill(number)


def quoted(name):
    return urllib.parse.quote(name, safe="")
