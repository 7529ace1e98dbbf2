# The handle from Python against devsim on UDP, TCP and a pty: the basic table made into methods,
# the operations of each family, and every failure raised as its exception.
import time

import pytest
from conftest import Devsim

import zqhandler
from zqhandler import Command, Handle, Nak, NakBits, Sense

LINKS = ("udp", "tcp", "serial")
CLIPS = ("--clip", "NEWS 00:00:10:00 00:00:30:00", "--clip", "PROMO1 00:00:40:00 00:00:05:00")
BASIC = list(Command) + [sense for sense in Sense if hasattr(Handle, sense.method_name)]


@pytest.fixture(scope="module")
def decks():
    server = Devsim(*CLIPS)
    handles = {link: server.connect(link) for link in LINKS}
    yield handles
    list(map(Handle.close, handles.values()))
    server.stop()


@pytest.mark.parametrize("link", LINKS)
@pytest.mark.parametrize("member", BASIC, ids=lambda member: member.method_name)
def test_each_basic_method_sends_its_frame_and_returns_the_answer(decks, link, member):
    deck = decks[link]
    result = getattr(deck, member.method_name)()
    frame = bytes.fromhex(member.frame.split(";")[0])
    assert deck.last_command == frame + bytes([sum(frame) & 0xFF])
    answer = deck.last_answer
    if isinstance(member, Command):
        assert result is None and answer[0] == 0x10
    elif member == Sense.IP_ADDRESS:
        assert result == "%d.%d.%d.%d" % tuple(answer[2:6])
    else:
        assert result == answer[2 : 2 + (answer[0] & 0x0F)]


# Each row: what it checks, the calls (chained with "or": the commands return None), the result.
OPERATIONS = [
    ("cue", lambda d: d.cue("00:00:12:05") or d.timecode(), "00:00:12:05"),
    ("step", lambda d: d.cue("00:00:12:05") or d.step(-3) or d.timecode(), "00:00:12:02"),
    ("clip range", lambda d: d.clip_range(), (1, 1234)),
    ("clip parameters", lambda d: d.clip_parameters(5), (2**32 - 1, 1, 1234, 42)),
    ("ids", lambda d: list(d.odetics.ids()), ["NEWS", "PROMO1"]),
    ("in preset", lambda d: d.odetics.in_preset("PROMO1") or d.loaded_id(), b"\x01PROMO1  "),
    ("id length", lambda d: d.odetics.id_length("NEWS"), "00:00:30:00"),
    ("erase", lambda d: d.odetics.erase("NEWS") or d.erase_all() or list(d.odetics.ids()), []),
    ("record", lambda d: d.odetics.record_cue_up("LIVE", "00:00:45:00") or
     list(d.odetics.ids())[2:], ["LIVE"]),
    ("device id", lambda d: d.odetics.set_device_id(b"VTR 0001") or d.odetics_device_id(),
     b"VTR 0001"),
    ("menu", lambda d: d.menu_save_section(3, b"abc") or d.menu_read_section(3), b"\x03abc"),
    ("loop mode", lambda d: d.set_loop_mode(True) or d.loop_mode(), b"\x01"),
    ("capture", lambda d: d.media.capture(), bytes(range(10))),
    ("any frame", lambda d: d.misc(b"\x61\x20\x21"), bytes.fromhex("71 20 00 91")),
]
SENSES = ("--sense", "C1.02=00011234", "--sense", "9A=FFFFFFFF0000000112340042", "--sense",
          "B2=00010203040506070809")


@pytest.mark.parametrize("link", LINKS)
@pytest.mark.parametrize("name, call, expected", OPERATIONS, ids=[row[0] for row in OPERATIONS])
def test_operations_reach_the_server_model(devsim, link, name, call, expected):
    with devsim(*CLIPS, *SENSES).connect(link) as deck:
        assert call(deck) == expected


LOUTH = [
    ("status", lambda d: d.louth.status(), b"\x01\x00"),
    ("cue", lambda d: d.louth.cue_play("PROMO1") or d.louth.loaded_id(), "PROMO1"),
    ("ids", lambda d: list(d.louth.ids()), ["NEWS", "PROMO1"]),
    ("id length", lambda d: d.louth.id_length("PROMO1"), "00:00:05:00"),
    ("any frame", lambda d: d.louth.misc(b"\x10\x00"), b"\x04"),
]


@pytest.mark.parametrize("link", ("udp", "serial"))
@pytest.mark.parametrize("name, call, expected", LOUTH, ids=[row[0] for row in LOUTH])
def test_louth_operations_reach_the_server_model(devsim, link, name, call, expected):
    with devsim(*CLIPS, "--louth").connect(link) as deck:
        assert call(deck) == expected


FAILURES = [
    # link, devsim's fault, the call, what it raises, and what the exception carries
    ("udp", ("--nak", "0x01"), Handle.play, Nak, {"bits": NakBits.UNKNOWN_COMMAND,
                                                  "code": 10, "text": "Not implemented"}),
    ("tcp", ("--nak", "0x14"), Handle.status, Nak, {"bit_names": ("CHECKSUM_ERROR", "PARITY_ERROR"),
                                                     "code": 1}),
    ("serial", ("--nak", "0x80"), Handle.timecode, Nak, {"code": 2, "bit_names": ("TIMEOUT",)}),
    ("serial", ("--corrupt",), Handle.play, zqhandler.ChecksumError, {"text": "Cheksum error"}),
    ("udp", ("--sense", "B7=0102"), Handle.loop_mode, zqhandler.ProtocolError, {"code": 3}),
    ("udp", ("--louth", "--refuse", "0x10"), lambda d: d.louth.command("stop"),
     zqhandler.Refused, {"code": 3, "error_byte": 0x10}),
    ("tcp", ("--refuse-uploads",), lambda d: d.transfer.upload_gop(b"GOP"),
     zqhandler.PermissionDenied, {"code": 9}),
    ("tcp", (), lambda d: d.louth.status(), zqhandler.NotConnected, {"text": "Not connected"}),
]


@pytest.mark.parametrize("link, fault, call, raised, carried", FAILURES)
def test_failures_raise_their_exception_with_the_library_code(devsim, link, fault, call, raised,
                                                              carried):
    with devsim(*fault).connect(link) as deck:
        with pytest.raises(raised) as failure:
            call(deck)
        assert deck.last_error is failure.value
    assert {name: getattr(failure.value, name) for name in carried} == carried


@pytest.mark.parametrize("link", LINKS)
def test_a_silent_device_raises_timeout_once_the_time_out_has_passed(devsim, link):
    with devsim("--silent").connect(link, timeout=0.3) as deck:
        start = time.monotonic()
        with pytest.raises(zqhandler.ReceiveTimeout) as failure:
            deck.play()
        elapsed = time.monotonic() - start
    assert failure.value.code == 5 and 0.3 <= elapsed < 2.3


REFUSED = [
    lambda d: d.step(256),
    lambda d: d.clip_parameters(10000),
    lambda d: d.cue("12:00"),
    lambda d: d.odetics.in_preset("NINECHARS"),
    lambda d: d.media.file_video_info("é"),
    lambda d: d.command("fly"),
    lambda d: d.sense(Sense.TAVON_LOADED_VIDEO),  # refused by the library itself
    lambda d: d.louth.command(Command.EJECT),  # not in the Louth table
    lambda d: d.menu_save_section(1, bytes(15)),
    lambda d: setattr(d, "timeout", -1),
    lambda d: d.connect_serial("/dev/null"),  # not a terminal: the UDP link stays
]


@pytest.mark.parametrize("call", REFUSED)
def test_refused_arguments_raise_invalid_argument_and_send_nothing(devsim, call):
    server = devsim()
    with server.connect("udp") as deck:
        with pytest.raises(zqhandler.InvalidArgument) as failure:
            call(deck)
        assert isinstance(failure.value, ValueError) and failure.value.code == 8
        deck.play()
    assert server.wait_for(".").endswith("PLAY")  # the first thing the server heard


def test_a_closed_handle_refuses_every_call(devsim):
    with devsim().connect("udp") as deck:
        deck.play()
    calls = [Handle.play, Handle.disconnect, lambda d: d.timeout, lambda d: list(d.odetics.ids()),
             lambda d: d.louth.status(), lambda d: d.transfer.version(),
             lambda d: d.management.log(), lambda d: d.connect_udp("127.0.0.1", 1)]
    for call in calls:
        with pytest.raises(zqhandler.HandleClosed):
            call(deck)
    assert deck.closed and deck.close() is None


def test_time_out_is_in_seconds_and_a_connect_resets_it(devsim):
    server = devsim()
    with zqhandler.connect_udp("localhost", server.udp, timeout=0.25) as deck:
        assert (deck.timeout, deck.link) == (0.25, "udp")
        deck.timeout = None
        assert deck.timeout is None
        deck.connect_tcp("127.0.0.1", server.tcp)
        assert (deck.timeout, deck.link) == (0.06, "tcp")
    with pytest.raises(zqhandler.NotConnected):
        Handle().play()
    with pytest.raises(zqhandler.InvalidArgument):  # the server refuses the connection
        zqhandler.connect_tcp("127.0.0.1", server.udp)
