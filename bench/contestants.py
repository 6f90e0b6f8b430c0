"""The processes of a benchmark run: servers on core 0, load on core 1, and the figures that programs print."""

import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
import urllib.request
from pathlib import Path

HERE = Path(__file__).resolve().parent
# As run.sh and the systemd unit start the server; for every contestant alike.
os.environ.setdefault("GLIBC_TUNABLES", "glibc.malloc.hugetlb=1")

BUILD = Path(os.environ.get("VELMORA_BENCH_BUILD", HERE.parent / "build/bench")).resolve()
QUEUE, LOAD = BUILD / "bench/queue_bench", BUILD / "bench/load_bench"
SERVER = BUILD / "server/velmora-server"
PROGRAM_LIMIT_SEC = 90


class ProgramFailed(Exception):
    """A measuring program ended with an error; the text is its standard error."""


def pinned(core, *command):
    cores = os.cpu_count() or 1
    return ["taskset", "-c", str(core % cores), *map(str, command)]


def output_of(command):
    try:
        done = subprocess.run([str(part) for part in command], cwd=BUILD, capture_output=True, text=True,
                              timeout=PROGRAM_LIMIT_SEC, stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired:
        raise ProgramFailed(f"{Path(str(command[0])).name}: no end within {PROGRAM_LIMIT_SEC} s") from None
    if done.returncode != 0:
        raise ProgramFailed(f"{' '.join(map(str, command[:4]))}: {done.stderr.strip()[-300:]}")
    return done.stdout


def figures(*command):
    """The lines "key value" that a program prints."""
    pairs = (line.split() for line in output_of(command).splitlines())
    return {pair[0]: float(pair[1]) for pair in pairs if len(pair) == 2}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def await_true(what, condition, limit_sec=15):
    deadline = time.monotonic() + limit_sec
    while not condition():
        if time.monotonic() > deadline:
            raise ProgramFailed(f"{what}: not within {limit_sec} s")
        time.sleep(0.02)


class Contestants:
    """The servers that are compared, for the life of the object. Each has its own port and folder."""

    def __init__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="velmora-bench-"))
        self.processes = []
        self.by_name = {}
        self.ports = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.terminate()
        for process in self.processes:
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def settle(self, limit_sec=5):
        """Returns once nobody computes: what a server still clears away (a thousand clients that have left) would
        otherwise stand in the latencies of the next one on the same core."""
        deadline, before = time.monotonic() + limit_sec, None
        while time.monotonic() < deadline:
            now = sum(computed_sec(process) for process in self.processes)
            if now == before:
                return
            before = now
            time.sleep(0.1)

    def start(self, name, command, core=0):
        """A process that says on its first line where it listens, or that was given its port."""
        log = open(self.folder / f"{name}.log", "ab")
        process = subprocess.Popen(pinned(core, *command), stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log,
                                   cwd=self.folder)
        self.processes.append(process)
        self.by_name[name] = process
        return process

    def start_saying_port(self, name, command, core=0):
        process = self.start(name, command, core)
        line = process.stdout.readline().decode().strip()
        digits = line.rstrip("/").replace(":", " ").split()
        if not digits or not digits[-1].isdigit():
            raise ProgramFailed(f"{name} said {line!r}: {(self.folder / f'{name}.log').read_text()[-300:]}")
        self.ports[name] = int(digits[-1])
        return process

    def start_on_port(self, name, port, command, core=0):
        process = self.start(name, command, core)
        await_true(name, lambda: accepts(port))
        self.ports[name] = port
        return process

    def ours(self, name="ours", watched=None, **more):
        document = {"event_list": [{"event_name": "bench.event"}]}
        if watched:
            Path(watched).write_text("")
            document["watch_list"] = [{"path": str(watched), "event_name": "bench.event", "once": False}]
        config = self.folder / f"{name}.json"
        config.write_text(json.dumps({"BindAddress": {"Host": "127.0.0.1", "ListenPort": 0}, "Timeout_ms": 20000,
                                      "StateFile": str(self.folder / f"{name}-state.json"),
                                      "EventManager": document, **more}))
        return self.start_saying_port(name, [SERVER, "--config", config, "--log-level", "error"])

    def node(self):
        return self.start_saying_port("node", ["node", HERE / "peers/server.mjs"])

    def beast(self):
        return self.start_saying_port("beast", [BUILD / "bench/bare_beast"])

    def silent(self):
        return self.start_saying_port("silent", [LOAD, "silent"], core=1)

    def redis(self):
        port = free_port()
        self.start_on_port("redis", port, [
            "redis-server", "--port", port, "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
            "--client-output-buffer-limit", "pubsub 0 0 0"])

    def nats(self):
        port = free_port()
        self.start_on_port("nats", port, ["nats-server", "-a", "127.0.0.1", "-p", port])

    def nginx(self, name="nginx", core=0):
        """Answers 200 and two bytes (500 below /fail), on one core; "listener" on the load's core is what HTTP callers call."""
        port = free_port()
        config = self.folder / f"{name}.conf"
        config.write_text(f"""
daemon off; worker_processes 1; pid {self.folder}/{name}.pid; error_log stderr crit;
events {{ worker_connections 8192; }}
http {{
    access_log off; client_body_temp_path {self.folder}/{name}-body; proxy_temp_path {self.folder}/{name}-proxy;
    fastcgi_temp_path {self.folder}/{name}-f; uwsgi_temp_path {self.folder}/{name}-u; scgi_temp_path {self.folder}/{name}-s;
    keepalive_requests 100000000;
    server {{ listen 127.0.0.1:{port} backlog=4096; location / {{ return 200 "ok"; }}
        location /fail {{ return 500; }} }}
}}""")
        self.start_on_port(name, port, ["/usr/sbin/nginx", "-p", self.folder, "-c", config], core)


def resident_bytes(process):
    for line in Path(f"/proc/{process.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) * 1024
    raise ProgramFailed("the process has ended")


def computed_sec(process):
    fields = Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def computed_ns(process):
    """What the process's present threads have computed, more finely than its own account of it."""
    threads = Path(f"/proc/{process.pid}/task").glob("*/schedstat")
    return sum(int(thread.read_text().split()[0]) for thread in threads)


def get_json(port, path):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=10) as answer:
        return json.load(answer)
