"""What is measured: each function makes one measurement of one contestant and answers its figures by key."""

import http.client
import json
import re
import resource
import statistics
import time

from contestants import BUILD, HERE, LOAD, QUEUE, computed_ns, computed_sec, figures, output_of, pinned, resident_bytes

BURST_MESSAGES = {1: 100_000, 10: 60_000, 100: 15_000, 1000: 1_500}
REST_MESSAGES = {1: 25_000, 10: 20_000, 100: 8_000, 1000: 1_500}
NODE_REST_MESSAGES = {1: 10_000, 10: 6_000, 100: 1_000, 1000: 100}
HISTORY_SEC = 32  # until the first records have been dropped


def queue(*arguments):
    return lambda run: figures(QUEUE, *arguments)


def node_posting(run):
    return figures(*pinned(0, "node", HERE / "peers/posting.mjs", "time"))


def node_history(run):
    return figures(*pinned(0, "node", "--expose-gc", HERE / "peers/posting.mjs", "memory"))


def burst(clients):
    return queue("fanout", clients, BURST_MESSAGES[clients])


def broker_burst(name, protocol, clients):
    return lambda run: figures(LOAD, "fanout", protocol, run.ports[name], clients, 1, 1024, BURST_MESSAGES[clients])


def rest_fan_out(name, clients):
    messages = (NODE_REST_MESSAGES if name == "node" else REST_MESSAGES)[clients]
    return lambda run: figures(LOAD, "fanout", "ws", run.ports[name], clients, 8, 64, messages)


def bare_fan_out(run):
    """The bare loop of 64 messages a system call with 100 clients: the fourth column of the feed's own program."""
    for line in output_of([BUILD / "bench/feed_bench", "4000000"]).splitlines():
        fields = line.split()
        if fields[:1] == ["100"]:
            return {"deliveries_per_s": float(fields[3]) * 1e6}
    return {}


def forms(run):
    """The feed's other forms beside the plain one, a crowd that comes back beside Redis, and TLS beside its cipher."""
    found = figures(BUILD / "bench/forms_bench", run.ports["redis"])
    speed = output_of(["openssl", "speed", "-mr", "-seconds", "1", "-bytes", "16384", "-evp", "aes-256-gcm"])
    found["cipher_bytes"] = float(re.search(r"^\+F:.*:([\d.]+)$", speed, re.MULTILINE).group(1))
    return found


def forms_idle(run):
    return figures(BUILD / "bench/forms_bench", "idle")


def latency(name, clients, rate):
    protocol = "redis" if name == "redis" else "ws"

    def measure(run):
        run.settle()
        return figures(LOAD, "latency", protocol, run.ports[name], clients, rate, 1000)
    return measure


def wrk(name, clients=32):
    def measure(run):
        script = run.folder / "post.lua"
        script.write_text('wrk.method = "POST"\nwrk.body = \'{"sensor":"door-17","state":"open","reading":21.5}\'\n'
                          'wrk.headers["Content-Type"] = "application/json"\n')
        before = computed_ns(run.by_name[name])
        text = output_of(pinned(1, "wrk", "-t1", f"-c{clients}", "-d1s", "-s", script,
                                f"http://127.0.0.1:{run.ports[name]}/api/v1/events/bench.event"))
        if "Non-2xx" in text:
            return {}
        requests = int(re.search(r"(\d+) requests in", text).group(1))
        return {"requests_per_s": float(re.search(r"Requests/sec:\s*([\d.]+)", text).group(1)),
                "cpu_us": (computed_ns(run.by_name[name]) - before) / 1e3 / requests}
    return measure


def wrk_long(run):
    """The same for longer than the history keeps its records: from then on their memory is used again, where
    before every posting took memory that had to be found and cleared first."""
    began = time.monotonic()
    while time.monotonic() < began + HISTORY_SEC:
        wrk("ours")(run)
        wrk("beast")(run)
    turns = [{name: wrk(name)(run).get("requests_per_s", 0) for name in ("ours", "beast", "nginx")} for _ in range(5)]
    return {name: statistics.median(turn[name] for turn in turns) for name in turns[0]}


def listener_url(run):
    return f"http://127.0.0.1:{run.ports['listener']}/hook"


def callers(run):
    return figures(QUEUE, "callers", listener_url(run), 4000, 64)


def node_callers(run):
    return figures(*pinned(0, "node", HERE / "peers/callers.mjs", listener_url(run), 3000, 64))


def listener_cost(run):
    return figures(QUEUE, "listener-cost", listener_url(run))


def post_p50_us(port, postings=2000):
    """Of postings one after the other over one connection, seen by the poster."""
    connection, times = http.client.HTTPConnection("127.0.0.1", port), []
    for _ in range(postings):
        began = time.perf_counter()
        connection.request("POST", "/api/v1/events/bench.event", b'{"n":1}', {"Content-Type": "application/json"})
        connection.getresponse().read()
        times.append(time.perf_counter() - began)
    return sorted(times)[postings // 2] * 1e6


def delivery_cost(run):
    """A posting to one listener: as ever, kept as a delivery, beside destinations that do not fit, to one with retries, and with the journal."""
    retried = [{"Match": listener_url(run), "Attempts": 5}]
    kinds = {"plain": {}, "kept": {"Deliveries": {}}, "unmatched": {"Destinations": [{"Match": "https://elsewhere.example/", "Attempts": 5}]}, "retried": {"Destinations": retried},
             "journalled": {"Destinations": retried, "Deliveries": {"Journal": str(run.folder / "deliveries.db")}}}
    found = {}
    for kind, config in kinds.items():
        process = run.ours(kind, **config)
        connection = http.client.HTTPConnection("127.0.0.1", run.ports[kind])
        connection.request("POST", "/api/v1/events/bench.event/listeners",
                           json.dumps({"callback": listener_url(run), "listener_data": {"l": 1}}),
                           {"Content-Type": "application/json"})
        connection.getresponse().read()
        connection.close()
        found[kind + "_us"] = post_p50_us(run.ports[kind])
        process.terminate()
        process.wait()
    return found


def deliveries(run):
    """So many a second, beside a bare loop over libcurl's multi interface."""
    return figures(BUILD / "bench/deliveries_bench", listener_url(run), 4000, 5)


def bare_callers(run):
    """The callers' own program: ratios to bare libcurl."""
    found = {}
    for line in output_of([BUILD / "bench/httpcaller_bench", "2000", "1"]).splitlines():
        parts = re.match(r"(https?)\s+(\d+)\s+(\d+)\s+(.*?)\s+[\d.]+ \(wanted", line)
        if parts:
            key = parts[1] + (" new" if "new" in parts[4] else " shared")
            found[key + " ours"], found[key + " bare"] = float(parts[2]), float(parts[3])
    return found


def waiting_count():
    """10,000, or what the limit of descriptors leaves room for: libcurl holds up to three of them a request."""
    return min(10_000, (resource.getrlimit(resource.RLIMIT_NOFILE)[1] - 500) // 3)


def waiting_callers(run):
    return figures(QUEUE, "waiting-callers", f"http://127.0.0.1:{run.ports['silent']}/hook", waiting_count())


def waiting_threads(run):
    return figures(QUEUE, "waiting-threads", run.ports["silent"], waiting_count())


def watch(run):
    return figures(LOAD, "watch", run.ports["ours"], run.folder / "watched", 150)


def bare_watch(run):
    return figures(LOAD, "bare-watch", run.folder / "bare-watched", 150)


def idle(name):
    """A server of its own that nobody talks to, for ten seconds."""
    def measure(run):
        process = run.ours("idle") if name == "ours" else run.node()
        time.sleep(1)
        before = computed_sec(process)
        time.sleep(9)
        return {"resident_mb": resident_bytes(process) / 2**20,
                "cpu_ms_per_minute": (computed_sec(process) - before) * 1000 * 60 / 9}
    return measure
