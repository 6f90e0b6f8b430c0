"""Posts a second event for those postings that pass a filter: callback "python://only_high" with the listener data
{"above": LIMIT, "post": EVENT}. A handler must not wait for the server that runs it, so another thread does the posting,
one after the other and in order. VELMORA_URL names the server, VELMORA_TOKEN its token.
"""
import json
import os
import queue
import sys
import threading
import urllib.parse
import urllib.request

pending = queue.Queue(maxsize=1000)


def post_pending():
    while True:
        event, data = pending.get()
        headers = {"Content-Type": "application/json", "Authorization": "Bearer " + os.environ.get("VELMORA_TOKEN", "")}
        url = os.environ.get("VELMORA_URL", "http://127.0.0.1:8080") + "/api/v1/events/" + urllib.parse.quote(event, safe="")
        try:
            urllib.request.urlopen(urllib.request.Request(url, json.dumps(data).encode(), headers), timeout=10).close()
        except OSError as failure:
            print("%s is not posted: %s" % (event, failure), file=sys.stderr)


threading.Thread(target=post_pending, daemon=True).start()


def event_handler(posting):
    value = posting.get("post_data", {}).get("value", 0)
    wanted = posting["listener_data"]
    if value > wanted["above"]:
        pending.put_nowait((wanted["post"], {"value": value}))
