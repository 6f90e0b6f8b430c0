"""Starts three nats-servers and three nodes and lets latency.mjs measure; prints what it prints, how long a node's death
takes to be noticed by its calls, and what a node needs of memory beside a single server. Usage: latency.py [COUNT]"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import http.server
import time

import support


class Slow(http.server.BaseHTTPRequestHandler):
    """Holds the first call until its node is dead, and tells when the next one comes."""

    came, again = threading.Event(), threading.Event()

    def do_GET(self):
        if not Slow.came.is_set():
            Slow.came.set()
            Slow.again.wait(60)
        else:
            Slow.again.set()
        try:
            self.send_response(200)
            self.end_headers()
        except OSError:
            pass

    do_POST = do_GET

    def log_message(self, *_):
        pass


def memory_mb(process):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{process.process.pid}/status").read_text()).group(1)) / 1024


def main():
    folder = tempfile.mkdtemp(prefix="velmora-latency-")
    routes = [support.free_port() for _ in range(3)]
    engines = [support.Engine(folder, f"n{i}", routes, i) for i in range(3)]
    urls = [engine.url() for engine in engines]
    nodes = [support.Node(folder, name, {"Name": "bench", "Servers": urls[i:] + urls[:i], "Replicas": 3}, Timeout_ms=60000)
             for i, name in enumerate("abc")]
    single = support.Process(folder, "single")
    listener = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Slow)
    threading.Thread(target=listener.serve_forever, daemon=True).start()
    try:
        for engine in engines:
            engine.start()
        support.eventually("the engine is whole", lambda: all(engine.healthy() for engine in engines))
        for node in nodes:
            node.start()
        for node in nodes:
            support.eventually("the node is ready", node.ready)
        single.run([support.SERVER])
        for name in ("e", "slow"):
            nodes[0].call("POST", "/events", {"event_name": name})
        subprocess.run(["node", os.environ["NATS_CLIENT"].replace("nats-client", "latency"), urls[0], str(nodes[0].port), str(nodes[1].port), "e",
                        *sys.argv[1:]], check=True)
        print(json.dumps({"node_mb": round(memory_mb(nodes[2]), 1), "single_mb": round(memory_mb(single), 1)}))

        nodes[0].call("POST", "/events/slow/listeners", {"callback": f"http://127.0.0.1:{listener.server_address[1]}/x"})
        nodes[0].call("POST", "/events/slow", {})
        Slow.came.wait(30)
        victim = support.eventually("a node calls", lambda: next((node for node in nodes if node.figures().get("running_calls")), None))
        victim.kill()
        began = time.monotonic()
        Slow.again.wait(60)
        print(json.dumps({"taken_over_after_sec": round(time.monotonic() - began, 1)}))
    finally:
        for process in [*nodes, single, *engines]:
            process.kill()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
