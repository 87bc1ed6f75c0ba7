"""WSGI middleware: one transaction per request.

    from zxagent.wsgi import Middleware
    application = Middleware(application)

The transaction is named by the request's path (SCRIPT_NAME + PATH_INFO),
joins the calling tier's flowpath when the request carries TIER_HEADER, is
current while the application runs and while its response is iterated, and
ends with the response's status when the server closes the response: also
when the application raises (500 unless it had started a response) or the
server closes the response early. It is released in every case.
"""

from . import TIER_HEADER, Transaction, _current
from ._native import native

__all__ = ["Middleware"]


def _status_code(status):
    try:
        return int(str(status).split(None, 1)[0])
    except (ValueError, IndexError):
        native.fail("status", "response status %r has no code" % (status,))
        return 0


def _begin(environ, header_key):
    try:
        path = (environ.get("SCRIPT_NAME") or "") + (environ.get("PATH_INFO") or "")
        return Transaction(path or "/", environ.get(header_key))
    except Exception as exc:  # a malformed environ must not fail the request
        native.fail("wsgi", "cannot begin a transaction: %r" % exc)
        return Transaction(None)


class Middleware:
    """Wraps a WSGI application; `header` names the incoming tier header."""

    def __init__(self, app, header=TIER_HEADER):
        self.app = app
        self._header_key = "HTTP_" + header.upper().replace("-", "_")

    def __call__(self, environ, start_response):
        tx = _begin(environ, self._header_key)
        response = _Response(tx)

        def traced_start_response(status, headers, exc_info=None):
            code = _status_code(status)
            if code:
                tx.status = code
            response.started = True
            return start_response(status, headers, exc_info)

        token = _current.set(tx)
        try:
            response.body = self.app(environ, traced_start_response)
        except BaseException:
            tx.finish(500)
            raise
        finally:
            _current.reset(token)
        return response


class _Response:
    """The application's response iterable, with the transaction's end on
    close. Iterating it runs the application's generator with the
    transaction current."""

    def __init__(self, tx):
        self.tx, self.body, self.started, self._iter = tx, None, False, None

    def __iter__(self):
        return self

    def __next__(self):
        if self._iter is None:
            self._iter = iter(self.body)
        token = _current.set(self.tx)
        try:
            return next(self._iter)
        except StopIteration:
            raise
        except BaseException:
            self.tx.finish(500)
            raise
        finally:
            _current.reset(token)

    def close(self):
        try:
            close = getattr(self.body, "close", None)
            if close is not None:
                close()
        finally:
            # A response never started did not reach the client as a success.
            self.tx.finish(None if self.started else 500)

    def __del__(self):
        # A server that never calls close() must not keep the slot for good.
        if not self.tx._done:
            self.tx.finish(None if self.started else 500)
