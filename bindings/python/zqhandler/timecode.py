"""Timecode strings "HH:MM:SS:FF" (";" before the frames for drop-frame), frame counts and the
4 BCD bytes devices send, computed by the library (tc.h).

`rate` is frames per second; 31 and above is a field rate, halved first (50 counts frames 0 to 24,
and in frame counts two fields a frame). `drop` asks for drop-frame counting, which only a rate
of 30 (or 60) has: frames 0 and 1 are left out at the start of every minute but each tenth.
`hour_limit` is the hour at which a count wraps (with `wrap`) or stops. Results are 11-character
strings; hours of 100 and more are written modulo 100, as a two-digit counter rolls over.

The arithmetic reads its timecodes field by field by position, as the library does: text that is
not "HH:MM:SS:FF" gives meaningless numbers, not an error. Anything the library refuses raises
zqhandler.InvalidArgument (a ValueError).
"""

import ctypes

from . import _calls
from ._calls import decoded, integer, text_buffer
from ._declarations import TcStruct
from ._library import lib

def _text(operation, value):
    return _calls.text(operation, "timecode", value)


def _result(operation, function, *arguments, output_first=True):
    out = text_buffer()
    arguments = (out, *arguments) if output_first else (*arguments, out)
    if function(*arguments) < 0:
        raise _calls.refuse(operation, "refused by the library")
    return decoded(out)


def reset(rate, drop=False):
    """The zero timecode, "00:00:00;00" at 30 with drop, else "00:00:00:00"."""
    out = text_buffer()
    lib.tcstr_reset(out, integer("reset", "rate", rate), bool(drop))
    return decoded(out)


def is_valid(text):
    """Whether loosely typed `text` can be read as a timecode ("1:2:3:4", "12345678", "10:")."""
    return bool(lib.tcstr_isvalid(_text("is_valid", text)))


def is_normal(text):
    """Whether `text` is exactly "HH:MM:SS:FF" with one of ".:;" as separators (not
    range-checked: "99:99:99:99" is normal)."""
    return bool(lib.tcstr_isnormal(_text("is_normal", text)))


def reformat(text):
    """Loosely typed `text` in the normal form, read from the end so that the last number is
    the frames: "1234" is "00:00:12:34", "1:2:3" "00:01:02:03". Fields are not range-checked."""
    return _result("reformat", lib.tc_tcstrFixFormat, _text("reformat", text))


def fix(text):
    """Loosely typed `text` read from the start, seconds and minutes of 60 and more carried:
    "123" is "00:00:12:03"."""
    return _result("fix", lib.tc_fix_tcstr, _text("fix", text))


def validate(text, rate, drop=False, hour_limit=24, forward=True):
    """Typed `text` brought into range at `rate`: frames, seconds and minutes clamped, hours
    modulo a positive `hour_limit`; with drop, a skipped frame moves forward (or back)."""
    op = "validate"
    return _result(op, lib.tcstr_validate, _text(op, text), integer(op, "hour limit", hour_limit),
                   bool(forward), integer(op, "rate", rate), bool(drop))


def increment(tc, rate, drop=False, wrap=False, hour_limit=24):
    """`tc` one frame later; at a positive `hour_limit`, "00:00:00:00" with `wrap`, else `tc`."""
    return _step("increment", lib.tcstr_incremente, tc, rate, drop, wrap, hour_limit)


def decrement(tc, rate, drop=False, wrap=False, restart_hour=24):
    """`tc` one frame earlier; from zero, the last frame before `restart_hour` with `wrap`, else
    zero."""
    return _step("decrement", lib.tcstr_decremente, tc, rate, drop, wrap, restart_hour)


def _step(op, function, tc, rate, drop, wrap, hours):
    out = text_buffer()
    out.value = _calls.text(op, "timecode", tc, longest=11)
    if function(out, integer(op, "rate", rate), bool(drop), bool(wrap),
                integer(op, "hours", hours)) < 0:
        raise _calls.refuse(op, "refused by the library")
    return decoded(out)


def duration(start, end, rate, wrap=False, hour_limit=24):
    """The inclusive duration from `start` to `end` (equal ones last one frame), never
    drop-frame. An `end` earlier than `start` raises InvalidArgument."""
    op = "duration"
    result = _result(op, lib.tcstr_compute_duration, _text(op, start), _text(op, end),
                     integer(op, "rate", rate), bool(wrap), integer(op, "hour limit", hour_limit))
    if not result:
        raise _calls.refuse(op, "end %r is earlier than start %r" % (end, start))
    return result


def end_of_material(start, length, rate, drop=False, wrap=False, hour_limit=24):
    """The last frame of material starting at `start` and lasting `length`. Hours reaching
    `hour_limit` (1 or more) wrap with `wrap`, else raise InvalidArgument."""
    op = "end_of_material"
    return _result(op, lib.tcstr_compute_eom, _text(op, start), _text(op, length),
                   integer(op, "rate", rate), bool(drop), bool(wrap),
                   integer(op, "hour limit", hour_limit))


def multiply(tc, factor, rate, drop=False, wrap=False, hour_limit=24):
    """`tc` times `factor` (0 to 2**32 - 1), field by field; hours as end_of_material."""
    op = "multiply"
    return _result(op, lib.tcstr_multiply, _text(op, tc), integer(op, "factor", factor, 0,
                   _calls.UINT32_MAX), integer(op, "rate", rate), bool(drop), bool(wrap),
                   integer(op, "hour limit", hour_limit))


def to_frames(tc, rate, drop=False):
    """The frame count of `tc`, a string or (hours, minutes, seconds, frames); at a field rate,
    the count of fields. Raises InvalidArgument for a rate below 1 or a count that is negative
    or beyond 32 bits."""
    op = "to_frames"
    rate, drop = integer(op, "rate", rate), bool(drop)
    if isinstance(tc, (tuple, list)):
        if len(tc) != 4:
            raise _calls.refuse(op, "a timecode is 4 numbers, not %d" % len(tc))
        record = TcStruct(*(integer(op, "field", field) for field in tc))
        count = lib.tc_struct2frames(ctypes.byref(record), rate, drop)
    else:
        count = lib.tc_tcstr2frames(_text(op, tc), rate, drop)
    if count < 0:
        raise _calls.refuse(op, "no frame count for %r at %d" % (tc, rate))
    return count


def from_frames(frames, rate, drop=False, clip24=False):
    """The timecode of frame `frames` (0 to 2**32 - 1; at a field rate, of that field); hours
    modulo 24 with `clip24`."""
    op = "from_frames"
    function = lib.tc_frames2tcstr_clip24 if clip24 else lib.tc_frames2tcstr
    return _result(op, function, integer(op, "frames", frames, 0, _calls.UINT32_MAX),
                   integer(op, "rate", rate), bool(drop), output_first=False)


def add(a, b, rate, drop=False):
    """`a` plus `b`, through their frame counts."""
    return _result("add", lib.tc_tcstradd, _text("add", a), _text("add", b),
                   integer("add", "rate", rate), bool(drop))


def subtract(a, b, rate, drop=False):
    """`a` minus `b`, through their frame counts; "00:00:00:00" when `b` is not earlier."""
    return _result("subtract", lib.tc_tcstrsub, _text("subtract", a), _text("subtract", b),
                   integer("subtract", "rate", rate), bool(drop))


def frames_fit(tc, rate):
    """Whether the frames field of `tc` (11 characters at least) is a number below `rate`
    (as given, not halved)."""
    return lib.tc_validstr(_text("frames_fit", tc), integer("frames_fit", "rate", rate)) == 0


def from_bcd(bcd):
    """The timecode of 4 BCD bytes, frames first (bit 6 of the first: drop-frame)."""
    bcd = _calls.data("from_bcd", "BCD", bcd, 4)
    if len(bcd) != 4:
        raise _calls.refuse("from_bcd", "a BCD timecode is 4 bytes, not %d" % len(bcd))
    return _result("from_bcd", lib.tc_bcd2tcstr, bcd)


def to_bcd(tc):
    """The 4 BCD bytes of `tc` (text that cannot be read gives four zero bytes)."""
    out = _calls.byte_buffer(4)
    lib.tc_tcstr2bcd(out, _text("to_bcd", tc))
    return bytes(out)
