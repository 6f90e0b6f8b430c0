"""A client of velmora-server in one file, for Python 3: posts events, reads the history, and follows the feed across
interruptions, so that every posting arrives once and in order or a gap is reported.

    client = Client("http://127.0.0.1:8080", token="...")
    posting_id = client.post("order.paid", {"number": 17})

    async def main():
        async for message in client.follow(events=["order.*"]):
            print(message.id, message.posting)

Needs the package "websockets" for follow(); the rest is the standard library's.
"""

import asyncio
import json
import random
import time
import urllib.error
import urllib.parse
import urllib.request
from typing import Any, AsyncIterator, Callable, Dict, Iterable, NamedTuple, Optional

__all__ = ["Client", "Message", "VelmoraError"]

PREFIX = "/api/v1"
FIRST_PAUSE_SEC = 0.5
LONGEST_PAUSE_SEC = 10.0
SETTLED_SEC = 5.0  # a connection that lasts this long starts the pauses anew


class VelmoraError(Exception):
    """A request that the server refused: `status`, and `errors` with what is wrong where; status 0: no answer."""

    def __init__(self, status: int, message: str, errors: Iterable[Dict[str, Any]] = ()):
        super().__init__(message)
        self.status = status
        self.errors = list(errors)


class Message(NamedTuple):
    """A posting and its id, EPOCH-NUMBER: an epoch is one run of the server, numbers count from 1."""

    id: str
    posting: Dict[str, Any]


class Client:
    """The server at `address` (with its base path where a proxy adds one). May be used from several threads."""

    def __init__(self, address: str, token: str = "", timeout: float = 15.0, tls=None):
        """`timeout` is in seconds; `tls` is an ssl.SSLContext for https (the system's authorities where it is None)."""
        self.address = address.rstrip("/")
        self.token = token
        self.timeout = timeout
        self.tls = tls

    def post(self, name: str, data: Optional[Dict[str, Any]] = None) -> str:
        """Posts an event and returns the posting's id."""
        answer = self.request("POST", "/events/" + urllib.parse.quote(name, safe=""), data)
        return answer["id"]

    def history(self, after: str = "", events: Iterable[str] = (), limit: Optional[int] = None) -> Dict[str, Any]:
        """What was posted after the id `after`, of the events named (a name may end in "*"): "history", "last_id"
        and, where something before is missing, "gap"."""
        query = _query(after, events)
        if limit is not None:
            query.append(("limit", str(limit)))
        return self.request("GET", "/history?" + urllib.parse.urlencode(query))

    def request(self, method: str, path: str, body: Optional[Any] = None) -> Any:
        """Any other request below /api/v1; returns what the answer's JSON holds. Raises VelmoraError."""
        headers = {"Accept": "application/json", **self._authorization()}
        data = None
        if body is not None:
            data = json.dumps(body).encode()
            headers["Content-Type"] = "application/json"
        asked = urllib.request.Request(self.address + PREFIX + path, data, headers, method=method)
        try:
            with urllib.request.urlopen(asked, timeout=self.timeout, context=self.tls) as answer:
                text = answer.read()
        except urllib.error.HTTPError as refused:
            raise _refusal(refused.code, refused.read()) from None
        except OSError as failure:
            raise VelmoraError(0, f"{method} {asked.full_url} was not answered: {failure}") from failure
        return json.loads(text) if text else None

    async def follow(
        self,
        events: Iterable[str] = (),
        after: str = "",
        on_gap: Optional[Callable[[str, str], None]] = None,
    ) -> AsyncIterator[Message]:
        """Yields every posting of the events named (each name may end in "*"; none: all), from now on or from the id
        `after` on. Connects again by itself, from the last posting on. `on_gap(after, id)` is called where postings
        between the two are missing. Who takes too long is disconnected by the server and goes on from where he was.
        Raises VelmoraError where the server refuses what was asked (400, 401, 403, 404)."""
        import websockets

        events = list(events)
        last, gap_told, pause = after, "", FIRST_PAUSE_SEC
        while True:
            began = time.monotonic()
            try:
                async with websockets.connect(**self._feed(last, events)) as feed:
                    standing = json.loads(await feed.recv())
                    if not last:
                        last = standing["id"]
                    elif standing["gap"] and gap_told != last:
                        gap_told = last  # once, also where the connection ends before a posting has come
                        if on_gap is not None:
                            on_gap(last, standing["id"])
                    async for text in feed:
                        message = json.loads(text)
                        last = message["id"]
                        yield Message(last, message["posting"])
            except websockets.exceptions.InvalidStatusCode as refused:
                if refused.status_code in (400, 401, 403, 404):
                    await asyncio.to_thread(self._explain, last, events)
            except (OSError, asyncio.TimeoutError, websockets.exceptions.WebSocketException):
                pass  # the server is away, or restarts
            if time.monotonic() - began >= SETTLED_SEC:
                pause = FIRST_PAUSE_SEC
            await asyncio.sleep(pause * random.uniform(0.8, 1.2))
            pause = min(pause * 2, LONGEST_PAUSE_SEC)

    def _feed(self, after: str, events: Iterable[str]) -> Dict[str, Any]:
        address = "ws" + self.address[len("http"):] + PREFIX + "/feed"
        query = urllib.parse.urlencode(_query(after, events))
        return {
            "uri": address + ("?" + query if query else ""),
            "subprotocols": ["velmora.feed.v2"],
            "extra_headers": self._authorization(),
            "open_timeout": self.timeout,
            "max_size": None,
            **({"ssl": self.tls} if self.tls is not None else {}),
        }

    # An upgrade's refusal has no body here. The history takes the same parameters and the same token.
    def _explain(self, after: str, events: Iterable[str]) -> None:
        self.history(after, events, limit=1)

    def _authorization(self) -> Dict[str, str]:
        return {"Authorization": "Bearer " + self.token} if self.token else {}


def _query(after: str, events: Iterable[str]):
    return ([("after", after)] if after else []) + [("event_name", name) for name in events]


def _refusal(status: int, text: bytes) -> VelmoraError:
    try:
        known = json.loads(text)
        return VelmoraError(status, known["detail"], known.get("errors", ()))
    except (ValueError, KeyError, TypeError):
        return VelmoraError(status, f"The server answered with {status}.")
