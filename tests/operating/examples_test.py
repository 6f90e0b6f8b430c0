"""Each example does what it says, with its own configuration."""

import http.client
import json
import os
import pathlib
import shutil
import subprocess
import threading
import unittest
from http.server import BaseHTTPRequestHandler, HTTPServer

import support
from support import eventually


class Hooks(BaseHTTPRequestHandler):
    def do_POST(self):
        self.server.got.append((self.path, json.loads(self.rfile.read(int(self.headers["Content-Length"])))))
        self.send_response(204)
        self.end_headers()

    def log_message(self, *_):
        pass


class Examples(support.Case):
    def run_example(self, name, port=0):
        """The example's server, started in the example's folder, and that folder."""
        folder = self.examples / name
        before = os.getcwd()
        os.chdir(folder)
        self.addCleanup(os.chdir, before)
        return self.serve(folder / "config.json", port), folder

    def lines(self, file, count):
        read = lambda: file.read_text().splitlines() if file.exists() else []
        return eventually(lambda: len(read()) >= count and read(), "%d lines in %s" % (count, file))

    def test_build_hooks(self):
        hooks = HTTPServer(("127.0.0.1", 0), Hooks)
        hooks.got = []
        threading.Thread(target=hooks.serve_forever, daemon=True).start()
        self.addCleanup(hooks.server_close)
        self.addCleanup(hooks.shutdown)
        config = self.examples / "build-hooks" / "config.json"
        config.write_text(config.read_text().replace(":9000", ":%d" % hooks.server_port))
        server, folder = self.run_example("build-hooks")
        build = {"project": "site", "result": "passed"}
        self.assertEqual(server.call("POST", "/api/v1/events/build.finished", build)[0], 202)
        self.assertTrue(self.lines(folder / "builds.log", 1)[0].endswith(" site passed"))
        path, body = eventually(lambda: hooks.got, "the hook is called")[0]
        self.assertEqual((path, body["post_data"], body["listener_data"]), ("/hooks/deploy", build, {"target": "staging"}))

    def test_drop_folder(self):
        _, folder = self.run_example("drop-folder")
        for name in ("a.csv", "b.csv"):
            (folder / "inbox" / ("." + name)).write_text(name)
            (folder / "inbox" / ("." + name)).rename(folder / "inbox" / name)
        done = folder / "done"
        eventually(lambda: done.is_dir() and sorted(os.listdir(done)) == ["a.csv", "b.csv"], "both are taken away")
        self.assertEqual((done / "a.csv").read_text(), "a.csv")
        self.assertEqual(os.listdir(folder / "inbox"), [".README"])

    def test_heartbeat(self):
        server, folder = self.run_example("heartbeat")
        server.call("POST", "/api/v1/events/host.alive", {"host": "silent"})
        alive = lambda: server.call("POST", "/api/v1/events/host.alive", {"host": "alive"})
        eventually(lambda: alive() and (folder / "late.log").exists(), "the silent host is noticed")
        self.assertEqual([line.split()[1] for line in self.lines(folder / "late.log", 1)], ["silent"])

    def test_filtered_chain(self):
        port = support.free_port()
        os.environ["VELMORA_URL"] = "http://127.0.0.1:%d" % port
        self.addCleanup(os.environ.pop, "VELMORA_URL")
        server, folder = self.run_example("filtered-chain", port)
        for value in (81, 80, 5, 99):
            server.call("POST", "/api/v1/events/reading", {"value": value})
        self.assertEqual(self.lines(folder / "high.log", 2), ["81", "99"])

    @unittest.skipUnless(shutil.which("node"), "Node.js is not installed")
    def test_dashboard_counts_by_event(self):
        script = """import { take, inOrder } from "%s";
            const rows = new Map();
            for (const name of ["b", "a", "c", "a"]) take(rows, JSON.stringify({ event_name: name, timestamp: "t", post_data: { n: 1 } }));
            console.log(JSON.stringify(inOrder(rows)));""" % (self.examples / "dashboard" / "dashboard.mjs").as_uri()
        said = subprocess.run(["node", "--input-type=module", "-e", script], text=True, capture_output=True, check=True)
        rows = json.loads(said.stdout)
        self.assertEqual([(name, row["count"]) for name, row in rows], [("a", 2), ("b", 1), ("c", 1)])
        self.assertEqual(rows[0][1], {"count": 2, "last": "t", "data": '{"n":1}'})

    def test_pages_name_every_example(self):
        page = (support.SOURCE / "docs" / "examples.md").read_text()
        for entry in (support.SOURCE / "examples").iterdir():
            self.assertIn("../examples/%s" % entry.name, page)


if __name__ == "__main__":
    unittest.main()
