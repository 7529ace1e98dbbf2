"""The device-control handle: one controller's connection to one video server, with the Sony
operations, and views for the Odetics, media, Louth, transfer and management operations.

Every basic command and sense of the library is a method, made from the library's own table
(basic.h, read when the package was built): deck.play(), deck.stop(), deck.status() ...
"""

import collections
import ctypes
import os
import socket
import stat

from . import _calls
from .basic import Command, Sense
from ._calls import byte_buffer, decoded, integer, refuse, text_buffer
from ._declarations import CONSTANTS as C
from ._library import lib
from .errors import NAK_CODES, HandleClosed, Nak, Refused, error_for
from .views import Louth, Management, Media, Odetics, Transfer


ClipParameters = collections.namedtuple("ClipParameters", "value1 value2 clip3 clip4")
ClipParameters.__doc__ = "A clip's two 32-bit values and its two linked clips, as the device keeps them."

_LINKS = {
    C["S9P_LINK_NONE"]: None,
    C["S9P_LINK_DATAGRAM"]: "udp",
    C["S9P_LINK_SERIAL"]: "serial",
    C["S9P_LINK_STREAM"]: "tcp",
}


class Handle:
    """A handle on one video server (t_zqhandler), not connected until one of its connect
    methods succeeds; zqhandler.connect_udp, connect_tcp and connect_serial do both at once.

    A context manager: leaving the `with` block closes it, as close() does, and a closed handle
    raises HandleClosed at every call. One thread at a time may use a handle; each call blocks
    for one exchange (the library releases the interpreter lock meanwhile).

    Every failure raises an exception of zqhandler.errors (a subclass of zqhandler.Error). The
    library itself writes a few lines: some operations print one on the C standard output when
    the device's answer is not the one they need (set_loop_mode, set_timer_mode,
    preset_current_field, the media queries), the transfers trace their failures on standard
    error (zqhandler.set_trace_level(0) quiets that).
    Views: `odetics` (clips by ID), `media` (the server's media queries), `louth` (the Louth
    operations), `transfer` (TCP: version, disk information, file entries, GOPs) and
    `management` (UDP management endpoint: log, disk information, pictures).
    """

    def __init__(self):
        """A new handle, not connected, with a time-out of 0.06 s."""
        self._pointer = lib.zqhandler_create()
        if not self._pointer:
            raise MemoryError("zqhandler_create")
        self._peer = None
        self._family = "s9p"
        self.last_error = None
        """The exception of the last call that failed on the device or its link, or None; a
        success keeps it. (Arguments the package itself refuses are not kept.)"""

    # ---- The views: made at each use, so that a handle and its views hold no cycle ----

    odetics = property(Odetics, doc=Odetics.__doc__)
    media = property(Media, doc=Media.__doc__)
    louth = property(Louth, doc=Louth.__doc__)
    transfer = property(Transfer, doc=Transfer.__doc__)
    management = property(Management, doc=Management.__doc__)

    # ---- Life and connections ----

    def close(self):
        """Disconnects and frees the handle; later calls raise HandleClosed. Closing twice is
        allowed."""
        pointer, self._pointer = self._pointer, None
        if pointer:
            lib.zqhandler_delete(pointer)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def __del__(self):
        if getattr(self, "_pointer", None):
            self.close()

    def __repr__(self):
        if not self._pointer:
            return "<zqhandler.Handle closed>"
        return "<zqhandler.Handle %s>" % (
            "%s %s" % (self.link, self._peer) if self.link else "not connected")

    @property
    def closed(self):
        """True once close() has run."""
        return not self._pointer

    def connect_udp(self, host, port):
        """Connects by UDP datagrams to `host` (an IPv4 address or a host name, resolved here)
        and `port` (1 to 65535). Drops the current connection first; sets the time-out back to
        0.06 s."""
        self._connect("connect_udp", lib.zqhandler_connect_eth, host, port)

    def connect_tcp(self, host, port):
        """Connects by the TCP connection protocol, as connect_udp (the connect blocks until the
        server accepts or refuses it: a refusal raises InvalidArgument, as the library codes it)."""
        self._connect("connect_tcp", lib.zqhandler_connect_tcp, host, port)

    def connect_serial(self, path):
        """Opens the serial line at `path` (38400 baud, 8 data bits, odd parity, 1 stop bit);
        its settings come back on disconnect. A path that is not a terminal (a serial port or a
        pty) raises InvalidArgument before the library opens it, since it would set up and write
        into whatever it opens, and before the current connection is dropped."""
        device = os.fsencode(path)
        _terminal_only(device)
        self._call("connect_serial", lib.zqhandler_connect_serial, device, family=None)
        self._peer = os.fsdecode(device)

    def _connect(self, operation, connect, host, port):
        port = integer(operation, "port", port, 1, 65535)
        try:
            address = socket.gethostbyname(host)
        except (OSError, TypeError, ValueError) as error:
            raise refuse(operation, "host %r: %s" % (host, error)) from None
        self._call(operation, connect, address.encode(), str(port).encode(), family=None)
        self._peer = "%s:%d" % (address, port)

    def disconnect(self):
        """Closes the connection (restoring a serial line's settings); the handle stays usable."""
        lib.zqhandler_disconnect(self._checked("disconnect"))
        self._peer = None

    @property
    def link(self):
        """The connection: "udp", "tcp", "serial", or None when not connected."""
        return _LINKS.get(self._record("link").comm_handle.connected)

    @property
    def timeout(self):
        """The time-out of each wait of an exchange, in seconds (a float); None waits without
        limit; 0 waits no longer than the link's smallest step. Every connect sets it back to
        0.06 s, so set it after connecting. Kept in whole milliseconds."""
        milliseconds = lib.zqhandler_get_timeout(self._checked("timeout"))
        return None if milliseconds < 0 else milliseconds / 1000

    @timeout.setter
    def timeout(self, seconds):
        pointer = self._checked("timeout")
        if seconds is None:
            milliseconds = -1
        elif isinstance(seconds, (int, float)) and not isinstance(seconds, bool) and \
                0 <= seconds <= _calls.INT_MAX / 1000:
            milliseconds = round(seconds * 1000)
        else:
            raise refuse("timeout", "%r is not a number of seconds from 0 (or None)" % (seconds,))
        lib.zqhandler_set_timeout(pointer, milliseconds)

    @property
    def last_command(self):
        """The frame of the last command sent (Sony or Louth, whichever was used last)."""
        record = getattr(self._record("last_command").data, self._family).last_sent
        return bytes(record.data[: record.len])

    @property
    def last_answer(self):
        """The answer of the last Sony or Louth call (NAK or refusal included); b"" when none
        came."""
        record = getattr(self._record("last_answer").data, self._family).last_rcv
        return bytes(record.data[: record.len])

    # ---- Calls into the library ----

    def _checked(self, operation):
        if not self._pointer:
            raise HandleClosed(operation, C["S9P_ERR_NOT_CONNECTED"], "the handle is closed")
        return self._pointer

    def _record(self, operation):
        return self._checked(operation).contents

    def _call(self, operation, function, *arguments, family="s9p"):
        """Runs `function` on this handle; a result below 0 raises. `family` ("s9p", "louth" or
        None) is the protocol whose records the call leaves in the handle."""
        pointer = self._checked(operation)
        lib.zqhandler_get_last_err(pointer)  # so that a code afterwards is this call's
        if family:
            self._family = family
            getattr(pointer.contents.data, family).last_rcv.len = 0
        result = function(pointer, *arguments)
        if result < 0:
            self.last_error = self._failure(operation, pointer, family)
            raise self.last_error
        return result

    def _failure(self, operation, pointer, family):
        code = lib.zqhandler_get_last_err(pointer)
        if code == C["S9P_ERR_NONE"]:
            return refuse(operation, "refused by the library before anything was sent")
        answer = self.last_answer if family else b""
        if family == "s9p" and code in NAK_CODES and answer[:2] == b"\x11\x12":
            return Nak(operation, code, answer[2] if len(answer) > 3 else 0)
        if family == "louth" and len(answer) == 2 and answer[0] == C["LOUTH_REFUSAL"]:
            return Refused(operation, code, answer[1])
        return error_for(operation, code)

    # ---- Basic commands and senses, and any frame ----

    def command(self, command):
        """Sends a basic command (a Command, its number or its name); returns when the device
        acknowledged it. Each command is also a method of its own: deck.play()."""
        command = Command.of(command, "command")
        self._call(command.method_name, lib.zqhandler_cmd_basic, command)

    def sense(self, sense):
        """Runs a basic sense (a Sense, its number or its name) and returns the answer's data
        bytes; Sense.IP_ADDRESS returns the text "a.b.c.d". Each sense is also a method of its
        own: deck.status(). The media senses (TAVON_*) are the `media` view's."""
        sense = Sense.of(sense, "sense")
        out = byte_buffer(C["ZQ_SENSE_BYTES"])
        count = self._call(sense.method_name, lib.zqhandler_cmd_sense_basic, sense, out)
        if sense == Sense.IP_ADDRESS:
            return bytes(out[:count]).decode("ascii")
        return bytes(out[:count])

    def misc(self, frame):
        """Sends any Sony frame: CMD1, CMD2 and CMD1's count of data bytes, without the checksum
        (appended by the library). Returns the whole answer frame, checksum included, unless it
        is a NAK (raised as Nak)."""
        frame = _calls.data("misc", "frame", frame, C["S9P_MAX_FRAME"] - 1)
        if len(frame) < 2 or len(frame) != (frame[0] & 0x0F) + 2:
            raise refuse("misc", "%s is not CMD1, CMD2 and CMD1's count of data bytes"
                         % frame.hex(" "))
        answer = byte_buffer(C["S9P_MAX_FRAME"])
        count = self._call("misc", lib.zqhandler_cmd_sense_misc, frame, len(frame), answer)
        return bytes(answer[:count])

    # ---- Timecode and motion ----

    def timecode(self, source=None):
        """The device's current timecode as "HH:MM:SS:FF" (";" before the frames for
        drop-frame). `source` Sense.ODETICS_STORAGE asks for the Odetics storage time instead."""
        which = Sense.TC if source is None else Sense.of(source, "timecode")
        out = text_buffer()
        self._call("timecode", lib.zqhandler_cmd_sense_timecode, which, out)
        return decoded(out)

    def cue(self, tc=None):
        """Cues to the timecode `tc`, or to the preset in-point when it is None."""
        tc = _calls.timecode("cue", tc, optional=True)
        self._call("cue", lib.zqhandler_cmd_cueWithData, tc)

    def var_play(self, speed):
        """Plays at `speed` percent of play speed, in reverse when negative."""
        self._call("var_play", lib.zqhandler_cmd_var_play, integer("var_play", "speed", speed))

    def shuttle(self, speed):
        """Shuttles at `speed` percent of play speed, in reverse when negative."""
        self._call("shuttle", lib.zqhandler_cmd_shuttle, integer("shuttle", "speed", speed))

    def jog(self, speed):
        """Jogs at `speed` percent of play speed, in reverse when negative."""
        self._call("jog", lib.zqhandler_cmd_jog, integer("jog", "speed", speed))

    def step(self, count):
        """Steps `count` frames (-255 to 255), in reverse when negative."""
        self._call("step", lib.zqhandler_cmd_step, integer("step", "count", count, -255, 255))

    def status_range(self, first, count):
        """`count` status bytes (0 to 15) from byte `first` (0 to 15)."""
        first = integer("status_range", "first", first, 0, 15)
        count = integer("status_range", "count", count, 0, 15)
        out = byte_buffer(C["ZQ_SENSE_DATA_MAX"])
        n = self._call("status_range", lib.zqhandler_cmd_sense_status_range, first, count, out)
        return bytes(out[:n])

    # ---- Clips ----

    def clip_range(self):
        """The device's first and last clip numbers, as a pair."""
        first, last = ctypes.c_int(), ctypes.c_int()
        self._call("clip_range", lib.zqhandler_cmd_sense_clip_range,
                   ctypes.byref(first), ctypes.byref(last))
        return first.value, last.value

    def clip_parameters(self, clip):
        """Clip `clip`'s (0 to 9999) parameters, as ClipParameters."""
        clip = integer("clip_parameters", "clip", clip, 0, 9999)
        outs = (ctypes.c_uint32(), ctypes.c_uint32(), ctypes.c_int(), ctypes.c_int())
        self._call("clip_parameters", lib.zqhandler_cmd_sense_clip_parameters, clip,
                   *map(ctypes.byref, outs))
        return ClipParameters(*(out.value for out in outs))

    def save_clip_parameters(self, clip, value1, value2):
        """Stores the two 32-bit values of clip `clip` (0 to 9999)."""
        op = "save_clip_parameters"
        self._call(op, lib.zqhandler_cmd_save_clip_parameters, integer(op, "clip", clip, 0, 9999),
                   integer(op, "value1", value1, 0, _calls.UINT32_MAX),
                   integer(op, "value2", value2, 0, _calls.UINT32_MAX))

    def preset_clip_prev(self, clip, other_clip):
        """Links clip `other_clip` before clip `clip` (both 0 to 9999)."""
        self._link_clips("preset_clip_prev", lib.zqhandler_cmd_preset_clip_prev, clip, other_clip)

    def preset_clip_next(self, clip, other_clip):
        """Links clip `other_clip` after clip `clip` (both 0 to 9999)."""
        self._link_clips("preset_clip_next", lib.zqhandler_cmd_preset_clip_next, clip, other_clip)

    def _link_clips(self, op, function, clip, other_clip):
        self._call(op, function, integer(op, "clip", clip, 0, 9999),
                   integer(op, "other clip", other_clip, 0, 9999))

    # ---- Menus, presets and modes ----

    def menu_recall_current(self):
        """Recalls the current menu settings."""
        self._call("menu_recall_current", lib.zqhandler_menu_recall_current)

    def menu_recall_flash(self):
        """Recalls the menu settings kept in flash."""
        self._call("menu_recall_flash", lib.zqhandler_menu_recall_flash)

    def menu_preset_default(self):
        """Presets the menu to its defaults."""
        self._call("menu_preset_default", lib.zqhandler_menu_preset_default)

    def menu_save_flash(self):
        """Saves the menu settings in flash."""
        self._call("menu_save_flash", lib.zqhandler_menu_save_flash)

    def menu_commit_section(self, section):
        """Commits menu section `section` (0 to 255)."""
        self._call("menu_commit_section", lib.zqhandler_menu_commit_section,
                   integer("menu_commit_section", "section", section, 0, 255))

    def menu_read_section(self, section):
        """The data bytes of the answer to reading menu section `section` (0 to 255), as the
        device sends them (this system's server puts the section's number first)."""
        out = byte_buffer(C["ZQ_SENSE_DATA_MAX"])
        n = self._call("menu_read_section", lib.zqhandler_menu_read_section,
                       integer("menu_read_section", "section", section, 0, 255), out)
        return bytes(out[:n])

    def menu_save_section(self, section, data):
        """Writes `data` (at most 14 bytes) into menu section `section` (0 to 255)."""
        op = "menu_save_section"
        data = _calls.data(op, "data", data, C["S9P_MENU_SECTION_MAX"])
        self._call(op, lib.zqhandler_menu_save_section, integer(op, "section", section, 0, 255),
                   data, len(data))

    def preset_channel(self, channel):
        """Selects channel `channel` (0 to 255)."""
        self._call("preset_channel", lib.zqhandler_cmd_preset_channel,
                   integer("preset_channel", "channel", channel, 0, 255))

    def preset_current_field(self, field):
        """Presets the current field (a 32-bit number)."""
        self._field("preset_current_field", lib.zqhandler_cmd_preset_current, field)

    def preset_field0(self, field):
        """Presets field 0 (a 32-bit number)."""
        self._field("preset_field0", lib.zqhandler_cmd_preset_field0, field)

    def preset_last_field(self, field):
        """Presets the last field (a 32-bit number)."""
        self._field("preset_last_field", lib.zqhandler_cmd_preset_lastField, field)

    def _field(self, op, function, field):
        self._call(op, function, integer(op, "field", field, 0, _calls.UINT32_MAX))

    def set_loop_mode(self, on):
        """Switches loop mode on or off."""
        self._call("set_loop_mode", lib.zqhandler_cmd_loopmode, bool(on))

    def set_timer_mode(self, mode):
        """Sets the timer mode (0 to 255)."""
        self._call("set_timer_mode", lib.zqhandler_cmd_timermode,
                   integer("set_timer_mode", "mode", mode, 0, 255))

    def disk_info(self, capacity=65536):
        """The server's disk information, by whichever protocol the link speaks: the transfer
        view's on TCP, the management view's on UDP (see those)."""
        if self.link == "tcp":
            return self.transfer.disk_info(capacity)
        if self.link == "udp":
            return self.management.disk_info(capacity)
        self.last_error = error_for("disk_info", C["S9P_ERR_NOT_CONNECTED"], "needs UDP or TCP")
        raise self.last_error


def _terminal_only(device):
    """Refuses a path that is not a terminal (see Handle.connect_serial)."""
    try:
        if b"\0" in device or not stat.S_ISCHR(os.stat(device).st_mode):
            raise refuse("connect_serial", "%r is not a terminal" % os.fsdecode(device))
        descriptor = os.open(device, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
    except OSError as error:
        raise refuse("connect_serial", "%r: %s" % (os.fsdecode(device), error.strerror)) from None
    try:
        if not os.isatty(descriptor):
            raise refuse("connect_serial", "%r is not a terminal" % os.fsdecode(device))
    finally:
        os.close(descriptor)


def _command_method(command):
    def method(self):
        self.command(command)

    method.__doc__ = "Sends %s (Sony %s); returns when the device acknowledged it." % (
        command.name, command.frame)
    return method


def _sense_method(sense):
    def method(self):
        return self.sense(sense)

    method.__doc__ = "Senses %s (Sony %s): the answer's data bytes%s." % (
        sense.name, sense.frame, ' as the text "a.b.c.d"' if sense == Sense.IP_ADDRESS else "")
    return method


def _add_basic_methods():
    """One method per basic command and sense; the media senses have operations of their own."""
    methods = [(command, _command_method(command)) for command in Command]
    methods += [(sense, _sense_method(sense)) for sense in Sense
                if not sense.name.startswith("TAVON_")]
    for member, method in methods:
        method.__name__ = method.__qualname__ = member.method_name
        if hasattr(Handle, method.__name__):
            raise ImportError("zqhandler: the basic table's %s would hide Handle.%s"
                              % (member.name, method.__name__))
        setattr(Handle, method.__name__, method)


_add_basic_methods()


def _connected(connect, *arguments, timeout=None):
    handle = Handle()
    try:
        connect(handle, *arguments)
        if timeout is not None:
            handle.timeout = timeout
    except BaseException:
        handle.close()
        raise
    return handle


def connect_udp(host, port, timeout=None):
    """A new Handle connected by UDP datagrams to host:port (see Handle.connect_udp), with its
    time-out set to `timeout` seconds when given."""
    return _connected(Handle.connect_udp, host, port, timeout=timeout)


def connect_tcp(host, port, timeout=None):
    """A new Handle connected by the TCP connection protocol to host:port."""
    return _connected(Handle.connect_tcp, host, port, timeout=timeout)


def connect_serial(path, timeout=None):
    """A new Handle on the serial line at `path`."""
    return _connected(Handle.connect_serial, path, timeout=timeout)
