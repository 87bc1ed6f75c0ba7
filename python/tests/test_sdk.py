import os
import subprocess
import sys

import pytest

import zxagent

PYTHON_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


def test_blocks_decorators_and_statuses_reach_the_collector(collector):
    @zxagent.method("Cart.price")
    def price(depth):
        # Recursion enters the decorator afresh on every level.
        return 1 if depth == 0 else price(depth - 1) + 1

    @zxagent.db_callout("orders-db", "SELECT 1")
    def query():
        return "row"

    with zxagent.transaction("/sdk/cart") as bt:
        assert bt.traced and zxagent.current() is bt
        with bt.method("Cart.load"):
            assert query() == "row"
            with zxagent.http_callout("payments", "/charge"):
                pass
        assert price(3) == 4
        bt.status = 404
    assert zxagent.current() is None

    with pytest.raises(KeyError):
        with zxagent.transaction("/sdk/raises"):
            raise KeyError("the application's own error still propagates")
    with pytest.raises(KeyError):
        with zxagent.transaction("/sdk/raises-after-status") as bt:
            bt.status = 302
            raise KeyError

    # A caller's header that is not one joins nothing (the WSGI scenario joins real ones).
    with zxagent.transaction("/sdk/foreign", tier_header="no separators") as ended:
        pass
    assert ended.tier_header() is None, "an ended transaction has no header to give"

    got = {fp["url"]: fp for fp in collector.ended("/sdk/", 4)}
    assert {u: (fp["status"], fp["bt_name"]) for u, fp in got.items()} == {
        "/sdk/cart": (404, "/sdk/cart"),
        "/sdk/raises": (500, "/sdk/raises"),
        "/sdk/raises-after-status": (302, "/sdk/raises-after-status"),
        "/sdk/foreign": (200, "/sdk/foreign"),
    }
    assert got["/sdk/foreign"]["chain"] == []
    # Outside any transaction the decorators are plain calls.
    assert price(1) == 2 and query() == "row"
    assert zxagent.data_counters()["records"] > 0


def test_bad_arguments_are_counted_not_raised(collector):
    class Unprintable:
        def __str__(self):
            raise RuntimeError("no text")

    before = zxagent.failures()
    with zxagent.transaction(Unprintable()) as bt:  # begins with an empty name: untraced
        assert not bt.traced
        bt.status = "not a number"
        with bt.method(None), bt.db_callout(None, None):
            pass
    after = zxagent.failures()
    assert after.get("argument", 0) > before.get("argument", 0)
    assert after.get("status", 0) > before.get("status", 0)


def test_without_the_library_everything_is_a_counted_no_op(tmp_path):
    script = """
import logging, zxagent
logging.basicConfig(level=logging.WARNING)
assert zxagent.init(pause_ms=0) is False
with zxagent.transaction("/x") as bt:
    with bt.method("m"), zxagent.db_callout("db"):
        assert bt.tier_header() is None
    bt.status = 200
assert zxagent.data_counters() is None
print("failures", zxagent.failures()["library"])
"""
    env = dict(os.environ, ZXAGENT_LIBRARY=str(tmp_path / "missing.so"), PYTHONPATH=PYTHON_DIR)
    run = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True,
                         timeout=60)
    assert run.returncode == 0, run.stderr
    assert "failures" in run.stdout and int(run.stdout.split()[-1]) >= 3
    # Logged once, however many calls failed.
    assert run.stderr.count("cannot load") == 1, run.stderr
