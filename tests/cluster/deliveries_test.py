"""Retries and dead deliveries of a cluster outlive the nodes: two nodes on one engine, and a destination that fails."""

import http.server
import json
import pathlib
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import support


class Destination:
    """Answers 503 as long as it is to fail, and notes each call."""

    def __init__(self):
        destination = self
        self.fails, self.calls = True, []

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
                destination.calls.append((self.path, body["post_data"]["n"], self.headers.get("webhook-id"), time.monotonic()))
                self.send_response(503 if destination.fails else 200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = "http://127.0.0.1:%d" % self.server.server_port
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def of(self, path):
        return [call for call in list(self.calls) if call[0] == path]

    def close(self):
        self.server.shutdown()
        self.server.server_close()


class DeliveriesTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-cluster-")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.destination = Destination()
        self.addCleanup(self.destination.close)
        self.engine = support.Engine(self.folder, "n", [0], 0)
        self.addCleanup(self.engine.kill)
        self.engine.start()
        support.eventually("the engine is healthy", self.engine.healthy)
        secret = "whsec_" + "QUJD" * 8
        others = {"Deliveries": {}, "Destinations": [
            {"Match": self.destination.url + "/later", "Attempts": 9, "Backoff_ms": 5000, "SigningSecret": secret},
            {"Match": "", "Attempts": 2, "Backoff_ms": 50, "SigningSecret": secret}]}
        cluster = {"Name": "plant", "Servers": [self.engine.url()]}
        self.nodes = [support.Node(self.folder, name, cluster, **others) for name in "ab"]
        for node in self.nodes:
            self.addCleanup(node.kill)
            node.start()
        self.ready()

    def ready(self):
        for node in self.nodes:
            support.eventually("the node is ready", node.ready)

    def register(self, name, path):
        self.assertEqual(self.nodes[0].call("POST", "/events", {"event_name": name})[0], 201)
        listener = {"callback": self.destination.url + path, "listener_data": {"x": 1}}
        self.assertEqual(self.nodes[0].call("POST", f"/events/{name}/listeners", listener)[0], 201)

    def post(self, name, number):
        status, answer = self.nodes[1].call("POST", "/events/" + name, {"n": number})
        self.assertEqual(status, 202)
        return answer["id"]

    def listed(self, node, **wanted):
        """The deliveries that a node lists, as far as they are as wanted."""
        status, answer = node.call("GET", "/deliveries")
        return [entry for entry in answer["deliveries"] if wanted.items() <= entry.items()] if status == 200 else []

    def everywhere(self, count, **wanted):
        """One node's entries, once each node lists so many of them."""
        support.eventually(f"each node lists {count} of {wanted}",
                           lambda: all(len(self.listed(node, **wanted)) == count for node in self.nodes if node.runs()))
        return self.listed(next(node for node in self.nodes if node.runs()), **wanted)

    def test_a_retry_outlives_the_node_that_made_the_attempt(self):
        self.register("e", "/later")
        posted = self.post("e", 1)
        waiting = self.everywhere(1, outcome="waiting", attempt=1, status=503)[0]
        self.assertEqual(waiting["posting_id"], posted)
        # The posting's call has ended: whoever dies now, nobody calls anew from the posting.
        support.eventually("the posting is acknowledged", lambda: self.consumer("plant_postings", "plant_calls")["num_ack_pending"] == 0)
        caller = max(self.nodes, key=self.attempts)
        caller.kill()
        self.destination.fails = False
        done = self.everywhere(1, outcome="ok", id=waiting["id"])[0]
        calls = list(self.destination.calls)
        self.assertEqual(len(calls), done["attempt"], "from where the other had come to")
        self.assertEqual(len({call[2] for call in calls}), 1, "webhook-id")
        self.assertGreater(calls[1][3] - calls[0][3], 2, "not before it was due")
        caller.start()
        self.ready()
        self.everywhere(0, outcome="waiting")
        self.assertEqual(len(self.destination.calls), len(calls))

    def attempts(self, node):
        return sum(listener.get("status", {}).get("calls", 0) for listener in node.call("GET", "/events/e/listeners")[1]["listener_list"])

    def consumer(self, stream, name):
        return next(each for each in self.engine.streams(True)[stream]["consumer_detail"] if each["name"] == name)

    def test_dead_ones_are_everybodys_over_the_end_of_all_nodes(self):
        self.register("e", "/dead")
        for number in (1, 2, 3):
            self.post("e", number)
        dead = [entry["id"] for entry in self.everywhere(3, outcome="dead", attempt=2)]
        for node, how in zip(self.nodes, (signal.SIGKILL, signal.SIGTERM)):
            node.kill(how)
        for node in self.nodes:
            node.start()
        self.ready()
        self.assertEqual([entry["id"] for entry in self.everywhere(3, outcome="dead", attempt=2)], dead)
        self.assertEqual(self.nodes[0].call("GET", "/deliveries/" + dead[0])[1]["status"], 503)
        self.destination.fails = False
        self.assertEqual(self.nodes[0].call("DELETE", "/deliveries/" + dead[0])[0], 204)
        self.assertEqual(self.nodes[1].call("POST", f"/deliveries/{dead[1]}/resend")[0], 202)
        self.everywhere(1, outcome="ok", attempt=1, id=dead[1])
        self.everywhere(1, outcome="dead", id=dead[2])
        self.everywhere(0, id=dead[0])
        # A listener that is deleted takes its retries along, wherever they were made.
        self.destination.fails = True
        self.register("f", "/later")
        self.post("f", 4)
        self.everywhere(1, outcome="waiting", attempt=1, event_name="f")
        self.assertEqual(self.nodes[0].call("DELETE", "/events/f")[0], 204)
        self.everywhere(0, outcome="waiting")
        calls = len(self.destination.of("/later"))
        # Nothing is left for the engine to hand out.
        support.eventually("nothing is handed out any more", lambda: self.consumer("plant_deliveries", "plant_attempts")["num_ack_pending"] == 0)
        self.assertEqual(len(self.destination.of("/later")), calls)

    def test_the_journal_does_not_go_with_a_cluster(self):
        config = pathlib.Path(self.folder) / "both.json"
        config.write_text(json.dumps({"Cluster": {"Name": "plant", "Node": "x", "Servers": [self.engine.url()]}, "Deliveries": {"Journal": "j.db"}}))
        done = subprocess.run([support.SERVER, "--config", str(config), "--check"], capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 1)
        self.assertIn('/Deliveries/Journal: cannot stand beside "Cluster"', done.stderr)


if __name__ == "__main__":
    unittest.main()
