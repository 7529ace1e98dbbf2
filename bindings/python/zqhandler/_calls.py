"""What every operation of the package shares: turning Python arguments into what the library
takes (checked here, so that nothing is cut or wrapped silently on its way), and output buffers.
"""

import ctypes
import operator

from . import _library
from ._declarations import CONSTANTS as C
from .errors import refuse

INT_MIN, INT_MAX = -(2**31), 2**31 - 1
UINT32_MAX = 2**32 - 1


def integer(operation, what, value, low=INT_MIN, high=INT_MAX):
    """`value` as an int within [low, high]; anything else is refused with InvalidArgument."""
    if isinstance(value, bool):
        raise refuse(operation, "%s must be a number, not %r" % (what, value))
    try:
        number = operator.index(value)
    except TypeError:
        raise refuse(operation, "%s must be an integer, not %r" % (what, value)) from None
    if not low <= number <= high:
        raise refuse(operation, "%s %d is outside %d to %d" % (what, number, low, high))
    return number


def text(operation, what, value, longest=None, optional=False):
    """A string argument as the library's bytes: ASCII, at most `longest` characters, None only
    where the library gives it a meaning."""
    if value is None:
        if optional:
            return None
        raise refuse(operation, "%s is required" % what)
    if isinstance(value, str):
        try:
            value = value.encode("ascii")
        except UnicodeEncodeError:
            raise refuse(operation, "%s %r is not ASCII" % (what, value)) from None
    elif not isinstance(value, (bytes, bytearray)):
        raise refuse(operation, "%s must be a string, not %r" % (what, value))
    value = bytes(value)
    if b"\0" in value:
        raise refuse(operation, "%s %r holds a zero byte" % (what, value))
    if longest is not None and len(value) > longest:
        raise refuse(operation, "%s %r is longer than %d characters" % (what, value, longest))
    return value


def timecode(operation, value, what="timecode", optional=False):
    """A timecode "HH:MM:SS:FF" (";" before the frames for drop-frame), refused unless it is in
    that form: the library would send unreadable text as 00:00:00:00."""
    encoded = text(operation, what, value, optional=optional)
    if encoded is not None and not _library.lib.tcstr_isnormal(encoded):
        raise refuse(operation, "%s %r is not HH:MM:SS:FF" % (what, value))
    return encoded


def clip_id(operation, value, optional=False):
    """A clip ID: up to eight printable ASCII characters (the library pads it with spaces)."""
    encoded = text(operation, "ID", value, longest=8, optional=optional)
    if encoded is not None and not all(0x20 <= byte < 0x7F for byte in encoded):
        raise refuse(operation, "ID %r holds a character that is not printable" % (value,))
    return encoded


def data(operation, what, value, longest=None):
    """Bytes to send: any bytes-like object, at most `longest` bytes."""
    try:
        value = bytes(memoryview(value))
    except TypeError:
        raise refuse(operation, "%s must be bytes, not %r" % (what, value)) from None
    if longest is not None and len(value) > longest:
        raise refuse(operation, "%s: %d bytes, at most %d" % (what, len(value), longest))
    return value


def byte_buffer(size):
    return (ctypes.c_uint8 * size)()


def text_buffer(size=C["ZQ_TC_BYTES"]):
    return ctypes.create_string_buffer(size)


def decoded(buffer):
    """The NUL-terminated text of a buffer the library filled."""
    return buffer.value.decode("latin-1")
