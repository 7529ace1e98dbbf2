"""The exceptions the package raises: one base class, Error, which carries the library's error
code and its text, and one subclass per kind of failure, so that a caller catches what it can
handle (Timeout, Nak, NotConnected ...) and lets the rest through.

No operation returns the library's -1: a failure always raises. A Sony NAK raises Nak, whatever
code the library gave it; a Louth refusal raises Refused; a call the library refused before
sending anything (an argument outside its table) raises InvalidArgument.
"""

import enum

from . import _library
from ._declarations import CONSTANTS as _C


class Error(Exception):
    """A failed operation.

    Attributes: `code`, the library's error code (e_s9p_err, S9P_ERR_* in sony9p.h); `text`, its
    message as s9p_strerror gives it; `operation`, what the package was doing.
    """

    def __init__(self, operation, code, detail=None):
        self.operation = operation
        self.code = code
        self.text = _library.strerror(code)
        super().__init__("%s: %s%s" % (operation, self.text, " (%s)" % detail if detail else ""))


class ChecksumError(Error):
    """An answer came with a wrong checksum (S9P_ERR_CHECKSUM)."""


class CommunicationError(Error):
    """The link failed while an answer was read (S9P_ERR_COMM)."""


class ProtocolError(Error):
    """An answer came, but not the one the operation accepts (S9P_ERR_PROTOCOL)."""


class Timeout(Error):
    """Nothing could be sent, or nothing came back, within the handle's time-out."""


class SendTimeout(Timeout):
    """The request could not be sent within the time-out (S9P_SEND_TIMEOUT)."""


class ReceiveTimeout(Timeout):
    """No answer came within the time-out (S9P_RCV_TIMEOUT)."""


class SystemFailure(Error):
    """A system call failed, or memory was short (S9P_ERR_SYSTEM)."""


class NotConnected(Error):
    """The handle has no connection fit for the operation (S9P_ERR_NOT_CONNECTED)."""


class HandleClosed(NotConnected):
    """The handle was closed: no call reaches the library any more."""


class InvalidArgument(Error, ValueError):
    """An argument was refused: by the package or by the library before anything was sent, or
    by a connect that could not reach its peer (S9P_INVAL_ARG)."""


class PermissionDenied(Error):
    """The server refused: a Louth port not granted, a GOP upload refused (S9P_PERMISSION_DENIED)."""


class NotImplementedByDevice(Error):
    """The device does not implement the command (S9P_NOT_IMPLEMENTED)."""


class NotFound(Error):
    """What was asked for is not there: the end of an ID list (S9P_NOTFOUND)."""


class NakBits(enum.IntFlag):
    """The error bits of a Sony NAK (11 12 bits); bits 1 and 3 have no name."""

    UNKNOWN_COMMAND = 0x01
    CHECKSUM_ERROR = 0x04
    PARITY_ERROR = 0x10
    BUFFER_OVERRUN = 0x20
    FRAMING_ERROR = 0x40
    TIMEOUT = 0x80


class Nak(Error):
    """The device answered a Sony command with a NAK.

    `bits` holds its error bits as NakBits (0 for a NAK that carried no data byte), `bit_names`
    their names; `code` is what the library made of them: S9P_ERR_CHECKSUM with the checksum bit,
    else S9P_NOT_IMPLEMENTED with the unknown-command bit, else S9P_ERR_COMM.
    """

    def __init__(self, operation, code, bits):
        self.bits = NakBits(bits)
        self.bit_names = tuple(bit.name for bit in NakBits if bit & self.bits)
        super().__init__(operation, code, "NAK %02X %s" % (bits, " ".join(self.bit_names)))


class Refused(ProtocolError):
    """A Louth device refused a command (05 and its error byte, in `error_byte`)."""

    def __init__(self, operation, code, error_byte):
        self.error_byte = error_byte
        super().__init__(operation, code, "refused with error byte %02X" % error_byte)


_BY_CODE = {
    _C["S9P_ERR_CHECKSUM"]: ChecksumError,
    _C["S9P_ERR_COMM"]: CommunicationError,
    _C["S9P_ERR_PROTOCOL"]: ProtocolError,
    _C["S9P_SEND_TIMEOUT"]: SendTimeout,
    _C["S9P_RCV_TIMEOUT"]: ReceiveTimeout,
    _C["S9P_ERR_SYSTEM"]: SystemFailure,
    _C["S9P_ERR_NOT_CONNECTED"]: NotConnected,
    _C["S9P_INVAL_ARG"]: InvalidArgument,
    _C["S9P_PERMISSION_DENIED"]: PermissionDenied,
    _C["S9P_NOT_IMPLEMENTED"]: NotImplementedByDevice,
    _C["S9P_NOTFOUND"]: NotFound,
}

# The codes a NAK can leave.
NAK_CODES = frozenset((_C["S9P_ERR_CHECKSUM"], _C["S9P_NOT_IMPLEMENTED"], _C["S9P_ERR_COMM"]))


def error_for(operation, code, detail=None):
    """The exception of the library's `code`: its own subclass, or Error for an unknown code."""
    return _BY_CODE.get(code, Error)(operation, code, detail)


def refuse(operation, why):
    """InvalidArgument for an argument refused before anything was sent, by the package or by
    the library (which then stores no code)."""
    return InvalidArgument(operation, _C["S9P_INVAL_ARG"], why)
