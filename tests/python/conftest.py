# What the Python tests share: the build under test ($ZQ_BUILD, default build/dev) with its copy
# of the package on the path, and the emulators and the daemon as child processes, waited for by
# the line that says they are ready and stopped by their own pid.
import os
import pathlib
import queue
import re
import subprocess
import sys
import threading

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZQ_BUILD", ROOT / "build" / "dev")).resolve()
sys.path.insert(0, str(BUILD / "bindings" / "python"))


class Program:
    """A program as a child process; its standard output and error read line by line."""

    def __init__(self, *argv, ready=None, env=None):
        self.process = subprocess.Popen([str(a) for a in argv], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True, env=env)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        self.ready = self.wait_for(ready) if ready else None

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def wait_for(self, pattern, seconds=10):
        """The first line from now on that matches `pattern`; fails the test after `seconds`."""
        seen = []
        while not seen or not re.search(pattern, seen[-1]):
            try:
                seen.append(self.lines.get(timeout=seconds))
            except queue.Empty:
                seen.append(None)
            if seen[-1] is None:
                pytest.fail("%s: no line matching %r in %s (exit status %s)"
                            % (self.process.args[:2], pattern, seen, self.process.poll()))
        return seen[-1]

    def say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()


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


# Tests of the daemon bind its fixed ports: they run only in another network namespace than
# $ZQ_OUTER_NETNS, the one tests/python/check-python started in.
NETWORK_NAMESPACE = os.readlink("/proc/self/ns/net")
needs_namespace = pytest.mark.skipif(
    os.environ.get("ZQ_OUTER_NETNS", NETWORK_NAMESPACE) == NETWORK_NAMESPACE,
    reason="binds the daemon's fixed ports: needs a network namespace (tests/python/check-python)")


PROBE_LINE = 0x7E57  # a network event no board line makes: the daemon relays it when serving


@pytest.fixture(scope="module")
def board(tmp_path_factory):
    """sdiboard, and vlmgpiod.out -v on it in this network namespace, serving: a network event
    sent to its port 42002 has come back on 127.0.0.1:42000. The daemon is `board.daemon`; its
    debug lines tell which events it sent."""
    from zqhandler import gpio

    board_socket = tmp_path_factory.mktemp("board") / "board.sock"
    board = Program(BUILD / "tools/sdiboard/sdiboard", "-s", board_socket,
                    ready="^SDI board emulator on")
    board.daemon = Program(BUILD / "apps/vlmgpiod/vlmgpiod.out", "-v",
                           env={**os.environ, "TLAPI_SIM_SOCKET": str(board_socket)})
    with gpio.GpiListener() as events, gpio.GpoSender(port=gpio.INET_GPI_PORT) as probe:
        for _ in range(100):
            probe.send(PROBE_LINE, 0)
            if any(event.line == PROBE_LINE for event in iter(lambda: events.receive(0.1), None)):
                break
        else:
            pytest.fail("vlmgpiod.out does not relay network events")
    yield board
    board.daemon.stop()
    board.stop()
