"""The board's GPI and GPO events as vlmgpiod.out exchanges them with local programs: an 8-byte
UDP datagram, `line` then `status`, each a signed 32-bit big-endian number.

  GPI events     the daemon sends them to 127.0.0.1:42000 (LOOP_GPI_PORT): line 0 to 7, status
                 0 (now clear), 1 (now set) or 2 (changed and changed back between two polls);
  GPO requests   the daemon takes them on 127.0.0.1:42001 (LOOP_GPO_PORT): line 0 to 7 with
                 status 0 (clear) or any other (set), or line 255 (ALL_LINES) with the levels of
                 all eight lines in status, bit n for line n;
  network        with -m the daemon multicasts GPO requests to 224.1.1.42:42002 (INET_GPI_PORT)
                 and relays GPI events that reach port 42002 to the local GPI port.

Only one program at a time can listen on 127.0.0.1:42000.
"""

import collections
import select
import socket
import struct
import time

from ._declarations import GPIO_CONSTANTS, GPIO_MCAST_ADDR

LOOP_GPI_PORT = GPIO_CONSTANTS["LOOP_GPI_PORT"]
LOOP_GPO_PORT = GPIO_CONSTANTS["LOOP_GPO_PORT"]
INET_GPI_PORT = GPIO_CONSTANTS["INET_GPI_PORT"]
DATAGRAM_SIZE = GPIO_CONSTANTS["GPIO_DATAGRAM_SIZE"]
MCAST_ADDR = GPIO_MCAST_ADDR
ALL_LINES = 255
LOOPBACK = "127.0.0.1"

CLEAR, SET, CHANGED_BACK = 0, 1, 2
"""The statuses of a GPI event."""

_FORMAT = struct.Struct(">ii")

Event = collections.namedtuple("Event", "line status time")
Event.__doc__ = """A GPI event: its `line`, its `status` (CLEAR, SET or CHANGED_BACK) and the
`time` it was received (seconds since the epoch, as time.time() gives them)."""


def encode(line, status):
    """The 8-byte datagram of a line and a status, each a signed 32-bit number."""
    try:
        return _FORMAT.pack(line, status)
    except struct.error as error:
        raise ValueError("a GPIO event's line and status are signed 32-bit numbers: %s"
                         % error) from None


def decode(datagram):
    """The (line, status) of an 8-byte datagram; any other length raises ValueError."""
    if len(datagram) != DATAGRAM_SIZE:
        raise ValueError("a GPIO event is %d bytes, not %d" % (DATAGRAM_SIZE, len(datagram)))
    return _FORMAT.unpack(bytes(datagram))


class GpiListener:
    """Receives GPI events on `host`:`port` (127.0.0.1:42000), as an iterator of Event.

    Iteration ends after `timeout` seconds without an event (None: never). Datagrams that are not
    8 bytes long are not events: they are counted in `ignored` and skipped, as the daemon skips
    them. A context manager; close() releases the port.
    """

    def __init__(self, host=LOOPBACK, port=LOOP_GPI_PORT, timeout=None):
        self.timeout = timeout
        self.ignored = 0
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            self._socket.bind((host, port))
        except BaseException:
            self._socket.close()
            raise

    @property
    def address(self):
        """The (host, port) listened on."""
        return self._socket.getsockname()

    def receive(self, timeout=None):
        """The next event, or None when `timeout` seconds (None: without limit) pass first."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            left = None if deadline is None else max(deadline - time.monotonic(), 0)
            if not select.select([self._socket], [], [], left)[0]:
                return None
            datagram = self._socket.recv(DATAGRAM_SIZE + 1)
            if len(datagram) == DATAGRAM_SIZE:
                return Event(*decode(datagram), time.time())
            self.ignored += 1

    def __iter__(self):
        while True:
            event = self.receive(self.timeout)
            if event is None:
                return
            yield event

    def close(self):
        self._socket.close()

    def fileno(self):
        """The socket's descriptor, for select() or an event loop."""
        return self._socket.fileno()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()


class GpoSender:
    """Sends GPO requests to the daemon at `host`:`port` (127.0.0.1:42001). The daemon does not
    answer them. A context manager."""

    def __init__(self, host=LOOPBACK, port=LOOP_GPO_PORT):
        self._destination = (host, port)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def set(self, line, on=True):
        """Sets GPO line `line` (0 to 7), or clears it when `on` is false."""
        if not 0 <= line <= 7:
            raise ValueError("GPO lines are 0 to 7, not %r" % (line,))
        self.send(line, 1 if on else 0)

    def set_all(self, levels):
        """Sets all eight lines at once: bit n of `levels` (0 to 0xFF) for line n."""
        if not 0 <= levels <= 0xFF:
            raise ValueError("levels of eight lines are 0 to 0xFF, not %r" % (levels,))
        self.send(ALL_LINES, levels)

    def send(self, line, status):
        """Sends one datagram of any line and status, as they are."""
        self._socket.sendto(encode(line, status), self._destination)

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()
