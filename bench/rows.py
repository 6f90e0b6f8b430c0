"""The table: every row says what of ours stands beside what, what it must reach and what it aims at."""

from dataclasses import dataclass
from typing import Callable, Optional

import measures as m


@dataclass(frozen=True)
class Row:
    name: str
    ours: tuple                     # (measurement, key)
    beside: Optional[tuple] = None  # (measurement, key), or a list of such, of which the best counts
    peer: str = ""
    must: Optional[tuple] = None    # ("ratio" or "value", ">=" or "<=", number)
    aim: Optional[tuple] = None
    unit: str = ""
    scale: float = 1.0              # of what is shown
    plus: float = 0.0               # added to what stands beside before it is compared


def at_least(number):
    return ("ratio", ">=", number)


def at_most(number):
    return ("ratio", "<=", number)


def below(number):
    return ("value", "<=", number)


def plural(clients):
    return f"{clients:,} client{'s' if clients > 1 else ''}"


# Names of measurements: what is run, in this order, in every round; contestants of a row stand together.
MEASUREMENTS: dict[str, Callable] = {
    "posting": m.queue("posting", 1, 0),
    "node posting": m.node_posting,
    **{f"posting {n}": m.queue("posting", 1, n) for n in (1, 100, 1000)},
}
BURSTS = (10, 100, 1000, 1)
for n in BURSTS:
    MEASUREMENTS[f"burst {n}"] = m.burst(n)
    MEASUREMENTS[f"redis burst {n}"] = m.broker_burst("redis", "redis", n)
    MEASUREMENTS[f"nats burst {n}"] = m.broker_burst("nats", "nats", n)
MEASUREMENTS["bare burst"] = m.bare_fan_out
MEASUREMENTS["forms"] = m.forms
MEASUREMENTS["forms idle"] = m.forms_idle
for n in (1, 10, 100, 1000):
    MEASUREMENTS[f"rest {n}"] = m.rest_fan_out("ours", n)
    MEASUREMENTS[f"node rest {n}"] = m.rest_fan_out("node", n)
for n, rate in ((1, 500), (100, 500), (100, 5000)):
    for name in ("ours", "redis", "node"):
        if rate == 500 or name != "node":
            MEASUREMENTS[f"{name} latency {n} {rate}"] = m.latency(name, n, rate)
for name in ("ours", "node", "beast", "nginx"):
    MEASUREMENTS[f"wrk {name}"] = m.wrk(name)
for n in (1, 8, 32):
    for name in ("ours", "beast"):
        MEASUREMENTS[f"wrk {name} {n}"] = m.wrk(name, n)
MEASUREMENTS |= {
    "wrk long": m.wrk_long,
    "callers": m.callers,
    "node callers": m.node_callers,
    "bare callers": m.bare_callers,
    "listener cost": m.listener_cost,
    "deliveries": m.delivery_cost,
    "delivering": m.deliveries,
    "python": m.queue("python"),
    "history": m.queue("history-bytes", 100_000),
    "node history": m.node_history,
    "locks": m.queue("history-locks", 1_000_000),
    **{f"save {n}": m.queue("save", n) for n in (10_000, 200_000, 2_000_000)},
    "start": m.queue("start"),
    "restore": m.queue("restore", 100_000),
    "apply": m.queue("restore", 10_000),
    "timers": m.queue("timers", 100_000, 0),
    "timers due": m.queue("timers", 100_000, 10_000),
    "watch": m.watch,
    "bare watch": m.bare_watch,
    "waiting callers": m.waiting_callers,
    "waiting threads": m.waiting_threads,
    "idle": m.idle("ours"),
    "node idle": m.idle("node"),
}
ONCE = {"forms idle", "wrk long", "waiting callers", "waiting threads", "idle", "node idle", "node history", "history"}

# Measured once, for the plots: name, axis, and for each size the measurement.
GROWTH: dict[str, tuple] = {
    "posting beside events": ("events", {n: (m.queue("posting", n, 0), "posting_ns")
                                         for n in (10, 100, 1_000, 10_000, 100_000)}),
    "creating an event": ("events", {n: (m.queue("create-event", n), "create_ns")
                                     for n in (10, 100, 1_000, 10_000, 100_000)}),
    "lock held to read": ("records", {n: (m.queue("history-locks", n), "read_lock_ns")
                                      for n in (1, 100, 10_000, 100_000, 1_000_000)}),
    "lock held to trim": ("records", {n: (m.queue("history-locks", n), "trim_lock_ns")
                                      for n in (1, 100, 10_000, 100_000, 1_000_000)}),
    "save": ("bytes", {n: (m.queue("save", n), "save_us") for n in (1_000, 10_000, 100_000, 1_000_000, 10_000_000)}),
}

BURST_MUST = {1: 0.6, 10: 1.5, 100: 3, 1000: 4}
REST_MUST = {1: 4, 10: 8, 100: 25, 1000: 60}

ROWS = [
    Row("posting, nobody there", ("posting", "posting_ns"), None, "300 ns", below(300), below(150), "ns"),
    Row("posting, nobody there", ("posting", "posting_ns"), ("node posting", "text_ns"), "Node.js, as text",
        at_most(1 / 5), None, "ns"),
    Row("posting, nobody there", ("posting", "posting_ns"), ("node posting", "clone_ns"), "Node.js, structuredClone",
        at_most(1 / 15), None, "ns"),
    Row("posting, nobody there", ("posting", "posting_ns"), ("node posting", "references_ns"), "Node.js, references",
        None, at_most(1), "ns"),
    Row("posting, 1 feed client", ("posting 1", "posting_ns"), None, "900 ns", below(900), None, "ns"),
    *(Row(f"posting, {n:,} feed clients", ("posting " + str(n), "posting_ns"), ("posting 1", "posting_ns"),
          "with 1 client", at_most(1.2), None, "ns") for n in (100, 1000)),
    *(Row(f"feed burst, {plural(n)}, deliveries", (f"burst {n}", "deliveries_per_s"),
          [(f"redis burst {n}", "deliveries_per_s"), (f"nats burst {n}", "deliveries_per_s")],
          "better of Redis and NATS", at_least(BURST_MUST[n]), None, "M/s", 1e-6) for n in (1, 10, 100, 1000)),
    Row("feed burst, 100 clients, deliveries", ("burst 100", "deliveries_per_s"), ("bare burst", "deliveries_per_s"),
        "bare loop, 64 a call", None, at_least(1), "M/s", 1e-6),
    *(Row(f"feed over REST, {plural(n)}, deliveries", (f"rest {n}", "deliveries_per_s"),
          (f"node rest {n}", "deliveries_per_s"), "Node.js with ws", at_least(REST_MUST[n]), None, "k/s", 1e-3)
      for n in (1, 10, 100, 1000)),
    *(Row(f"burst of {form}, {plural(n)}, deliveries", ("forms", f"{key}_{n}"), ("forms", f"v1_{n}"), "plain clients",
          at_least(0.9), None, "M/s", 1e-6)
      for form, key in (("v2", "v2"), ("server-sent events", "sse")) for n in (1, 10, 100, 1000)),
    Row("posting, 1,000 clients of one event each", ("forms", "few_1000"), ("forms", "few_1"), "with 1 client",
        at_most(1.2), None, "ns"),
    Row("1,000 clients resume 10,000 postings back", ("forms", "storm_per_s"), ("forms", "redis_storm_per_s"),
        "Redis, XRANGE", None, at_least(1), "M/s", 1e-6),
    Row("feed over TLS, 100 clients", ("forms", "tls_100_bytes"), ("forms", "cipher_bytes"), "openssl speed, 16 KiB",
        None, at_least(0.25), "MB/s", 1e-6),
    Row("memory of a client that waits", ("forms idle", "idle_bytes"), None, "", None, None, "kB", 1e-3),
    Row("the same over TLS", ("forms idle", "idle_tls_bytes"), None, "", None, None, "kB", 1e-3),
    Row("9,900 clients that wait, of a core", ("forms idle", "idle_9900_share"), None, "", None, None, "%", 100),
    *(Row(f"POST to delivery, 500/s, {plural(n)}, p50", (f"ours latency {n} 500", "p50_us"),
          (f"redis latency {n} 500", "p50_us"), "Redis", at_most(1), None, "us") for n in (1, 100)),
    *(Row(f"POST to delivery, 500/s, {plural(n)}, p99", (f"ours latency {n} 500", "p99_us"),
          (f"node latency {n} 500", "p99_us"), "Node.js with ws", at_most(0.5), None, "us") for n in (1, 100)),
    Row("POST to delivery, 5,000/s, 100 clients, p50", ("ours latency 100 5000", "p50_us"),
        ("redis latency 100 5000", "p50_us"), "Redis", None, at_most(1.2), "us"),
    Row("POST /api/v1/events/NAME", ("wrk ours", "requests_per_s"), ("wrk node", "requests_per_s"), "Node.js",
        at_least(4), None, "k/s", 1e-3),
    Row("POST /api/v1/events/NAME", ("wrk ours", "requests_per_s"), ("wrk beast", "requests_per_s"), "bare Beast",
        at_least(1), None, "k/s", 1e-3),
    Row("POST /api/v1/events/NAME", ("wrk ours", "requests_per_s"), ("wrk nginx", "requests_per_s"),
        "nginx return 200", None, at_least(1), "k/s", 1e-3),
    *(Row(f"the same, {plural(n)}", (f"wrk ours {n}", "requests_per_s"), (f"wrk beast {n}", "requests_per_s"),
          "bare Beast", None, None, "k/s", 1e-3) for n in (1, 8, 32)),
    *(Row(f"CPU a request, {plural(n)}", (f"wrk ours {n}", "cpu_us"), (f"wrk beast {n}", "cpu_us"),
          "bare Beast", at_most(1.25), None, "us") for n in (1, 8, 32)),
    Row("the same after half a minute of it", ("wrk long", "ours"), ("wrk long", "beast"), "bare Beast", at_least(1), None,
        "k/s", 1e-3),
    Row("the same after half a minute of it", ("wrk long", "ours"), ("wrk long", "nginx"), "nginx return 200", None,
        at_least(1), "k/s", 1e-3),
    Row("HTTP callers", ("callers", "calls_per_s"), ("node callers", "calls_per_s"), "Node.js, new connections",
        at_least(1.2), at_least(2.2), "k/s", 1e-3),
    Row("HTTP callers", ("bare callers", "http shared ours"), ("bare callers", "http shared bare"),
        "bare libcurl threads", at_least(0.95), None, "k/s", 1e-3),
    Row("HTTPS callers", ("bare callers", "https new ours"), ("bare callers", "https new bare"),
        "libcurl, no session cache", at_least(1.3), at_least(2), "k/s", 1e-3),
    Row("poster's cost per HTTP listener, p50", ("listener cost", "poster_us"), None, "25 us", below(25), below(15),
        "us"),
    *(Row(f"posting to a listener, {kind}", ("deliveries", kind + "_us"), ("deliveries", "plain_us"), "not kept", limit, None, "us")
      for kind, limit in (("kept", at_most(1.1)), ("unmatched", at_most(1.1)), ("retried", at_most(1.1)), ("journalled", None))),
    *(Row(f"deliveries{kind}", ("delivering", key), ("delivering", "multi_per_s"), "bare libcurl multi loop", at_least(0.7), None, "k/s", 1e-3)
      for kind, key in (("", "deliveries_per_s"), (" with retries", "retried_per_s"))),
    Row("memory of a waiting caller", ("waiting callers", "bytes_per_caller"), ("waiting threads", "bytes_per_thread"),
        "thread and socket", None, None, "kB", 1e-3),
    Row("Python listener", ("python", "listener_ns"), ("python", "bare_ns"), "lock, conversion, call",
        at_most(1.3), None, "us", 1e-3),
    Row("history, bytes a record", ("history", "heap_bytes_per_record"), ("node history", "text_bytes"),
        "Node.js, as text", below(700), below(400), "B"),
    Row("reading 1,000,000 records, lock held", ("locks", "read_lock_ns"), None, "1 ms", below(1e6), None, "us", 1e-3),
    Row("trimming 1,000,000 records, lock held", ("locks", "trim_lock_ns"), None, "1 ms", below(1e6), None, "us", 1e-3),
    Row("longest posting while reading", ("locks", "read_wait_ns"), ("locks", "quiet_wait_ns"), "nothing going on",
        below(10e6), None, "us", 1e-3),
    Row("longest posting while trimming", ("locks", "trim_wait_ns"), ("locks", "quiet_wait_ns"), "nothing going on",
        below(10e6), None, "us", 1e-3),
    *(Row(f"saving a document of {label}", (f"save {n}", "save_us"), (f"save {n}", "bare_us"), "the same bytes bare",
          at_most(1.3), None, "ms", 1e-3)
      for n, label in ((10_000, "10 KB"), (200_000, "200 KB"), (2_000_000, "2 MB"))),
    Row("restoring 1,000/1,000/5,000/1,000", ("start", "start_ms"), None, "100 ms", below(100), None, "ms"),
    Row("saves while restoring", ("start", "saves"), None, "1", below(1), None, ""),
    Row("restoring 100,000 events", ("restore", "restore_ms"), None, "1 s", below(1000), None, "ms"),
    Row("applying 10,000 beside 10,000", ("apply", "apply_ms"), None, "1 s", below(1000), None, "ms"),
    Row("saves while applying", ("apply", "apply_saves"), None, "1", below(1), None, ""),
    Row("pass, 100,000 timers, none due", ("timers", "per_timer_ns"), None, "", None, None, "ns a timer"),
    Row("longest CreateTimer meanwhile", ("timers", "create_wait_us"), None, "", None, None, "us"),
    Row("pass, 10,000 of 100,000 due", ("timers due", "per_timer_ns"), None, "", None, None, "ns a firing"),
    Row("longest CreateTimer meanwhile", ("timers due", "create_wait_us"), None, "", None, None, "us"),
    Row("file change to delivery, p50", ("watch", "p50_us"), ("bare watch", "p50_us"), "bare inotify + 100 us",
        at_most(1), None, "us", 1, 100),
    Row("idle server, computing", ("idle", "cpu_ms_per_minute"), ("node idle", "cpu_ms_per_minute"), "Node.js with ws",
        None, None, "ms a minute"),
    Row("idle server, resident", ("idle", "resident_mb"), ("node idle", "resident_mb"), "Node.js with ws",
        at_most(0.35), None, "MB"),
]
