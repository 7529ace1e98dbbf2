"""The handle's operations by protocol family, each a view on its Handle: `deck.odetics`,
`deck.media`, `deck.louth`, `deck.transfer` and `deck.management`. A view holds no state of its
own: closing the handle closes it too."""

import ctypes
import os

from . import _calls
from ._calls import byte_buffer, clip_id, decoded, integer, text_buffer, timecode
from ._declarations import CONSTANTS as C
from ._library import lib
from .basic import Command, Sense
from .errors import NotFound, error_for


class _View:
    def __init__(self, handle):
        self._handle = handle

    def _call(self, operation, function, *arguments, family="s9p"):
        return self._handle._call(operation, function, *arguments, family=family)

    def _on(self, link, operation):
        """Refuses an operation on another link than `link` with NotConnected, before the
        library tries it (its transfers would wait out a time-out on a serial line)."""
        if self._handle.link != link:
            self._handle.last_error = error_for(operation, C["S9P_ERR_NOT_CONNECTED"],
                                                "needs a %s link" % link)
            raise self._handle.last_error


def _ids(first, following):
    """An ID list walked to its end: `first`() then `following`() until the device has no more."""
    try:
        yield first()
        while True:
            yield following()
    except NotFound:
        return


def _id_text(buffer, count=None):
    raw = buffer.raw[:count] if count is not None else buffer.value
    return raw.rstrip(b"\0").rstrip(b" ").decode("latin-1")


class Odetics(_View):
    """The Odetics operations: clips by ID (up to eight printable characters; the device pads
    them with spaces), previews, erasure, the device ID and the device's ID list. Timecodes are
    "HH:MM:SS:FF" strings, ";" before the frames for drop-frame."""

    def auto_mode(self, on):
        """Switches automatic mode on or off."""
        self._call("auto_mode", lib.zqhandler_cmd_automode, bool(on))

    def in_preset(self, id=None, tc=None):
        """Presets the in-point: loads clip `id` and cues to its start, or to `tc` when given."""
        self._preset("in_preset", lib.zqhandler_cmd_odetics_inPreset, id, tc)

    def in_preview(self, id=None, tc=None):
        """Presets the preview in-point, by clip `id` and/or timecode `tc`."""
        self._preset("in_preview", lib.zqhandler_cmd_odetics_inPreview, id, tc)

    def record_cue_up(self, id=None, tc=None):
        """Cues up to record clip `id` (created where the store's last clip ends) at `tc`."""
        self._preset("record_cue_up", lib.zqhandler_cmd_odetics_recordCueUp, id, tc)

    def _preset(self, op, function, id, tc):
        self._call(op, function, clip_id(op, id, optional=True), timecode(op, tc, optional=True))

    def out_preset(self, tc):
        """Presets the out-point at `tc`."""
        self._call("out_preset", lib.zqhandler_cmd_odetics_outPreset, timecode("out_preset", tc))

    def out_preview(self, tc):
        """Presets the preview out-point at `tc`."""
        self._call("out_preview", lib.zqhandler_cmd_odetics_outPreview,
                   timecode("out_preview", tc))

    def erase(self, id):
        """Erases clip `id`."""
        self._call("erase", lib.zqhandler_cmd_odetics_eraseID, clip_id("erase", id))

    def erase_segment(self, first_tc, second_tc):
        """Erases the material between two timecodes."""
        op = "erase_segment"
        self._call(op, lib.zqhandler_cmd_odetics_eraseSegment, timecode(op, first_tc),
                   timecode(op, second_tc))

    def set_device_id(self, device_id):
        """Sets the device ID: exactly 8 bytes, sent unchanged."""
        device_id = _calls.data("set_device_id", "device ID", device_id, 8)
        if len(device_id) != 8:
            raise _calls.refuse("set_device_id", "a device ID is 8 bytes, not %d" % len(device_id))
        self._call("set_device_id", lib.zqhandler_cmd_odetics_set_deviceID, device_id)

    def ids(self):
        """Iterates over the IDs of the device's list (trailing spaces removed)."""
        return _ids(lambda: self._list_id("ids", lib.zqhandler_cmd_odetics_sense_firstID),
                    lambda: self._list_id("ids", lib.zqhandler_cmd_odetics_sense_nextID))

    def _list_id(self, op, function):
        out = text_buffer(C["ZQ_ODETICS_ID_BYTES"])
        self._call(op, function, out)
        return _id_text(out)

    def id_status(self, id):
        """The status byte the device keeps for clip `id` (0 for an unknown ID)."""
        status = ctypes.c_uint8()
        self._call("id_status", lib.zqhandler_cmd_odetics_sense_id_status,
                   clip_id("id_status", id), ctypes.byref(status))
        return status.value

    def id_length(self, id):
        """The length of clip `id` as a timecode string."""
        out = text_buffer()
        self._call("id_length", lib.zqhandler_cmd_odetics_sense_id_length,
                   clip_id("id_length", id), out)
        return decoded(out)


class Media(_View):
    """The server's media queries: capture status, video and audio information of a file, of
    what plays now and of the start-up configuration, and closed captions. The information bytes
    are the device's, returned unchanged."""

    def capture(self):
        """The 10 capture status bytes."""
        return self._info("capture", lib.zqhandler_cmd_tavon_sense_capture, C["ZQ_CAPTURE_BYTES"])

    def file_video_info(self, name=None):
        """The video information of file `name` (up to 8 bytes; None: the one the device
        chooses)."""
        return self._file("file_video_info", lib.zqhandler_cmd_tavon_sense_file_vinfo, name)

    def file_audio_info(self, name=None):
        """The audio information of file `name`, as file_video_info."""
        return self._file("file_audio_info", lib.zqhandler_cmd_tavon_sense_file_ainfo, name)

    def current_video_info(self):
        """The video information of what plays now, selector byte first."""
        return self._info("current_video_info", lib.zqhandler_cmd_tavon_sense_current_vinfo)

    def current_audio_info(self):
        """The audio information of what plays now, selector byte first."""
        return self._info("current_audio_info", lib.zqhandler_cmd_tavon_sense_current_ainfo)

    def startup_video_info(self):
        """The video information of the start-up configuration, selector byte first."""
        return self._info("startup_video_info", lib.zqhandler_cmd_tavon_sense_startup_vinfo)

    def startup_audio_info(self):
        """The audio information of the start-up configuration, selector byte first."""
        return self._info("startup_audio_info", lib.zqhandler_cmd_tavon_sense_startup_ainfo)

    def closed_captions(self, on):
        """Switches closed captions on or off."""
        self._call("closed_captions", lib.zqhandler_cmd_tavon_ccmode, bool(on))

    def _file(self, op, function, name):
        name = _calls.text(op, "name", name, longest=8, optional=True)
        out = byte_buffer(C["ZQ_MEDIA_INFO_BYTES"])
        return bytes(out[: self._call(op, function, name, out)])

    def _info(self, op, function, size=C["ZQ_MEDIA_INFO_BYTES"]):
        out = byte_buffer(size)
        return bytes(out[: self._call(op, function, out)])


class Louth(_View):
    """The Louth operations, on a UDP or serial link (a TCP link carries no Louth). Every
    method takes the device's `unit` (0 to 15, default 0). A device's refusal (05 and its error
    byte) raises Refused."""

    def command(self, command, unit=0):
        """Sends a basic command (a Command, its number or its name): STOP, PLAY, RECORD, STILL,
        CONTINUE, ERASE_ALL or STEP_FWD; the others raise InvalidArgument."""
        command = Command.of(command, "louth.command")
        self._call(command.method_name, lib.zqhandler_cmd_louth_basic, command,
                   self._unit("louth.command", unit), family="louth")

    def status(self, unit=0):
        """The port status bytes."""
        return self._sense("status", Sense.STATUS, unit)

    def errors(self, unit=0):
        """The error status bytes."""
        return self._sense("errors", Sense.ERRORS, unit)

    def timecode(self, unit=0):
        """The position as a timecode string."""
        return self._sense("timecode", Sense.TC, unit).decode("latin-1")

    def loaded_id(self, unit=0):
        """The ID of the clip loaded ("" when none)."""
        return self._sense("loaded_id", Sense.LOADED_ID, unit).rstrip(b" ").decode("latin-1")

    def _sense(self, op, sense, unit):
        out = byte_buffer(C["ZQ_LOUTH_OUT_BYTES"])
        n = self._call(op, lib.zqhandler_cmd_louth_sense_basic, sense, self._unit(op, unit), out,
                       family="louth")
        return bytes(out[:n])

    def ids(self, unit=0):
        """Iterates over the IDs of the device's list (trailing spaces removed)."""
        unit = self._unit("ids", unit)
        return _ids(lambda: self._list_id(lib.zqhandler_cmd_louth_sense_firstID, unit),
                    lambda: self._list_id(lib.zqhandler_cmd_louth_sense_nextID, unit))

    def _list_id(self, function, unit):
        out = text_buffer(C["ZQ_LOUTH_OUT_BYTES"])
        return _id_text(out, self._call("ids", function, unit, out, family="louth"))

    def id_length(self, id, unit=0):
        """The length of clip `id` as a timecode string."""
        out = text_buffer()
        self._call("id_length", lib.zqhandler_cmd_louth_sense_id_length,
                   self._unit("id_length", unit), clip_id("id_length", id), out, family="louth")
        return decoded(out)

    def open_port(self, port, lock=False, unit=0):
        """Asks for port `port` (-127 to 127), locked when `lock`; PermissionDenied when not
        granted."""
        self._call("open_port", lib.zqhandler_cmd_louth_open_port, self._unit("open_port", unit),
                   integer("open_port", "port", port, -127, 127), bool(lock), family="louth")

    def select_port(self, port, unit=0):
        """Selects port `port` (-127 to 127)."""
        self._call("select_port", lib.zqhandler_cmd_louth_select_port,
                   self._unit("select_port", unit), integer("select_port", "port", port, -127, 127),
                   family="louth")

    def erase(self, id, unit=0):
        """Deletes clip `id`."""
        self._call("erase", lib.zqhandler_cmd_louth_eraseID, self._unit("erase", unit),
                   clip_id("erase", id), family="louth")

    def cue_play(self, id, start=None, end=None, unit=0):
        """Cues clip `id` to play; with `start` and `end` timecodes, the cue with data."""
        self._with_data("cue_play", lib.zqhandler_cmd_louth_cue_play,
                        lib.zqhandler_cmd_louth_cue_play_data, id, start, end, unit)

    def record_init(self, id, start=None, end=None, unit=0):
        """Prepares to record clip `id`; with `start` and `end` timecodes, the form with data."""
        self._with_data("record_init", lib.zqhandler_cmd_louth_record_init,
                        lib.zqhandler_cmd_louth_record_init_data, id, start, end, unit)

    def _with_data(self, op, plain, with_data, id, start, end, unit):
        arguments = [self._unit(op, unit), clip_id(op, id)]
        if start is None and end is None:
            self._call(op, plain, *arguments, family="louth")
        else:
            arguments += [timecode(op, start, "start"), timecode(op, end, "end")]
            self._call(op, with_data, *arguments, family="louth")

    def var_play(self, speed, unit=0):
        """Plays at `speed` hundredths of play speed (150: one and a half), reverse when
        negative."""
        self._call("var_play", lib.zqhandler_cmd_louth_var_play, self._unit("var_play", unit),
                   integer("var_play", "speed", speed), family="louth")

    def jog(self, frames, unit=0):
        """Jogs `frames` frames, back when negative."""
        self._call("jog", lib.zqhandler_cmd_louth_jog, self._unit("jog", unit),
                   integer("jog", "frames", frames), family="louth")

    def misc(self, frame):
        """Sends any Louth frame (CMD1, CMD2, data; the library adds the start byte, the count
        and the checksum) and returns the answer: 04 for an acknowledge, 05 and its error byte
        for a refusal, or the whole answer frame."""
        frame = _calls.data("misc", "frame", frame, 252)
        self._call("misc", lib.zqhandler_cmd_louth_misc, frame, len(frame), family="louth")
        return self._handle.last_answer

    @staticmethod
    def _unit(op, unit):
        return integer(op, "unit", unit, 0, 15)


class Transfer(_View):
    """The transfers of the TCP connection protocol: the server's version, disk information,
    file entries and GOPs. Raw bytes get 5 s whatever the handle's time-out."""

    def _call(self, operation, function, *arguments):
        self._on("tcp", operation)
        return self._handle._call(operation, function, *arguments, family=None)

    @property
    def gop_protocol(self):
        """The protocol generation of GOP downloads: above 0 (the default, 1) the current form,
        which announces the GOP's size; 0 or below the older one, which does not."""
        return self._handle._record("gop_protocol").proto_ver

    @gop_protocol.setter
    def gop_protocol(self, version):
        version = integer("gop_protocol", "version", version)
        self._handle._record("gop_protocol").proto_ver = version

    def version(self):
        """The server's two version words, as a pair."""
        first, second = ctypes.c_uint32(), ctypes.c_uint32()
        self._call("version", lib.zqhandler_cnxn_version, ctypes.byref(first),
                   ctypes.byref(second))
        return first.value, second.value

    def disk_info(self, capacity=65536):
        """The disk information, at most `capacity` bytes (more raises ProtocolError). The
        library does not report its size: trailing zero bytes are removed."""
        capacity = integer("disk_info", "capacity", capacity, 0)
        out = byte_buffer(capacity)
        self._call("disk_info", lib.zqhandler_cnxn_get_diskinfo, out, capacity)
        return bytes(out).rstrip(b"\0")

    def file_entry(self, entry, capacity=65536):
        """File entry `entry` (0 to 2**32 - 1), at most `capacity` bytes (more raises
        InvalidArgument); b"" when the server has no such entry."""
        entry = integer("file_entry", "entry", entry, 0, _calls.UINT32_MAX)
        return self._sized("file_entry", lib.zqhandler_cnxn_get_file_entry, capacity, entry)

    def download_gop(self, to=None, capacity=1 << 20):
        """Downloads one GOP: returns its bytes, or writes them to `to` (a binary file object,
        or a path where nothing is yet) and returns their count.
        In the current form (gop_protocol above 0) the GOP may be up to `capacity` bytes (more
        raises InvalidArgument); in the older form exactly `capacity` bytes are awaited."""
        if self.gop_protocol > 0:
            gop = self._sized("download_gop", lib.zqhandler_cnxn_get_gop, capacity)
        else:
            capacity = integer("download_gop", "capacity", capacity, 0)
            out = byte_buffer(capacity)
            self._call("download_gop", lib.zqhandler_cnxn_get_gop, out, None, capacity)
            gop = bytes(out)
        if to is None:
            return gop
        if not isinstance(to, (str, bytes, os.PathLike)):
            return to.write(gop)
        with open(to, "xb") as file:  # a new file only: nothing already there is replaced
            return file.write(gop)

    def upload_gop(self, source, value=0):
        """Uploads a GOP from `source` (bytes, a binary file object or a path); `value` (32
        bits) goes with the request. PermissionDenied when the server refuses it."""
        if isinstance(source, (str, os.PathLike)):
            with open(source, "rb") as file:
                source = file.read()
        elif hasattr(source, "read"):
            source = source.read()
        gop = _calls.data("upload_gop", "GOP", source, _calls.UINT32_MAX)
        self._call("upload_gop", lib.zqhandler_cnxn_put_gop,
                   integer("upload_gop", "value", value, 0, _calls.UINT32_MAX), gop, len(gop))

    def _sized(self, op, function, capacity, *leading):
        capacity = integer(op, "capacity", capacity, 0)
        out, size = byte_buffer(capacity), ctypes.c_int32()
        self._call(op, function, *leading, out, ctypes.byref(size), capacity)
        return bytes(out[: max(size.value, 0)])


class Management(_View):
    """The management protocol, on a handle connected by UDP to the server's management
    endpoint. These operations store no error code in the library: no answer within the
    time-out raises ReceiveTimeout."""

    def log(self):
        """The server's log (at most 1490 bytes)."""
        out = byte_buffer(C["MGMT_MAX_DATA"])
        return bytes(out[: self._managed("log", lib.zqhandler_mgmt_getlog, out)])

    def disk_info(self, capacity=C["MGMT_MAX_DATA"]):
        """The disk information, at most `capacity` bytes."""
        capacity = integer("disk_info", "capacity", capacity, 0)
        out = byte_buffer(capacity)
        return bytes(out[: self._managed("disk_info", lib.zqhandler_mgmt_get_diskinfo, out,
                                         capacity)])

    def put_disk_info(self, data):
        """Uploads disk information (at most 255 bytes). Raises CommunicationError when the
        server refuses it or does not answer."""
        data = _calls.data("put_disk_info", "disk information", data,
                           C["MGMT_MAX_REQUEST_DATA"])
        self._managed("put_disk_info", lib.zqhandler_mgmt_put_diskinfo, data, len(data),
                      code=C["S9P_ERR_COMM"])

    def picture(self, code, capacity=C["MGMT_MAX_DATA"]):
        """Picture `code` (0 to 65535), at most `capacity` bytes; b"" when no answer came or
        it was empty."""
        code = integer("picture", "code", code, 0, 65535)
        capacity = integer("picture", "capacity", capacity, 0)
        out = byte_buffer(capacity)
        return bytes(out[: self._managed("picture", lib.zqhandler_mgmt_get_picture, out,
                                         capacity, code)])

    def _managed(self, op, function, *arguments, code=C["S9P_RCV_TIMEOUT"]):
        handle = self._handle
        self._on("udp", op)
        result = function(handle._checked(op), *arguments)
        if result < 0:  # the library stores no code here: say what -1 means
            handle.last_error = error_for(op, code, "no answer" if code == C["S9P_RCV_TIMEOUT"]
                                          else "refused, or no answer")
            raise handle.last_error
        return result
