"""Python handlers: what docs/handlers.md says one does first, what is told of them, and how they are loaded anew."""

import importlib.util
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "deliveries"))
from support import SERVER, Server, event, until

PYTHON2 = os.environ.get("VELMORA_PYTHON", "3").startswith("2")  # the server's
PAGE = ROOT / "docs" / "handlers.md"
GOOD = "import velmora\ndef event_handler(payload):\n    velmora.log('notice', 'version %d')\n"


class HandlerTest(unittest.TestCase):
    def serve(self, modules, **config):
        self.server = Server({}, start=False)
        self.addCleanup(self.server.close)
        self.folder = self.server.folder / "handlers"
        self.folder.mkdir()
        for name, text in modules.items():
            (self.folder / (name + ".py")).write_text(text)
        events = [event("e", *["python://" + name for name in modules])]
        self.server.config.write_text(json.dumps({"PythonPath": ["handlers"], "EventManager": {"event_list": events}, **config}))
        self.server.start()

    def post(self, name="e", data=None):
        self.assertEqual(self.server.ask("POST", "/events/" + name, data or {})[0], 202)

    def shell(self, text):
        """What the lines of the page print, with the server that runs here and the module as it is in the sources."""
        for ours, theirs in (("velmora-server", SERVER), (":8080", ":%d" % self.server.port), ("python3 -m pytest", sys.executable + " -B -m pytest -q"),
                             ("/usr/share/velmora/python", str(ROOT / "velmora" / "python"))):
            text = text.replace(ours, theirs)
        done = subprocess.run(["bash", "-ec", text], cwd=self.server.folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def test_what_the_page_says_works(self):
        snippets = re.findall(r"```(\w+)\n(.*?)```", PAGE.read_text(), re.DOTALL)
        handler, threads, logs, tests = (text for kind, text in snippets if kind == "python")
        check, post, pytest, reload, _environment = (text for kind, text in snippets if kind == "sh")
        config, reloaded, _paths = (json.loads(text) for kind, text in snippets if kind == "json")
        logs += "\n\ndef event_handler(payload):\n    logging.getLogger('orders').info('by logging')\n"
        others = ["logs"] if PYTHON2 else ["logs", "threads"]
        config["EventManager"]["event_list"].append(event("others", *["python://" + name for name in others]))
        self.serve({"orders": handler, "threads": threads, "logs": logs}, **{**config, "BindAddress": {"ListenPort": 0}, "Deliveries": {}})
        (self.server.folder / "server.json").write_text(json.dumps({**config, "BindAddress": {"ListenPort": 0}}))
        self.assertIn("The configuration is fine.", self.shell(check.splitlines()[0]))
        self.assertIn('"posted":true', self.shell(post))
        self.assertIn("[python://orders] order 7 of corner", self.server.log())
        until(lambda: [entry["event_name"] for entry in self.server.ask("GET", "/history")[1]["history"]] == ["order", "large_order"])
        self.assertIn('"event_name":"large_order"', self.shell(post.splitlines()[1]))
        self.post("others")
        for name in others:
            self.server.delivery("python://" + name, outcome="ok")
        self.assertIn("by logging", self.server.log())
        (self.folder / "orders.py").write_text(handler + "\n")
        self.assertEqual(json.loads(self.shell(reload)), reloaded)
        if importlib.util.find_spec("pytest"):
            (self.server.folder / "test_orders.py").write_text(tests)
            self.assertIn("2 passed", self.shell(pytest))

    def test_what_goes_wrong_is_told_everywhere(self):
        later = "import asyncio\nasync def event_handler(p):\n    await asyncio.sleep(0)\n    raise KeyError('late')\n"
        self.serve({"syntax": "def event_handler(:\n", "imports": "import not_there\n", "raises": "def event_handler(p):\n    1 / 0\n",
                    "slow": "import time\ndef event_handler(p):\n    time.sleep(.005)\n",
                    **({} if PYTHON2 else {"later": later})},
                   Deliveries={}, Python={"SlowHandler_ms": 1})
        self.post()
        told = (("syntax", "SyntaxError", "event_handler(:"), ("imports", "not_there", "import not_there"),
                                        ("raises", "ZeroDivisionError", "1 / 0"), ("later", "KeyError: 'late'", "raise KeyError"))
        for name, reason, traceback in told[:3] if PYTHON2 else told:
            entry = self.server.delivery("python://" + name, outcome="failed", method="CALL")
            self.assertIn(reason, entry["reason"], name)
            self.assertIn(traceback, self.server.ask("GET", "/deliveries/" + entry["id"])[1]["traceback"], name)
            self.assertEqual(self.server.listener("e", "python://" + name)["status"]["failures_in_a_row"], 1)
        slow = self.server.delivery("python://slow", outcome="ok")
        self.assertEqual(self.server.ask("DELETE", "/events/e/listeners/" + slow["listener_id"])[0], 204)
        self.assertEqual(self.server.ask("POST", "/deliveries/%s/resend" % slow["id"])[0], 409, "the listener is gone")
        log = self.server.log()
        self.assertIn('Unable to locate Python module "syntax"', log)
        self.assertRegex(log, r"WARN .*slow.*")
        self.assertRegex(log, r"\[python://raises\]     1 / 0\n")

    def test_a_request_or_a_signal_takes_a_new_version_and_keeps_the_old_where_that_fails(self):
        self.serve({"m": GOOD % 1})
        self.post()
        (self.folder / "m.py").write_text(GOOD % 22)
        self.post()
        self.assertEqual(len(re.findall("version 1$", self.server.log(), re.MULTILINE)), 2, "nothing is loaded unasked")
        self.assertEqual(self.server.ask("POST", "/handlers/reload")[1], {"reloaded": ["m"], "failed": []})
        self.post()
        self.assertIn("version 22", self.server.log())
        (self.folder / "m.py").write_text("def event_handler(:  # broken\n")
        failed = self.server.ask("POST", "/handlers/reload")[1]["failed"]
        self.assertIn("SyntaxError", failed[0]["traceback"])
        self.post()
        self.assertEqual(len(re.findall("version 22$", self.server.log(), re.MULTILINE)), 2)
        (self.folder / "m.py").write_text(GOOD % 333)
        self.server.process.send_signal(signal.SIGHUP)
        until(lambda: self.post() or "version 333" in self.server.log())

    def test_with_reload_the_next_posting_takes_it(self):
        self.serve({"m": GOOD % 1}, Python={"Reload": True})
        self.post()
        (self.folder / "m.py").write_text(GOOD % 22)
        self.post()
        self.assertIn("version 22", self.server.log())


if __name__ == "__main__":
    unittest.main()
