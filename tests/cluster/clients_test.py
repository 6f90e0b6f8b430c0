"""Other people's clients of the engine: the npm package nats, and Mosquitto's through nats-server's MQTT listener."""

import os
import shutil
import subprocess
import tempfile
import unittest

import support

NATS_CLIENT = os.environ.get("NATS_CLIENT")


class OthersTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-cluster-")
        self.mqtt = support.free_port()
        self.engine = support.Engine(self.folder, "n", [0], 0, f"mqtt {{ listen: 127.0.0.1:{self.mqtt} }}\n")
        self.node = support.Node(self.folder, "a", {"Name": "plant", "Servers": [self.engine.url()]})
        self.engine.start()
        self.node.start()
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.addCleanup(self.engine.kill)
        self.addCleanup(self.node.kill)
        support.eventually("the node is ready", self.node.ready)
        self.assertEqual(self.node.call("POST", "/events", {"event_name": "e"})[0], 201)

    def run_beside(self, arguments):
        process = subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def posted(self):
        return [record.get("post_data", {}).get("n") for record in self.node.call("GET", "/history")[1]["history"]]

    def post(self, n):
        self.assertEqual(self.node.call("POST", "/events/e", {"n": n})[0], 202)

    @unittest.skipUnless(NATS_CLIENT, "tests/cluster/run.sh installs the client")
    def test_a_nats_client_posts_and_listens(self):
        client = self.run_beside(["node", NATS_CLIENT, self.engine.url(), "plant.events.e"])
        self.assertEqual(client.stdout.readline().strip(), "listening")
        self.assertRegex(client.stdout.readline(), "stored plant_postings ")
        self.post("last")
        rest = client.stdout.read()
        self.assertIn('heard {"n":"from nats"}', rest)
        self.assertIn('heard {"n":"last"}', rest)
        support.eventually("the history has both", lambda: self.posted() == ["from nats", "last"])

    @unittest.skipUnless(shutil.which("mosquitto_pub"), "mosquitto-clients is not installed")
    def test_an_mqtt_client_posts_and_listens(self):
        place = ["-h", "127.0.0.1", "-p", str(self.mqtt), "-V", "mqttv311", "-t", "plant/events/e"]
        listener = self.run_beside(["stdbuf", "-oL", "mosquitto_sub", *place, "-C", "3", "-d"])
        for line in listener.stdout:
            if "SUBACK" in line:
                break
        for qos in ("0", "1"):
            subprocess.run(["mosquitto_pub", *place, "-q", qos, "-m", '{"n": "qos %s"}' % qos], check=True, timeout=60)
        support.eventually("both are posted", lambda: sorted(self.posted()) == ["qos 0", "qos 1"])
        self.post("last")
        heard = listener.stdout.read()
        for text in ("qos 0", "qos 1", "last"):
            self.assertIn(text, heard)

    def test_what_posts_nothing_is_counted_and_logged(self):
        for subject, body in (("e", "no JSON"), ("e", "[1]"), ("=4", ""), ("e", '{"n": "well"}')):
            self.engine.publish("plant.events." + subject, body)
        support.eventually("what is right is posted", lambda: self.posted() == ["well"])
        self.assertEqual(self.node.figures()["malformed_total"], 3)
        log = self.node.log.read_text()
        self.assertEqual(log.count("posts nothing"), 3, log)
        self.assertIn('on "plant.events.=4" posts nothing: its subject names no event', log)


if __name__ == "__main__":
    unittest.main()
