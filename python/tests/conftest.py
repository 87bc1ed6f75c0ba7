"""One reference collector and one agent for the whole test process (the
agent starts once per process). Tests name their transactions uniquely and
wait, with a deadline, for the records they expect."""

import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import zxagent  # noqa: E402

DEADLINE_S = 20
# One-second monitor intervals; 5xx answers count as errors.
START = ("BTTConfig=ALL|400|1200;BTErrorRules=500-599|F;zxMonitorInterval=1;testIdx=1;"
         "status=running")


class Collector:
    """zx_collector as a subprocess; its printed records, gathered by a reader
    thread, joined into flowpaths: instance -> {url, bt, chain, status}."""

    def __init__(self, binary, workdir, args):
        self._cond = threading.Condition()  # guards everything below
        self.port = None
        self.bt_names = {}     # BT id -> name (record 7)
        self.flowpaths = {}    # instance -> dict
        self.lines = []
        self.proc = subprocess.Popen([binary, "--port", "0"] + args,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, cwd=workdir)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.wait_for(lambda: self.port is not None, "the collector's port")

    def _read(self):
        for line in self.proc.stdout:
            with self._cond:
                self._take(line.rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def _take(self, line):
        self.lines.append(line)
        if line.startswith("zx_collector listening on port "):
            self.port = int(line.rsplit(" ", 1)[1])
        if not line.startswith("[data] record "):
            return
        fields = line[len("[data] record "):].split(" ")
        if fields[0] == "7":
            self.bt_names[fields[1]] = fields[2]
        elif fields[0] == "2":
            ids = fields[1].split(":")
            fp = self.flowpaths.setdefault(ids[0], {})
            fp.update(url=fields[6], bt=fields[5], chain=ids[1:])
        elif fields[0] == "4":
            self.flowpaths.setdefault(fields[1], {})["status"] = int(fields[2])

    def wait_for(self, condition, what):
        deadline = time.monotonic() + DEADLINE_S
        with self._cond:
            while not condition():
                left = deadline - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    tail = "\n".join(self.lines[-20:])
                    raise AssertionError("timed out waiting for %s; collector said:\n%s"
                                         % (what, tail))
                self._cond.wait(left)

    def ended(self, prefix, count):
        """Waits until count flowpaths whose URL starts with prefix have ended;
        returns them with their BT names."""
        def matching():
            return [dict(fp, bt_name=self.bt_names.get(fp.get("bt")))
                    for fp in self.flowpaths.values()
                    if fp.get("url", "").startswith(prefix) and "status" in fp]
        self.wait_for(lambda: len(matching()) >= count, "%d flowpaths of %s" % (count, prefix))
        with self._cond:
            return matching()

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=DEADLINE_S)
        self._reader.join(timeout=DEADLINE_S)


def _collector_binary():
    binary = os.environ.get("ZX_COLLECTOR") or shutil.which("zx_collector")
    if not binary:
        pytest.skip("zx_collector not found (set ZX_COLLECTOR)")
    return os.path.abspath(binary)


def _self_signed_certificate(work):
    """A throwaway certificate for 127.0.0.1 that is its own CA."""
    cert, key = os.path.join(work, "cert.pem"), os.path.join(work, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                    "-days", "1", "-subj", "/CN=localhost", "-addext",
                    "subjectAltName=IP:127.0.0.1,DNS:localhost"],
                   check=True, capture_output=True)
    return cert, key


@pytest.fixture(scope="session")
def collector():
    # The link moves from TCP to WSS, offered by a first collector: the
    # binding loads the library with its dependencies out of the process's
    # global scope, and TLS must work from there too.
    work = tempfile.mkdtemp(prefix="zx-pytest-")
    cert, key = _self_signed_certificate(work)
    coll = Collector(_collector_binary(), work,
                     ["--start", START, "--wss", "--cert", cert, "--key", key])
    offer = Collector(_collector_binary(), work, ["--protocols", "WSS:%d" % coll.port])
    home = os.path.join(work, "home")
    os.makedirs(os.path.join(home, "config"))
    with open(os.path.join(home, "config", "zxsettings.conf"), "w") as f:
        f.write("tier=PyTier\nserver=py-server\ninstance=py-test\nzxcHost=127.0.0.1\n"
                "zxcPort=%d\nZXC_COMM_PROTOCOL=TCP:%d,WSS:%d\nzxTlsCaFile=%s\n"
                "zxcRetryIntervalMs=200\nzxcConnectTimeoutMs=2000\n"
                % (offer.port, offer.port, coll.port, cert))
    os.environ["ZXHOME"] = home
    try:
        assert zxagent.init(pause_ms=DEADLINE_S * 1000), "library not loaded"
        coll.wait_for(lambda: any("start_instrumentation" in l and "result=Ok" in l
                                  for l in coll.lines), "the run to start")
        yield coll
    finally:
        offer.stop()
        coll.stop()
        shutil.rmtree(work, ignore_errors=True)
