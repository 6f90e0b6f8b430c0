"""Deliveries as those who run listeners see them."""

import base64
import datetime
import hashlib
import hmac
import json
import resource
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import unittest

from support import Listener, Server, event, until

SECRETS = [b"k" * 32, b"z" * 24]


class DeliveryTest(unittest.TestCase):
    def setUp(self):
        self.listener = Listener()
        self.addCleanup(self.listener.close)

    def serve(self, destinations, *paths, **more):
        callbacks = [path if ":" in path else self.listener.url + path for path in paths]
        destinations = [{**entry, "Match": self.listener.url + entry["Match"]} if entry["Match"] else entry
                        for entry in destinations]
        self.server = Server({"Destinations": destinations, "EventManager": {"event_list": [event("e", *callbacks)]}, **more})
        self.addCleanup(self.server.close)
        return callbacks

    def post(self):
        status, answer = self.server.ask("POST", "/events/e", {"n": 1})
        self.assertEqual(status, 202)
        return answer["id"]

    def test_the_first_entry_that_fits_decides_and_what_may_pass_is_tried_again(self):
        self.listener.answers = {"/flaky": [503, (429, {"Retry-After": "1"}), 408, 425, 200], "/moved": [(302, {"Location": "/elsewhere"})], "/gone": [410], "/wrong": [404], "/dead": [500]}
        flaky, gone, wrong, dead, private, refused, moved = self.serve(
            [{"Match": "/private", "AllowPrivateAddresses": False, "Attempts": 3}, {"Match": "/refused", "Allow": False},
             {"Match": "/flaky", "Attempts": 5, "Backoff_ms": 20}, {"Match": "", "Attempts": 3, "Backoff_ms": 20}],
            "/flaky", "/gone", "/wrong", "/dead", "/private", "/refused", "/moved")
        posting = self.post()
        whole = self.server.delivery(flaky, outcome="ok", attempt=5, attempts=5, status=200, posting_id=posting)
        self.server.delivery(moved, outcome="dead", attempt=1, status=302)
        self.server.delivery(gone, outcome="failed", attempt=1, status=410)
        self.server.delivery(wrong, outcome="dead", attempt=1, status=404)
        self.server.delivery(dead, outcome="dead", attempt=3, status=500)
        self.assertIn("private", self.server.delivery(private, outcome="dead", attempt=1, status=0)["reason"])
        self.assertIn("does not allow", self.server.delivery(refused, outcome="failed", attempt=1)["reason"])
        times = [call[3] for call in self.listener.of("/flaky")]
        self.assertGreaterEqual(times[2] - times[1], 1, "Retry-After")
        self.assertEqual([call for path in ("/private", "/refused", "/elsewhere") for call in self.listener.of(path)], [])

        status, one = self.server.ask("GET", "/deliveries/" + whole["id"])
        self.assertEqual((status, one["answer"]), (200, "answer"))
        self.assertEqual(one["body"].encode(), self.listener.of("/flaky")[0][2])
        status = self.server.listener("e", flaky)["status"]
        self.assertEqual({key: status[key] for key in ("outcome", "calls", "failures", "failures_in_a_row", "retries_waiting")},
                         {"outcome": "ok", "calls": 5, "failures": 4, "failures_in_a_row": 0, "retries_waiting": 0})
        self.assertEqual({entry["callback"] for entry in self.server.ask("GET", "/deliveries")[1]["failing"]},
                         {gone, wrong, dead, private, refused, moved})

    def test_every_attempt_bears_the_same_id_and_a_signature_for_each_secret(self):
        self.listener.answers = {"/hook": [500, 200]}
        secrets = " ".join("whsec_" + base64.b64encode(secret).decode() for secret in SECRETS)
        hook, = self.serve([{"Match": "", "Attempts": 2, "Backoff_ms": 1, "SigningSecret": secrets, "Headers": {"X-Key": "v"}}], "/hook")
        self.post()
        self.server.delivery(hook, outcome="ok")
        calls = self.listener.of("/hook")
        self.assertEqual(len({call[1]["webhook-id"] for call in calls}), 1)
        for _, headers, body, _ in calls:
            signed = ("%s.%s." % (headers["webhook-id"], headers["webhook-timestamp"])).encode() + body
            expected = ["v1," + base64.b64encode(hmac.new(secret, signed, hashlib.sha256).digest()).decode() for secret in SECRETS]
            self.assertEqual((headers["webhook-signature"].split(), headers["X-Key"]), (expected, "v"))
        self.assertEqual(self.reload(lambda text: text)["taken"], [])
        answer = self.reload(lambda text: text.replace(secrets, secrets.split()[1]))
        self.assertEqual((answer["taken"], answer["needs_restart"]), (["/Destinations"], []))
        self.post()
        until(lambda: len(self.listener.of("/hook")) == 3)
        _, headers, body, _ = self.listener.of("/hook")[2]
        signed = ("%s.%s." % (headers["webhook-id"], headers["webhook-timestamp"])).encode() + body
        self.assertEqual(headers["webhook-signature"], "v1," + base64.b64encode(hmac.new(SECRETS[1], signed, hashlib.sha256).digest()).decode())

    def reload(self, edit, status=200):
        self.server.config.write_text(edit(self.server.config.read_text()))
        answered, answer = self.server.ask("POST", "/reload")
        self.assertEqual(answered, status, answer)
        return answer

    def test_a_reload_rules_the_next_attempt_of_what_waits(self):
        self.listener.answers = {"/hook": [500], "/no": [500]}
        hook, no = self.serve([{"Match": "", "Attempts": 9, "Backoff_ms": 3600000}], "/hook", "/no", Deliveries={"Journal": "d.db"})
        self.post()
        waiting = {callback: self.server.delivery(callback, outcome="waiting", attempt=1)["id"] for callback in (hook, no)}
        good = json.loads(self.server.config.read_text())
        for wrong in ({"Match": "", "Attempts": 0}, {"Match": "", "CAFile": "not-there.pem"}):
            self.reload(lambda _, wrong=wrong: json.dumps({**good, "Destinations": [wrong]}), 409)
        self.assertEqual(self.server.delivery(hook, outcome="waiting")["attempts"], 9, "nothing was changed")
        answer = self.reload(lambda _: json.dumps({**good, "Deliveries": {"Journal": "other.db", "Keep": 5}, "Destinations": [
            {"Match": no, "Allow": False}, {"Match": "", "Attempts": 3, "Backoff_ms": 1, "Headers": {"X-Key": "new"}}]}))
        self.assertEqual((answer["taken"], answer["needs_restart"]), (["/Deliveries/Keep", "/Destinations"], ["/Deliveries/Journal"]))
        for one in waiting.values():
            self.assertEqual(self.server.ask("POST", "/deliveries/%s/resend" % one)[0], 202)
        self.server.delivery(hook, outcome="dead", attempt=3, attempts=3, id=waiting[hook])
        self.assertIn("does not allow", self.server.delivery(no, outcome="failed", attempt=1)["reason"])
        self.assertEqual([call[1].get("X-Key") for call in self.listener.of("/hook")], [None, "new", "new"])
        self.assertEqual(self.reload(lambda text: text.replace('"Keep": 5', '"Keep": 5, "MaxAge_sec": 1'))["taken"], ["/Deliveries/MaxAge_sec"])
        until(lambda: not self.server.deliveries("?outcome=dead"))

    def test_more_callers_are_taken_while_the_server_runs(self):
        hold = self.hanging_listener()
        self.serve([], hold + "/slow", Deliveries={}, Limits={"MaxCallers": 2}, Timeout_ms=60000)
        for _ in range(4):
            self.post()
        until(lambda: len(self.hung) == 2)
        self.assertEqual(self.reload(lambda text: text.replace('"MaxCallers": 2', '"MaxCallers": 9'))["taken"], ["/Limits/MaxCallers"])
        until(lambda: len(self.hung) == 4)
        self.server.end(signal.SIGKILL)

    def test_what_the_journal_does_not_take_is_not_answered_as_if_it_were_safe(self):
        self.listener.answers = {"/hook": [500], "/once": [500]}
        hook, once = self.serve([{"Match": "/hook", "Attempts": 9, "Backoff_ms": 3600000}], "/hook", "/once", Deliveries={"Journal": "d.db"})
        self.server.ask("POST", "/events", {"event_name": "f"})
        self.server.ask("POST", "/events/f/listeners", {"callback": once, "listener_data": {"l": 1}})
        self.post()
        self.server.delivery(hook, outcome="waiting", attempt=1)
        full = max(file.stat().st_size for file in self.server.folder.iterdir()) + 100000
        resource.prlimit(self.server.process.pid, resource.RLIMIT_FSIZE, (full, resource.RLIM_INFINITY))
        status, answer = self.server.ask("POST", "/events/e", {"n": "x" * 300000})
        self.assertEqual((status, answer["code"]), (503, "deliveries-not-kept"))
        self.assertRegex(answer["detail"], "posting was made.* the journal d.db cannot be written: ")
        self.assertIn(answer["id"], [record["posting_id"] for record in self.server.deliveries()])
        status, ready = self.server.ask("GET", "/readyz", root="")
        self.assertEqual((status, ready["checks"]["deliveries"]["ok"]), (503, False))
        self.assertEqual(self.server.ask("POST", "/events/f", {})[0], 202, "nothing of it has to be kept")
        resource.prlimit(self.server.process.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        until(lambda: self.server.ask("GET", "/readyz", root="")[0] == 200)
        self.server.end(signal.SIGKILL)
        self.server.start()
        self.assertEqual(len(self.server.deliveries("?outcome=waiting")), 2, "it was written when it could be")

    def test_a_dead_one_stays_over_a_crash_until_it_is_sent_again_or_dismissed(self):
        self.listener.answers = {"/one": [500], "/two": [500]}
        one, two = self.serve([{"Match": "", "Attempts": 2, "Backoff_ms": 1}], "/one", "/two", Deliveries={"Journal": "d.db"})
        self.post()
        dead = {self.server.delivery(callback, outcome="dead")["id"] for callback in (one, two)}
        until(lambda: self.server.listener("e", one)["status"]["calls"] == 2)
        self.server.end()
        self.server.start()
        self.server.end(signal.SIGKILL)
        self.server.start()
        self.assertEqual({entry["id"] for entry in self.server.deliveries("?outcome=dead")}, dead)
        self.assertEqual(self.server.listener("e", one)["status"]["failures_in_a_row"], 2)
        self.listener.answers["/one"] = [200]
        for entry in self.server.deliveries("?outcome=dead"):
            method, path = ("POST", "/resend") if entry["url"] == one else ("DELETE", "")
            self.assertIn(self.server.ask(method, "/deliveries/" + entry["id"] + path)[0], (202, 204))
        self.server.delivery(one, outcome="ok", attempt=1)
        self.assertEqual(self.server.deliveries("?outcome=dead"), [])
        self.server.end(signal.SIGKILL)
        self.server.start()
        self.assertEqual(self.server.deliveries("?outcome=dead"), [])

    def test_certificates_are_checked_both_ways_as_the_entry_says(self):
        folder = tempfile.mkdtemp(prefix="velmora-test-")
        self.addCleanup(shutil.rmtree, folder)
        ours, theirs = (self.certificate(folder, name) for name in ("ours", "theirs"))
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(theirs)
        tls.load_verify_locations(ours)
        tls.verify_mode = ssl.CERT_REQUIRED
        self.listener.close()
        self.listener = Listener(tls)
        shown = {"ClientCertificate": ours, "Timeout_ms": 5000}
        good, unknown, unchecked, nobody = self.serve(
            [{"Match": "/good", "CAFile": theirs, **shown}, {"Match": "/unknown", **shown},
             {"Match": "/unchecked", "VerifyPeer": False, **shown}, {"Match": "/nobody", "CAFile": theirs}],
            "/good", "/unknown", "/unchecked", "/nobody")
        self.post()
        self.server.delivery(good, outcome="ok")
        self.server.delivery(unchecked, outcome="ok")
        self.assertIn("certificate", self.server.delivery(unknown, outcome="failed", status=0)["reason"])
        self.server.delivery(nobody, outcome="failed", status=0)
        self.assertEqual({call[0] for call in self.listener.calls}, {"/good", "/unchecked"})

    def certificate(self, folder, name):
        """A file with a certificate for this machine and its key."""
        path = "%s/%s.pem" % (folder, name)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=" + name, "-addext",
                        "subjectAltName=IP:127.0.0.1", "-keyout", path, "-out", path + ".crt"], check=True, capture_output=True)
        with open(path, "a") as file, open(path + ".crt") as certificate:
            file.write(certificate.read())
        return path

    def test_without_a_journal_the_end_counts_what_is_lost(self):
        self.listener.answers = {"/hook": [500]}
        hook, = self.serve([{"Match": "", "Attempts": 9, "Backoff_ms": 3600000}], "/hook")
        self.post()
        self.post()
        until(lambda: self.server.listener("e", hook).get("status", {}).get("retries_waiting") == 2)
        # The wait grows, but not beyond an hour and a half.
        one = self.server.delivery(hook, outcome="waiting")["id"]
        for attempt in range(2, 6):
            self.assertEqual(self.server.ask("POST", "/deliveries/%s/resend" % one)[0], 202)
            waiting = until(lambda: [entry for entry in self.server.deliveries() if (entry["id"], entry["attempt"]) == (one, attempt) and "next_time" in entry])[0]
        latest = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=5410)
        self.assertLess(datetime.datetime.fromisoformat(waiting["next_time"]), latest)
        self.assertEqual(self.server.end(), 0)
        self.assertIn("2 deliveries that waited for an attempt are lost", self.server.log())

    def test_one_listener_is_tested_and_a_deleted_one_has_no_further_attempt(self):
        self.listener.answers = {"/one": [500]}
        one, two = self.serve([{"Match": "", "Attempts": 9, "Backoff_ms": 3600000}], "/one", "/two")
        listener = self.server.listener("e", one)
        status, answer = self.server.ask("POST", "/events/e/listeners/%s/test" % listener["id"], {"t": 1})
        self.assertEqual(status, 202)
        waiting = self.server.delivery(one, outcome="waiting", id=answer["id"], attempt=1, status=500)
        self.assertIn("next_time", waiting)
        self.assertEqual(self.listener.of("/two"), [])
        self.assertEqual(self.server.ask("GET", "/history")[1]["history"], [])
        self.assertEqual(self.server.ask("DELETE", "/events/e/listeners/" + listener["id"])[0], 204)
        self.assertIn("deleted", self.server.delivery(one, outcome="failed", attempt=1)["reason"])
        self.assertEqual(self.server.ask("GET", "/deliveries")[1]["failing"], [])
        for path, status in (("/deliveries/1", 404), ("/deliveries?before=x", 400), ("/deliveries?outcome=x", 400),
                             ("/deliveries?listener_id=x", 400)):
            self.assertEqual(self.server.ask("GET", path)[0], status, path)

    def test_a_destination_that_hangs_holds_up_nobody_else(self):
        hold = self.hanging_listener()
        slow, quick = self.serve([{"Match": "/", "MaxInFlight": 1}, {"Match": "", "MaxInFlight": 2, "Timeout_ms": 60000}],
                                 hold + "/slow", "/quick", Deliveries={})
        for _ in range(8):
            self.post()
        until(lambda: len(self.listener.of("/quick")) == 8)
        self.assertEqual(len(self.hung), 2)
        self.server.end(signal.SIGKILL)

    def hanging_listener(self):
        listening = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listening.close)
        self.hung = []

        def take():
            try:
                while True:
                    self.hung.append(listening.accept()[0])
            except OSError:
                for connection in self.hung:
                    connection.close()

        threading.Thread(target=take, daemon=True).start()
        return "http://127.0.0.1:%d" % listening.getsockname()[1]


if __name__ == "__main__":
    unittest.main()
