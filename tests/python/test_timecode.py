# The timecode functions from Python: strings and ints in, strings, ints and bytes out, against
# known SMPTE counts (an hour of 29.97 drop-frame is 107892 frames), and refusals raised.
import pytest

import zqhandler
from zqhandler import timecode as tc

RESULTS = [
    (tc.from_frames, (107892, 30, True), "01:00:00;00"),
    (tc.from_frames, (25 * 3600 * 25, 25, False, True), "01:00:00:00"),
    (tc.to_frames, ("00:10:00;00", 30, True), 17982),
    (tc.to_frames, ("00:00:01:00", 50), 50),
    (tc.to_frames, ((0, 1, 0, 0), 30, True), 1800),  # a skipped label: frame 2 of its second
    (tc.add, ("00:00:59:24", "00:00:00:01", 25), "00:01:00:00"),
    (tc.subtract, ("00:01:00:00", "00:00:00:01", 25), "00:00:59:24"),
    (tc.duration, ("00:00:10:00", "00:00:10:00", 25), "00:00:00:01"),
    (tc.increment, ("23:59:59:24", 25, False, True, 24), "00:00:00:00"),
    (tc.decrement, ("00:00:00:00", 25, False, True, 24), "23:59:59:24"),
    (tc.end_of_material, ("00:00:10:00", "00:00:05:00", 25), "00:00:14:24"),
    (tc.multiply, ("00:00:10:00", 3, 25), "00:00:30:00"),
    (tc.reformat, ("1234",), "00:00:12:34"),
    (tc.fix, ("123",), "00:00:12:03"),
    (tc.validate, ("00:01:00:00", 30, True), "00:01:00;02"),
    (tc.to_bcd, ("01:02:03;04",), b"\x44\x03\x02\x01"),
    (tc.from_bcd, (b"\x44\x03\x02\x01",), "01:02:03;04"),
    (tc.reset, (30, True), "00:00:00;00"),
    (tc.is_valid, ("1:2:3:4",), True),
    (tc.is_normal, ("99:99:99:99",), True),
    (tc.frames_fit, ("00:00:00:25", 25), False),
]


@pytest.mark.parametrize("function, arguments, expected", RESULTS)
def test_timecode_functions_give_their_results(function, arguments, expected):
    assert function(*arguments) == expected


REFUSED = [
    (tc.to_frames, ("00:00:01:00", 0)),
    (tc.from_frames, (-1, 25)),
    (tc.duration, ("00:00:10:00", "00:00:09:24", 25)),
    (tc.end_of_material, ("23:00:00:00", "02:00:00:00", 25)),
    (tc.reformat, ("1:2:3:4:5",)),
    (tc.from_bcd, (b"\x01\x02\x03",)),
]


@pytest.mark.parametrize("function, arguments", REFUSED)
def test_refused_timecodes_raise_invalid_argument(function, arguments):
    with pytest.raises(zqhandler.InvalidArgument):
        function(*arguments)
