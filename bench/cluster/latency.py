"""Starts three nats-servers and three nodes and lets latency.mjs measure; prints what it prints, and what a node needs
of memory beside a single server. Usage, behind a run of tests/cluster/run.sh: latency.py [COUNT]"""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
CLIENT = HERE.parents[1] / "build/cluster"  # where tests/cluster/run.sh has installed the engine's client
sys.path.insert(0, str(HERE.parents[1] / "tests/cluster"))
import support  # noqa: E402


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
    try:
        for engine in engines:
            engine.start()
        support.eventually("the engine is whole", lambda: all(engine.healthy() for engine in engines))
        for node in nodes:
            node.start()
        for node in nodes:
            support.eventually("the node is ready", node.ready)
        single.run([support.SERVER])
        nodes[0].call("POST", "/events", {"event_name": "e"})
        subprocess.run(["node", shutil.copy(HERE / "latency.mjs", CLIENT), urls[0], str(nodes[0].port), str(nodes[1].port), "e",
                        *sys.argv[1:]], check=True)
        print(json.dumps({"node_mb": round(memory_mb(nodes[2]), 1), "single_mb": round(memory_mb(single), 1)}))
    finally:
        for process in [*nodes, single, *engines]:
            process.kill()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
