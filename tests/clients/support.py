"""A velmora-server of its own for each test class, for the tests of the clients."""

import http.client
import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading
import time
import unittest

PATIENCE_SEC = 30


def eventually(condition, what, patience=PATIENCE_SEC):
    """Waits until the condition holds and returns what it gave."""
    deadline = time.monotonic() + patience
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {patience} s: {what}")
        time.sleep(0.01)


class Server:
    """The process; start() may be called again after kill()."""

    def __init__(self, **configuration):
        self.folder = tempfile.TemporaryDirectory()
        self.port = 0
        self.configuration = {"StateFile": self.path("state.json"), **configuration}
        self.process = None

    def path(self, name):
        return str(pathlib.Path(self.folder.name) / name)

    def start(self):
        self.configuration["BindAddress"] = {"ListenPort": self.port}
        config = pathlib.Path(self.path("config.json"))
        config.write_text(json.dumps(self.configuration))
        self.process = subprocess.Popen(
            [os.environ["VELMORA_SERVER"], "--config", str(config)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        for line in self.process.stdout:
            found = re.search(r"Listening on (http://[^:]+:(\d+))", line)
            if found:
                self.url, self.port = found.group(1), int(found.group(2))
                break
        else:
            raise AssertionError("the server did not start")
        self.reader = threading.Thread(target=self.process.stdout.read, daemon=True)  # it must not fill the pipe
        self.reader.start()

    def kill(self, with_signal=signal.SIGKILL):
        self.process.send_signal(with_signal)
        self.process.wait(PATIENCE_SEC)
        self.reader.join()
        self.process.stdout.close()

    def end(self):
        if self.process.poll() is None:
            self.kill()
        self.folder.cleanup()

    def request(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE_SEC)
        headers = {"Content-Type": "application/json"} if body is not None else {}
        token = self.configuration.get("AccessToken")
        if token:
            headers["Authorization"] = "Bearer " + token
        connection.request(method, "/api/v1" + path, None if body is None else json.dumps(body), headers)
        answer = connection.getresponse()
        text = answer.read()
        connection.close()
        return answer.status, json.loads(text) if text else None


class ServerCase(unittest.TestCase):
    configuration = {}

    def setUp(self):
        self.server = Server(**self.configuration)
        self.server.start()
        self.addCleanup(self.server.end)
