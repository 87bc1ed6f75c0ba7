"""The shared library behind the binding, loaded with ctypes.

Every call into it goes through `call`, which never raises: a missing
library, a missing symbol or a failing call gives the function's neutral
result (as the C SDK itself does), is counted by kind, and is logged once
per kind on the "zxagent" logger. The application never sees an exception
from here.
"""

import collections
import ctypes
import logging
import os
import threading

LIBRARY_ENV = "ZXAGENT_LIBRARY"
SONAME = "libzxagent.so.4"

_log = logging.getLogger("zxagent")

_vp, _cp, _int = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int


class DataCounters(ctypes.Structure):
    _fields_ = [(name, ctypes.c_ulonglong) for name in (
        "records", "sent", "queued", "lost_pool_full", "lost_conn_down", "lost_at_exit",
        "lost_oversized")]


# name: (restype, argtypes)
_PROTOTYPES = {
    "zx_init": (None, ()),
    "zx_set_init_pause_ms": (None, (ctypes.c_uint,)),
    "zx_free": (None, ()),
    "zx_bt_begin": (_vp, (_cp, _cp)),
    "zx_bt_end": (_int, (_vp, _int)),
    "zx_bt_release": (_int, (_vp,)),
    "zx_method_entry": (None, (_vp, _cp)),
    "zx_method_exit": (None, (_vp, _cp)),
    "zx_ip_db_callout_begin": (_vp, (_vp, _cp, _cp)),
    "zx_ip_db_callout_end": (_int, (_vp, _vp)),
    "zx_ip_http_callout_begin": (_vp, (_vp, _cp, _cp)),
    "zx_ip_http_callout_end": (_int, (_vp, _vp)),
    "getTierCallOut": (_cp, (_vp,)),
    "setTierCallOut": (_int, (_vp, _cp)),
    "zx_data_counters_get": (_int, (ctypes.POINTER(DataCounters), ctypes.c_size_t)),
}


class _Native:
    def __init__(self):
        self._lock = threading.Lock()  # guards everything below
        self._loaded = False
        self._functions = {}
        self._path = None
        self._failures = collections.Counter()
        self._logged = set()

    def _load(self):
        with self._lock:
            if self._loaded:
                return
            explicit = os.environ.get(LIBRARY_ENV)
            name = explicit or SONAME
            try:
                lib = ctypes.CDLL(name)
            except OSError as exc:
                # Counted per call that finds no library, in call().
                self._log_once_locked("library", "cannot load %s (set %s to its path): %s"
                                      % (name, LIBRARY_ENV, exc))
                lib = None
            if lib is not None:
                self._path = name
                for fname, (restype, argtypes) in _PROTOTYPES.items():
                    try:
                        fn = getattr(lib, fname)
                    except AttributeError:
                        self._fail_locked(fname, "%s lacks %s" % (name, fname))
                        continue
                    fn.restype, fn.argtypes = restype, argtypes
                    self._functions[fname] = fn
            self._loaded = True

    def _fail_locked(self, kind, text):
        self._failures[kind] += 1
        self._log_once_locked(kind, text)

    def _log_once_locked(self, kind, text):
        if kind not in self._logged:
            self._logged.add(kind)
            _log.warning("zxagent: %s (further failures of this kind are only counted)", text)

    def fail(self, kind, text):
        with self._lock:
            self._fail_locked(kind, text)

    def call(self, name, neutral, *args):
        if not self._loaded:
            self._load()
        fn = self._functions.get(name)
        if fn is None:
            self.fail("library" if self._path is None else name,
                      "%s unavailable" % name)
            return neutral
        try:
            return fn(*args)
        except Exception as exc:  # a bad argument type or value from the host
            self.fail(name, "%s failed: %r" % (name, exc))
            return neutral

    def path(self):
        if not self._loaded:
            self._load()
        return self._path

    def failures(self):
        with self._lock:
            return dict(self._failures)


native = _Native()


def text(value):
    """str or bytes to the C string the library takes; None stays None."""
    if value is None or isinstance(value, bytes):
        return value
    try:
        return str(value).encode("utf-8", "replace")
    except Exception as exc:  # a host object whose __str__ raises
        native.fail("argument", "cannot convert an argument to text: %r" % exc)
        return b""
