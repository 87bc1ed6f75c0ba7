"""Python binding of the agent core's SDK.

    import zxagent
    zxagent.init(pause_ms=3000)
    with zxagent.transaction("/shop/cart") as bt:
        with bt.method("Cart.load"):
            with bt.db_callout("orders-db", "SELECT ..."):
                ...
        bt.status = 200

Methods and call-outs also work as decorators on the current transaction
(`@zxagent.method("Cart.load")`). Nothing here raises into the application:
while no run is going, or without the library, every call is a cheap no-op,
and failures are counted (`failures()`) and logged once per kind.
"""

import contextvars
import ctypes
import functools

from ._native import LIBRARY_ENV, DataCounters, native, text

__all__ = ["LIBRARY_ENV", "TIER_HEADER", "Transaction", "current", "data_counters", "db_callout",
           "failures", "http_callout", "init", "library_path", "method", "shutdown",
           "transaction"]

#: HTTP header that carries the tier call-out text between monitored tiers:
#: the WSGI middleware reads it from requests, and outgoing calls send
#: `Transaction.tier_header()` under it.
TIER_HEADER = "X-ZX-Tier-Callout"

_current = contextvars.ContextVar("zxagent_transaction", default=None)


def init(pause_ms=None):
    """Starts the agent core once per process; waits for the collector to
    start a run, at most pause_ms (30 s by default). True when the library is
    loaded."""
    if pause_ms is not None:
        native.call("zx_set_init_pause_ms", None, max(0, int(pause_ms)))
    native.call("zx_init", None)
    return native.path() is not None


def shutdown():
    """Drops the SDK's state; the agent core keeps running and init may be
    called again. Call it while no transaction is open."""
    native.call("zx_free", None)


def library_path():
    """What the library was loaded as ($ZXAGENT_LIBRARY or its SONAME), or None."""
    return native.path()


def failures():
    """Failures inside the binding by kind, since the process started."""
    return native.failures()


def data_counters():
    """Where the record lines handed to the data connection went, as a dict
    (records == sent + queued + the lost_ counts); None before the agent runs."""
    out = DataCounters()
    if native.call("zx_data_counters_get", -1, ctypes.byref(out), ctypes.sizeof(out)) != 0:
        return None
    return {name: getattr(out, name) for name, _ in DataCounters._fields_}


def current():
    """The transaction whose `with` block (or request) this code runs in, or None."""
    return _current.get()


class Transaction:
    """One business transaction: begun at construction, ended with `status`
    and released when its `with` block is left (or by `finish`). An exception
    leaving the block ends it with 500 unless a status was set."""

    __slots__ = ("name", "_handle", "_status", "_status_set", "_token", "_done")

    def __init__(self, name, tier_header=None):
        self.name = name
        self._status, self._status_set, self._token, self._done = 200, False, None, False
        self._handle = native.call("zx_bt_begin", None, text(name), None)
        if self._handle is not None and tier_header:
            native.call("setTierCallOut", -1, self._handle, text(tier_header))

    @property
    def traced(self):
        """False while no run is going: every call on it then does nothing."""
        return self._handle is not None

    @property
    def status(self):
        return self._status

    @status.setter
    def status(self, value):
        try:
            self._status = int(value)
            self._status_set = True
        except (TypeError, ValueError) as exc:
            native.fail("status", "status %r is not a number: %r" % (value, exc))

    def method(self, name):
        return _Method(name, self)

    def db_callout(self, host, query=None):
        return _Callout("db", host, query, self)

    def http_callout(self, host, url=None):
        return _Callout("http", host, url, self)

    def tier_header(self):
        """Text for TIER_HEADER on the next outgoing call, or None."""
        if self._handle is None or self._done:
            return None
        raw = native.call("getTierCallOut", None, self._handle)
        return raw.decode("ascii", "replace") if raw else None

    def finish(self, status=None):
        """Ends and releases the transaction; later calls do nothing."""
        if status is not None:
            self.status = status
        if self._done:
            return
        self._done = True
        if self._handle is not None:
            native.call("zx_bt_end", -1, self._handle, self._status)
            native.call("zx_bt_release", -1, self._handle)
            self._handle = None

    def __enter__(self):
        self._token = _current.set(self)
        return self

    def __exit__(self, exc_type, exc, tb):
        if exc_type is not None and not self._status_set:
            self._status = 500
        self.finish()
        if self._token is not None:
            try:
                _current.reset(self._token)
            except ValueError:  # left in another context than entered
                _current.set(None)
            self._token = None
        return False


def transaction(name, tier_header=None):
    """A transaction named name (classified as a URL by the BT rules); the
    caller tier's TIER_HEADER text, when given, joins it to that flowpath."""
    return Transaction(name, tier_header)


class _Scoped:
    """A context manager that is also a decorator, bound to a transaction or
    to whichever is current when the block is entered. Each decorated call
    enters a fresh copy, so recursion and threads do not share state."""

    __slots__ = ()

    def __call__(self, func):
        @functools.wraps(func)
        def wrapper(*args, **kwargs):
            with self._fresh():
                return func(*args, **kwargs)
        return wrapper

    def _target(self):
        tx = self._bound if self._bound is not None else _current.get()
        return tx._handle if tx is not None and not tx._done else None


class _Method(_Scoped):
    __slots__ = ("_name", "_bound", "_handle")

    def __init__(self, name, bound=None):
        self._name, self._bound, self._handle = name, bound, None

    def _fresh(self):
        return _Method(self._name, self._bound)

    def __enter__(self):
        self._handle = self._target()
        if self._handle is not None:
            native.call("zx_method_entry", None, self._handle, text(self._name))
        return self

    def __exit__(self, *exc):
        if self._handle is not None:
            native.call("zx_method_exit", None, self._handle, text(self._name))
        return False


class _Callout(_Scoped):
    __slots__ = ("_kind", "_host", "_detail", "_bound", "_handle", "_ip")

    def __init__(self, kind, host, detail, bound=None):
        self._kind, self._host, self._detail, self._bound = kind, host, detail, bound
        self._handle = self._ip = None

    def _fresh(self):
        return _Callout(self._kind, self._host, self._detail, self._bound)

    def __enter__(self):
        self._handle = self._target()
        if self._handle is not None:
            self._ip = native.call("zx_ip_%s_callout_begin" % self._kind, None, self._handle,
                                   text(self._host), text(self._detail))
        return self

    def __exit__(self, *exc):
        if self._ip is not None:
            native.call("zx_ip_%s_callout_end" % self._kind, -1, self._handle, self._ip)
        return False


def method(name):
    """A method of the current transaction: `with method(...)` or `@method(...)`."""
    return _Method(name)


def db_callout(host, query=None):
    """A database call of the current transaction, as context manager or decorator."""
    return _Callout("db", host, query)


def http_callout(host, url=None):
    """An HTTP call of the current transaction, as context manager or decorator."""
    return _Callout("http", host, url)
