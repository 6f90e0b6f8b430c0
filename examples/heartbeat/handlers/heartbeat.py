"""Notices who falls silent. Hosts post "host.alive" {"host": NAME}; a timer posts "heartbeat.check" {"limit_sec": N}, and
whoever has not been heard of for longer is written down, once until it is heard again. The callback of both events is
"python://heartbeat" with the listener data {"file": "/path/of/the/list"}.
"""
import time

heard = {}  # when each host was last heard of
late = set()


def event_handler(posting):
    data = posting.get("post_data", {})
    now = time.monotonic()
    if posting["event_name"] == "host.alive":
        heard[data["host"]] = now
        late.discard(data["host"])
        return
    for host, last in heard.items():
        if now - last > data["limit_sec"] and host not in late:
            late.add(host)
            with open(posting["listener_data"]["file"], "a") as silent:
                silent.write("%s %s\n" % (posting["timestamp"], host))
