"""zqhandler: drive a video server from Python, and see and set the SDI board's GPIO lines.

The package runs over the shared library libzqhandler.so.0 through ctypes, with Debian's Python
3 alone. A controller:

    import zqhandler

    with zqhandler.connect_udp("127.0.0.1", 32896, timeout=0.2) as deck:
        deck.odetics.in_preset("NEWS")          # load a clip by ID and cue to its start
        deck.play()                             # every basic command is a method ...
        print(deck.timecode(), deck.status())   # ... and every basic sense
        for clip in deck.odetics.ids():
            print(clip)

connect_udp, connect_tcp and connect_serial return a Handle (a context manager). Its `timeout` is
in seconds. Every failure raises a subclass of zqhandler.Error carrying the library's code and
text: Timeout, Nak (with its bits named), NotConnected, ProtocolError, InvalidArgument ...
Modules: timecode (timecode strings, frame counts, BCD), gpio (the daemon's GPI events and GPO
requests), errors, basic (Command, Sense).

Where it is installed. `cmake --install BUILD --prefix PREFIX` puts the package in
PREFIX/lib/python3/dist-packages/zqhandler (the CMake cache variable VLM_PYTHON_DIR changes the
folder under the prefix) and the library in PREFIX's library folder. With the prefix /usr,
Debian's Python finds it as it is; with any other prefix, add the folder to PYTHONPATH:

    PYTHONPATH=PREFIX/lib/python3/dist-packages /usr/bin/python3 ...

From the build tree, without installing: PYTHONPATH=BUILD/bindings/python (where the build
puts a copy of the package, which finds BUILD's library).

The library is the one installed beside the package (or, in the build tree, the build's); the
environment variable ZQHANDLER_LIBRARY names another libzqhandler.so.0 to use instead, and the
loader's own path (LD_LIBRARY_PATH, ld.so.conf) is tried last.
"""

from ._library import lib as _lib
from .basic import Command, Sense
from .errors import (ChecksumError, CommunicationError, Error, HandleClosed, InvalidArgument, Nak,
                     NakBits, NotConnected, NotFound, NotImplementedByDevice, PermissionDenied,
                     ProtocolError, ReceiveTimeout, Refused, SendTimeout, SystemFailure, Timeout)
from .handle import ClipParameters, Handle, connect_serial, connect_tcp, connect_udp
from . import gpio, timecode

__all__ = [
    "ChecksumError", "ClipParameters", "Command", "CommunicationError", "Error", "Handle",
    "HandleClosed", "InvalidArgument", "Nak", "NakBits", "NotConnected", "NotFound",
    "NotImplementedByDevice", "PermissionDenied", "ProtocolError", "ReceiveTimeout", "Refused",
    "SendTimeout", "Sense", "SystemFailure", "Timeout", "connect_serial", "connect_tcp",
    "connect_udp", "get_trace_level", "gpio", "set_trace_level", "timecode",
]


def set_trace_level(limit):
    """Sets the library's trace limit for the whole process: it writes a trace line on standard
    error only below it (the connection protocol's failures are at 200; a process starts at
    500). 0 quiets the library."""
    if not 0 <= limit < 2**32:
        raise ValueError("a trace limit is 0 to 2**32 - 1, not %r" % (limit,))
    _lib._vlmlib_set_trace_level(limit)


def get_trace_level():
    """The library's trace limit."""
    return _lib._vlmlib_get_trace_level()
