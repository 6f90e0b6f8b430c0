"""What a Python handler may ask of the server that runs it.

    import velmora

    def event_handler(payload):
        velmora.log("info", "order %s" % payload["post_data"]["id"])
        velmora.post("order_checked", {"id": payload["post_data"]["id"]})

post(name, data=None)
    Takes a posting at once and returns. It is made when the handler's own posting is over, in the order of the
    calls, so that a handler cannot wait for itself. May be called from any thread.

log(level, text)
    Writes to the server's log: "debug", "info", "notice", "warn", "error", "crit" or "alert". LogHandler() does
    the same for the standard library's logging.

listener_data
    The data of the listener that is being called: payload["listener_data"], also for functions that are not handed
    the payload. Empty in threads that a handler has started. Ask for it as velmora.listener_data each time.

Outside the server (in a test, say) nothing is posted. The module then keeps what it was called with:

    posted      a list of (name, data)
    logged      a list of (level, text)
    call(handler, post_data=None, listener_data=None, event_data=None, event_name="test")
                calls a handler, or the one of a module, as the server would, an "async def" one to its end
    reset()     empties both lists

and listener_data may be set. recording tells which of the two it is: False in the server.
"""
import logging
import sys
import types

try:
    import _velmora
except ImportError:
    _velmora = None

__all__ = ["LogHandler", "call", "log", "logged", "post", "posted", "recording", "reset"]

#: Whether calls are only recorded: the module is used outside the server.
recording = _velmora is None
#: Outside the server: what was posted, as (name, data).
posted = []
#: Outside the server: what was logged, as (level, text).
logged = []

_LEVELS = ("debug", "info", "notice", "warn", "error", "crit", "alert")
_TEXT = (str,) if sys.version_info[0] > 2 else (str, type(u""))
_WHOLE = (int,) if sys.version_info[0] > 2 else (int, type(2 ** 70))
_DEEPEST = 256
_listener_data = {}


def post(name, data=None):
    """Posts the event `name` when the handler's own posting is over; returns at once.

    `data` is a dict of dicts, lists, texts, numbers, True, False and None; it is copied. TypeError or ValueError where
    it is something else. RuntimeError where 10,000 postings wait already, or the server is ending. That there is no
    such event is found out later: it is a line in the log.
    """
    if _velmora is not None:
        return _velmora.post(name, data)
    if not isinstance(name, _TEXT):
        raise TypeError("velmora.post: the event's name must be a str, not %s" % type(name).__name__)
    if data is not None and not isinstance(data, dict):
        raise TypeError("velmora.post: data must be a dict, not %s" % type(data).__name__)
    posted.append((name, _copy(data, 1)))


def log(level, text):
    """Writes `text` to the server's log. ValueError for a level that there is none of."""
    if _velmora is not None:
        return _velmora.log(level, text)
    if str(level).lower() not in _LEVELS:
        raise ValueError("velmora.log: there is no level %r; take one of %s" % (level, ", ".join(_LEVELS)))
    logged.append((level, str(text)))


class LogHandler(logging.Handler):
    """Hands the records of the standard library's logging to log():

        logging.getLogger().addHandler(velmora.LogHandler())
    """

    def emit(self, record):
        try:
            log(_level_of(record.levelno), self.format(record))
        except Exception:
            self.handleError(record)


def call(handler, post_data=None, listener_data=None, event_data=None, event_name="test"):
    """For tests: calls `handler`, a function or a module that has an event_handler, with a payload made of the others
    as the server would make it, and runs an "async def" one to its end. Outside the server only.
    """
    global _listener_data
    if not recording:
        raise RuntimeError("velmora.call is for tests, outside the server")
    payload = {"event_name": event_name, "timestamp": "2026-01-01T00:00:00+00:00"}
    if post_data is not None:
        payload["post_data"] = _copy(post_data, 1)
    payload["event_data"] = _copy(event_data or {}, 1)
    payload["listener_data"] = _copy(listener_data or {}, 1)
    before, _listener_data = _listener_data, payload["listener_data"]
    try:
        result = getattr(handler, "event_handler", handler)(payload)
        if hasattr(result, "__await__"):
            import asyncio
            asyncio.run(result)
    finally:
        _listener_data = before


def reset():
    """For tests: forgets what was posted and logged."""
    del posted[:]
    del logged[:]


def _level_of(number):
    for least, level in ((50, "crit"), (40, "error"), (30, "warn"), (20, "info")):
        if number >= least:
            return level
    return "debug"


def _copy(value, depth):
    """What arrives at a listener: refused where the server would refuse it."""
    if value is None or isinstance(value, (bool,) + _WHOLE + _TEXT):
        return value
    if isinstance(value, float):
        if value != value or value in (float("inf"), float("-inf")):
            raise ValueError("velmora.post: %r cannot be posted" % value)
        return value
    if depth > _DEEPEST:
        raise ValueError("velmora.post: data is nested beyond %d levels" % _DEEPEST)
    if isinstance(value, dict):
        for key in value:
            if not isinstance(key, _TEXT):
                raise TypeError("velmora.post: a key must be a str, not %s" % type(key).__name__)
        return dict((key, _copy(item, depth + 1)) for key, item in value.items())
    if isinstance(value, (list, tuple)):
        return [_copy(item, depth + 1) for item in value]
    raise TypeError("velmora.post: a %s cannot be posted; dict, list, str, int, float, bool and None can"
                    % type(value).__name__)


class _Module(types.ModuleType):
    """Looks listener_data up each time."""

    @property
    def listener_data(self):
        return _listener_data if _velmora is None else _velmora.listener_data()

    @listener_data.setter
    def listener_data(self, value):
        global _listener_data
        if _velmora is not None:
            raise AttributeError("velmora.listener_data can be set outside the server only")
        _listener_data = value


def _look_up_listener_data():
    module = _Module(__name__, __doc__)
    module.__dict__.update(sys.modules[__name__].__dict__)
    module._as_loaded = sys.modules[__name__]  # what the functions above see
    sys.modules[__name__] = module


_look_up_listener_data()
