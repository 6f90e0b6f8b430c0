"""A velmora-server for the tests of what operators are given, started with a configuration of the examples or another."""

import http.client
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SERVER = os.environ["VELMORA_SERVER"]
PATIENCE_SEC = 30


def eventually(condition, what):
    """Waits until the condition holds and returns what it gave."""
    deadline = time.monotonic() + PATIENCE_SEC
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError("not within %d s: %s" % (PATIENCE_SEC, what))
        time.sleep(0.01)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """One run of the server with the configuration file, on a port of its own."""

    def __init__(self, config, port=0):
        self.process = subprocess.Popen([SERVER, "--config", str(config), "--listen", "127.0.0.1:%d" % port], text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.output = []
        self.lines = threading.Thread(target=lambda: self.output.extend(iter(self.process.stdout.readline, "")), daemon=True)
        self.lines.start()
        line = eventually(lambda: next((l for l in self.output if l.startswith("Listening on ")), None) or
                          (self.process.poll() is not None and "".join(self.output)), "the server listens")
        self.port = int(re.search(r"Listening on https?://.*:(\d+)$", line.strip()).group(1))

    def end(self):
        self.process.terminate()
        self.process.wait(PATIENCE_SEC)
        self.lines.join()
        self.process.stdout.close()

    def printed(self, part):
        return any(part in line for line in list(self.output))

    def call(self, method, path, body=None, headers=None, port=None):
        connection = http.client.HTTPConnection("127.0.0.1", port or self.port, timeout=PATIENCE_SEC)
        headers = {"Content-Type": "application/json"} if headers is None else headers
        connection.request(method, path, None if body is None else json.dumps(body), headers)
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        return answer.status, text


class Case(unittest.TestCase):
    """Each test has a folder of its own, with a copy of the examples."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velmora-test-"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.examples = self.folder / "examples"
        shutil.copytree(SOURCE / "examples", self.examples)

    def serve(self, config, port=0):
        server = Server(config, port)
        self.addCleanup(server.end)
        return server
