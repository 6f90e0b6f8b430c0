"""The terminal client against a real server: what it does, prints and exits with."""

import http.client
import json
import os
import shutil
import subprocess
import threading
import unittest

import support

TOKEN = "a-token-of-the-test"


class Terminal(support.ServerCase):
    configuration = {"AccessToken": TOKEN, "Destinations": [{"Match": "http://127.0.0.1:1/", "Attempts": 2, "Backoff_ms": 1}]}

    def run_client(self, *arguments, stdin="", **environment):
        known = {"PATH": os.environ["PATH"], "VELMORA_URL": self.server.url, "VELMORA_TOKEN": TOKEN,
                 "HOME": self.server.folder.name, **environment}
        return subprocess.run([os.environ["VELMORA_TERMINAL"], *arguments], input=stdin, text=True,
                              capture_output=True, env=known, timeout=support.PATIENCE_SEC)

    def done(self, *arguments, **more):
        run = self.run_client(*arguments, **more)
        self.assertEqual((run.returncode, run.stderr), (0, ""), arguments)
        return run.stdout

    def test_registers_lists_and_removes(self):
        self.done("events", "add", "a/b c", "--data", '{"x": 1e400, "10": 9007199254740993}')
        self.assertIn('{"x":1e400,"10":9007199254740993}', self.done("events", "list"))
        listener = self.done("listeners", "add", "a/b c", "http://127.0.0.1:1/x", "--data", "-", stdin='{"k": 1.0}').strip()
        self.assertIn(listener, self.done("listeners", "list", "a/b c"))
        timer = self.done("timers", "add", "a/b c", "--every", "3600").strip()
        later = self.done("timers", "add", "a/b c", "--in", "600").strip()
        self.assertRegex(self.done("timers", "list"), rf"{timer}.* 3600[\s\S]*{later}  a/b c  \d{{4}}-")
        self.done("watches", "add", "/", "a/b c", "--once")
        self.assertIn("/", self.done("watches", "list"))
        whole = json.loads(self.done("--json", "events", "list"))
        self.assertEqual(whole["event_list"][0]["listener_list"][0]["id"], listener)
        for arguments in (("listeners", "remove", "a/b c", listener), ("timers", "remove", timer), ("timers", "remove", "--all"),
                          ("watches", "remove", "/"), ("events", "remove", "a/b c")):
            self.done(*arguments)
        self.assertEqual(self.done("events", "list").splitlines(), ["EVENT  LISTENERS  DATA"])

    def test_posts_and_tails_across_a_restart(self):
        self.done("events", "add", "order.new")
        self.done("events", "add", "other")
        tail = subprocess.Popen(
            [os.environ["VELMORA_TERMINAL"], "--json", "tail", "--event", "order.*"], text=True,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            env={"VELMORA_URL": self.server.url, "VELMORA_TOKEN": TOKEN})
        self.addCleanup(tail.stdout.close)
        self.addCleanup(tail.wait)
        self.addCleanup(tail.kill)
        got = []
        threading.Thread(target=lambda: got.extend(map(json.loads, tail.stdout)), daemon=True).start()

        def post(data):
            self.done("post", "other")
            return self.done("post", "order.new", data).strip()

        # Until it is there it cannot see a posting; what comes behind the restart has another epoch.
        support.eventually(lambda: post('{"n": 1}') and got, "the tail prints")
        self.server.kill()
        self.server.start()
        support.eventually(lambda: self.metric("velmora_feed_clients") > 0, "the tail has connected again")
        ids = [post('{"n": 2}') for _ in range(2)]
        support.eventually(lambda: got[-1]["id"] == ids[-1], "it goes on")
        self.assertEqual([message["id"] for message in got[-2:]], ids)
        self.assertEqual({message["posting"]["event_name"] for message in got}, {"order.new"})
        behind = self.done("--json", "tail", "--event", "order.*", "--after", ids[0], "--count", "1")
        self.assertEqual(json.loads(behind)["id"], ids[1])

    def metric(self, name):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=support.PATIENCE_SEC)
        connection.request("GET", "/metrics")
        text = connection.getresponse().read().decode()
        connection.close()
        for line in text.splitlines():
            if line.startswith(name + " "):
                return float(line.split()[1])
        raise AssertionError("no metric " + name)

    def test_lists_deliveries_sends_them_again_and_dismisses_them(self):
        self.done("events", "add", "d")
        self.done("listeners", "add", "d", "http://127.0.0.1:1/x")
        self.done("post", "d")
        dead = support.eventually(lambda: [line for line in self.done("deliveries", "--failed").splitlines() if "  dead  " in line],
                                  "a dead delivery")
        delivery = dead[0].split()[0]
        self.assertIn("  d  ", dead[0])
        self.assertEqual(self.done("--json", "deliveries", "--event", "other").count(delivery), 0)
        self.done("deliveries", "--resend", delivery)
        support.eventually(lambda: "  dead  " in self.done("deliveries", "--failed"), "dead again")
        self.done("deliveries", "--dismiss", delivery)
        self.assertNotIn(delivery, self.done("deliveries"))
        self.assertIn("There is no delivery", self.run_client("deliveries", "--resend", delivery).stderr)

    def test_moves_the_state(self):
        self.done("events", "add", "kept", "--data", '{"n": 12345678901234567890}')
        exported = self.server.path("exported.json")
        self.done("state", "export", exported)
        self.done("events", "remove", "--all")
        self.assertIn("+ event kept", self.done("state", "import", exported, "--preview"))
        self.assertEqual(self.run_client("events", "remove", "kept").returncode, 3)
        self.assertIn("1 events, 0 listeners", self.done("state", "import", exported))
        self.assertIn("12345678901234567890", self.done("events", "list"))

    def test_says_what_is_wrong_and_exits_with_it(self):
        def fails(code, text, *arguments, **more):
            run = self.run_client(*arguments, **more)
            self.assertEqual(run.returncode, code, (arguments, run.stderr))
            self.assertIn(text, run.stderr)
            self.assertEqual(run.stdout, "")

        settings = self.server.path("settings.json")
        with open(settings, "w", encoding="utf-8") as file:
            json.dump({"Address": self.server.url, "Token": TOKEN}, file)
        os.chmod(settings, 0o644)
        fails(1, "--help lists", "nonsense")
        fails(1, "no JSON", "post", "x", '{"a": }')
        fails(1, "no JSON object", "post", "x", "[1]")
        fails(1, "Name what to remove", "events", "remove")
        fails(1, "can be read by others", "status", "--settings", settings, VELMORA_TOKEN="")
        fails(1, "no address of a server", "status", VELMORA_URL="ftp://x")
        fails(2, "/callback", "listeners", "add", "e", "ftp://x") if self.done("events", "add", "e") == "" else None
        fails(3, 'no event "nope"', "post", "nope")
        fails(4, "", "events", "list", VELMORA_TOKEN="wrong")
        fails(5, "does not answer", "events", "list", VELMORA_URL="http://127.0.0.1:1")
        os.chmod(settings, 0o600)
        self.assertIn("ready", self.done("status", "--settings", settings, VELMORA_TOKEN="", VELMORA_URL=""))

    # What each shell offers behind some words, in its own terms. zsh's editor is not there: its builtins are stood in for.
    SHELLS = {
        "bash": ["bash", "-c", 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _velmora; echo "${COMPREPLY[@]}"'],
        "zsh": ["zsh", "-fc", 'compdef() {}; _files() {}; compadd() { shift; print -r -- ${(M)@:#$PREFIX*} }; source "$0"; '
                'words=("$@"); CURRENT=$#; PREFIX=$words[-1]; _velmora'],
        "fish": ["fish", "--no-config", "-c", 'source $argv[1]; complete -C (string join " " -- $argv[2..-1])'],
    }

    def test_completes_in_every_shell_and_has_a_manual(self):
        common = {"--server", "--token-file", "--ca-file", "--insecure", "--settings", "--json"}
        for shell, program in self.SHELLS.items():
            if not shutil.which(shell):
                continue
            script = os.path.join(self.server.folder.name, "completion." + shell)
            with open(script, "w") as file:
                file.write(self.done("completion", shell))
            for typed, offered in {("t",): {"tail", "timers"}, ("timers", "add", "--"): common | {
                    "--help", "--at", "--in", "--every", "--data"}, ("--server", "post", "--json", "stat"): {"state", "status"},
                    ("post", "list", "--d"): set(), ("events", "remove", "--a"): {"--all"}, ("completion", "z"): {"zsh"}}.items():
                said = subprocess.run([*program, script, "velmora", *typed], text=True, capture_output=True, cwd=self.server.folder.name,
                                      env={**os.environ, "HOME": self.server.folder.name})
                words = {line.split("\t")[0] for line in said.stdout.split("\n")} if shell == "fish" else said.stdout.split()
                self.assertEqual((set(words) - {""}, said.stderr), (offered, ""), (shell, typed))
        self.assertIn(".SS \"velmora state import FILE\"", self.done("manual"))


if __name__ == "__main__":
    unittest.main()
