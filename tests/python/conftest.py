# What the Python tests share: the build under test with its copy of the package on the path
# (tests/support/programs.py: $ZQ_BUILD, programs as child processes, the daemon on sdiboard), and
# devsim on every link.
import pathlib
import re
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from programs import BUILD, ROOT, Program, board, needs_namespace  # noqa: E402,F401

sys.path.insert(0, str(BUILD / "bindings" / "python"))


class Devsim(Program):
    """devsim on UDP, TCP, a pty and a management port of its own, with `options`."""

    def __init__(self, *options):
        super().__init__(BUILD / "tools/devsim/devsim", "udp", "127.0.0.1", 0, "--also", "tcp:0",
                         "--also", "serial", "--mgmt", 0, *options, ready="^listening on")
        links = dict(re.findall(r"(udp|tcp|serial|mgmt) (?:127\.0\.0\.1:)?([^ ,]+)", self.ready))
        self.udp, self.tcp, self.mgmt = int(links["udp"]), int(links["tcp"]), int(links["mgmt"])
        self.serial = links["serial"]

    def connect(self, link, timeout=0.5):
        """A handle on `link`: "udp", "tcp", "serial" or "mgmt" (the management port)."""
        import zqhandler

        if link == "serial":
            return zqhandler.connect_serial(self.serial, timeout=timeout)
        connect = zqhandler.connect_tcp if link == "tcp" else zqhandler.connect_udp
        return connect("127.0.0.1", getattr(self, link), timeout=timeout)


@pytest.fixture
def devsim():
    """A factory of devsims, each stopped at the end of the test."""
    started = []
    yield lambda *options: started.append(Devsim(*options)) or started[-1]
    for program in started:
        program.stop()
