"""A server with a configuration, and a listener that answers as the test tells it."""

import http.client
import http.server
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time

SERVER = os.environ.get("VELMORA_SERVER", "")
PATIENCE_SEC = 60


class Listener:
    """`answers[path]`: what the calls of a path are answered with, one after the other, the last one for all further ones:
    a status, or a status with headers."""

    def __init__(self, tls=None):
        listener = self
        self.answers, self.calls = {}, []

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
                listener.calls.append((self.path, self.headers, body, time.monotonic()))
                status, headers = listener.answer(self.path, body)
                self.send_response(status)
                for name, value in {**headers, "Content-Length": "6"}.items():
                    self.send_header(name, value)
                self.end_headers()
                self.wfile.write(b"answer")

            do_GET = do_POST

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        if tls:
            self.server.socket = tls.wrap_socket(self.server.socket, server_side=True, do_handshake_on_connect=False)
        self.server.handle_error = lambda *_: None
        self.url = "http%s://127.0.0.1:%d" % ("s" if tls else "", self.server.server_port)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def answer(self, path, _body):
        answers = self.answers.get(path, [200])
        answer = answers.pop(0) if len(answers) > 1 else answers[0]
        return answer if isinstance(answer, tuple) else (answer, {})

    def of(self, path):
        return [call for call in list(self.calls) if call[0] == path]

    def close(self):
        self.server.shutdown()
        self.server.server_close()


class Server:
    def __init__(self, config, start=True):
        self.process = None
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velmora-test-"))
        self.config = self.folder / "config.json"
        self.config.write_text(json.dumps({"StateFile": "state.json", **config}))
        if start:
            self.start()

    def start(self):
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen([SERVER, "--config", str(self.config)], stdout=subprocess.PIPE, stderr=log,
                                            text=True)
        self.port = int(re.search(r":(\d+)$", self.process.stdout.readline().strip()).group(1))

    def end(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        status = self.process.wait(PATIENCE_SEC)
        self.process.stdout.close()
        return status

    def close(self):
        if self.process and self.process.poll() is None:
            self.end()
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        return (self.folder / "log").read_text(errors="replace")

    def ask(self, method, path, body=None, root="/api/v1"):
        """Status and document of the answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE_SEC)
        try:
            headers = {"Content-Type": "application/json"} if body is not None else {}
            connection.request(method, root + path, None if body is None else json.dumps(body), headers)
            answer = connection.getresponse()
            text = answer.read()
            return answer.status, json.loads(text) if text else None
        finally:
            connection.close()

    def deliveries(self, query=""):
        return self.ask("GET", "/deliveries" + query)[1]["deliveries"]

    def delivery(self, callback, **wanted):
        """The newest delivery of a callback, once it is as wanted."""

        def look():
            found = [entry for entry in self.deliveries() if entry["url"] == callback]
            return found[0] if found and wanted.items() <= found[0].items() else None

        return until(look)

    def listener(self, event, callback):
        listeners = self.ask("GET", "/events/%s/listeners" % event)[1]["listener_list"]
        return next(entry for entry in listeners if entry["callback"] == callback)


def until(look):
    """What `look` answers once that is true."""
    deadline = time.monotonic() + PATIENCE_SEC
    while time.monotonic() < deadline:
        found = look()
        if found:
            return found
        threading.Event().wait(0.01)
    raise AssertionError("nothing came within %d seconds" % PATIENCE_SEC)


def event(name, *callbacks):
    return {"event_name": name, "listener_list": [{"callback": each, "listener_data": {"l": 1}} for each in callbacks]}
