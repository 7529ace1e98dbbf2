# What the Python tests share: the build under test ($ZQ_BUILD, default build/dev), programs as
# child processes read line by line, waited for by the line that says they are ready and stopped
# by their own pid, and the daemon serving on the board emulator.
import os
import pathlib
import queue
import re
import socket
import struct
import subprocess
import threading
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZQ_BUILD", ROOT / "build" / "dev")).resolve()


def wait_until(condition, seconds=10, step=0.05):
    """Whether `condition()` holds within `seconds`, tried every `step`."""
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(step)
    return condition()


class Program:
    """A program as a child process; its standard output and error read line by line. One that
    never says it is ready is stopped before the test fails."""

    def __init__(self, *argv, ready=None, env=None):
        self.process = subprocess.Popen([str(a) for a in argv], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True, env=env)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        try:
            self.ready = self.wait_for(ready) if ready else None
        except BaseException:
            self.stop()
            raise

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


# Tests of the daemon bind its fixed ports: they run only in another network namespace than
# $ZQ_OUTER_NETNS, the one the stage's script started in.
NETWORK_NAMESPACE = os.readlink("/proc/self/ns/net")
needs_namespace = pytest.mark.skipif(
    os.environ.get("ZQ_OUTER_NETNS", NETWORK_NAMESPACE) == NETWORK_NAMESPACE,
    reason="binds the daemon's fixed ports: needs a network namespace (tests/support/check-pytest)")

# A network event no board line makes: the daemon relays it to 127.0.0.1:42000 when serving.
PROBE = struct.pack(">ii", 0x7E57, 0)


def relayed(receiver):
    """Whether PROBE, sent to the daemon's network port 42002, reaches the bound UDP socket
    `receiver`; whatever else arrives until it has been quiet for 0.2 s is dropped."""
    with socket.socket(type=socket.SOCK_DGRAM) as sender:
        sender.sendto(PROBE, ("127.0.0.1", 42002))
    receiver.settimeout(0.2)
    received = []
    try:
        while True:
            received.append(receiver.recv(64))
    except socket.timeout:
        return PROBE in received


@pytest.fixture(scope="module")
def board(tmp_path_factory):
    """sdiboard, and vlmgpiod.out -v on it in this network namespace, serving: a network event
    sent to its port 42002 has come back on 127.0.0.1:42000. The daemon is `board.daemon`; its
    debug lines tell which events it sent."""
    board_socket = tmp_path_factory.mktemp("board") / "board.sock"
    board = Program(BUILD / "tools/sdiboard/sdiboard", "-s", board_socket,
                    ready="^SDI board emulator on")
    board.daemon = Program(BUILD / "apps/vlmgpiod/vlmgpiod.out", "-v",
                           env={**os.environ, "TLAPI_SIM_SOCKET": str(board_socket)})
    with socket.socket(type=socket.SOCK_DGRAM) as events:
        events.bind(("127.0.0.1", 42000))
        if not wait_until(lambda: relayed(events), step=0):
            pytest.fail("vlmgpiod.out does not relay network events")
    yield board
    board.daemon.stop()
    board.stop()
