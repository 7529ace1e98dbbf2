# The board's events from Python: the 8-byte datagram, and, in a network namespace of its own,
# vlmgpiod.out on sdiboard: GPI changes arrive as events in order, GPO requests reach the board.
import socket
import time

import pytest
from conftest import needs_namespace

from zqhandler import gpio

DATAGRAMS = [
    ((0, 1), "00000000 00000001"),
    ((255, 0x1F3), "000000ff 000001f3"),
    ((7, -1), "00000007 ffffffff"),
    ((-(2**31), 2**31 - 1), "80000000 7fffffff"),
]


@pytest.mark.parametrize("fields, datagram", DATAGRAMS)
def test_events_are_two_signed_big_endian_words(fields, datagram):
    assert gpio.encode(*fields) == bytes.fromhex(datagram)
    assert gpio.decode(bytes.fromhex(datagram)) == fields


@pytest.mark.parametrize("call, argument", [(gpio.decode, bytes(7)), (gpio.decode, bytes(9)),
                                            (gpio.encode, 2**31), (gpio.encode, -(2**31) - 1)])
def test_what_is_not_an_event_raises_value_error(call, argument):
    with pytest.raises(ValueError):
        call(argument) if call is gpio.decode else call(0, argument)


def test_the_listener_skips_datagrams_of_other_sizes():
    with gpio.GpiListener(port=0) as events, socket.socket(type=socket.SOCK_DGRAM) as sender:
        for datagram in (bytes(7), bytes(9), gpio.encode(1, 2)):
            sender.sendto(datagram, events.address)
        event = events.receive(5)
        assert (event.line, event.status, events.ignored) == (1, 2, 2)
        assert abs(event.time - time.time()) < 60
        assert events.receive(0) is None


@needs_namespace
def test_board_gpi_changes_arrive_as_events_in_line_order(board):
    steps = [("gpi 05", [(0, gpio.SET), (2, gpio.SET)]), ("pulse 3", [(3, gpio.CHANGED_BACK)]),
             ("gpi 01", [(2, gpio.CLEAR)]), ("gpi 00", [(0, gpio.CLEAR)])]
    with gpio.GpiListener(timeout=5) as events:
        for command, expected in steps:
            board.say(command)
            assert [(e.line, e.status) for _, e in zip(expected, events)] == expected, command


@needs_namespace
def test_gpo_requests_reach_the_board_register(board):
    with gpio.GpoSender() as outputs:
        for request, register in [((2, True), "0x04"), ((1, True), "0x06"), ((2, False), "0x02")]:
            outputs.set(*request)
            assert board.wait_for("^GPO <- ").startswith("GPO <- " + register)
        outputs.set_all(0xF3)
        assert board.wait_for("^GPO <- ").startswith("GPO <- 0xF3")
