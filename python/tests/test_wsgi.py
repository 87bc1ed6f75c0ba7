import http.client
import socketserver
import threading
from concurrent.futures import ThreadPoolExecutor
from wsgiref.simple_server import WSGIRequestHandler, WSGIServer, make_server
from wsgiref.util import setup_testing_defaults

import pytest

import zxagent
from zxagent.wsgi import Middleware


def shop(environ, start_response):
    path = environ["PATH_INFO"]
    tx = zxagent.current()
    if path.endswith("/boom"):
        raise RuntimeError("application failure")
    if path.endswith("/stream"):
        # A generator: the response starts at the first item, in the server's
        # loop, with the transaction still current.
        def body():
            start_response("201 Created", [("Content-Type", "text/plain")])
            assert zxagent.current() is tx
            yield b"a"
            yield b"b"
        return body()
    status = "404 Not Found" if path.endswith("/missing") else "200 OK"
    with zxagent.method("Shop.render"):
        header = tx.tier_header() if tx else None
    start_response(status, [("Content-Type", "text/plain")])
    return [(header or "-").encode()]


class ThreadingServer(socketserver.ThreadingMixIn, WSGIServer):
    daemon_threads = True


class QuietHandler(WSGIRequestHandler):
    def log_message(self, *args):
        pass


@pytest.fixture
def server(collector):
    httpd = make_server("127.0.0.1", 0, Middleware(shop), server_class=ThreadingServer,
                        handler_class=QuietHandler)
    thread = threading.Thread(target=httpd.serve_forever)
    thread.start()
    yield httpd.server_port
    httpd.shutdown()
    httpd.server_close()
    thread.join()


def request(port, path, headers=None):
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
    try:
        conn.request("GET", path, headers=headers or {})
        resp = conn.getresponse()
        return resp.status, resp.read()
    finally:
        conn.close()


def test_concurrent_requests_arrive_with_their_bts_statuses_and_callers(collector, server):
    with zxagent.transaction("/caller/front") as front:
        header = front.tier_header()
    paths = ["/wsgi/cart", "/wsgi/missing", "/wsgi/boom", "/wsgi/stream"] * 10
    with ThreadPoolExecutor(max_workers=8) as pool:
        answers = list(pool.map(lambda p: request(server, p, {zxagent.TIER_HEADER: header}),
                                paths))
    # Each request's own header for a next tier, as the application saw it.
    assert all(b.count(b"_") >= 2 for p, (_, b) in zip(paths, answers) if p == "/wsgi/cart")
    assert sorted({(p, a[0]) for p, a in zip(paths, answers)}) == [
        ("/wsgi/boom", 500), ("/wsgi/cart", 200), ("/wsgi/missing", 404), ("/wsgi/stream", 201)]

    got = collector.ended("/wsgi/", len(paths))
    assert len(got) == len(paths)
    by_url = {}
    for fp in got:
        assert fp["bt_name"] == fp["url"]
        assert fp["chain"] == header.split("_")[:2]
        by_url.setdefault(fp["url"], set()).add(fp["status"])
    assert by_url == {"/wsgi/cart": {200}, "/wsgi/missing": {404}, "/wsgi/boom": {500},
                      "/wsgi/stream": {201}}


def _call(app, path):
    environ = {"PATH_INFO": path}
    setup_testing_defaults(environ)
    started = []
    result = app(environ, lambda status, headers, exc_info=None: started.append(status))
    return result, started


def test_response_closed_early_or_failing_midway_still_ends(collector):
    closed = []

    def app(environ, start_response):
        def body():
            try:
                start_response("206 Partial Content", [])
                yield b"first"
                if environ["PATH_INFO"].endswith("/fails"):
                    raise OSError("disk gone")
                yield b"never read"
            finally:
                closed.append(environ["PATH_INFO"])
        return body()

    mw = Middleware(app)
    early, _ = _call(mw, "/direct/early")
    assert next(early) == b"first"
    early.close()  # a client gone after the first chunk

    failing, _ = _call(mw, "/direct/fails")
    assert next(failing) == b"first"
    with pytest.raises(OSError):
        next(failing)
    failing.close()

    never, _ = _call(Middleware(lambda e, s: [b"no start_response"]), "/direct/unstarted")
    never.close()

    got = {fp["url"]: fp["status"] for fp in collector.ended("/direct/", 3)}
    assert got == {"/direct/early": 206, "/direct/fails": 500, "/direct/unstarted": 500}
    assert sorted(closed) == ["/direct/early", "/direct/fails"]
