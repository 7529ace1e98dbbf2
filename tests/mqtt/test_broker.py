# gpiomqtt between vlmgpiod.out on sdiboard and a mosquitto of its own, as the facility sees it
# through mosquitto_sub and mosquitto_pub: GPI levels as retained IS-07 states, followed states as
# GPO requests, the broker away and back, the program's end, and every message it published
# against the JSON Schemas beside this file. The tests run in order, on one board and one broker.
import json
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import time
import uuid

import jsonschema
import pytest

SCHEMAS = pathlib.Path(__file__).resolve().parent / "schemas"
sys.path.insert(0, str(SCHEMAS.parents[1] / "support"))
from programs import BUILD, PROBE, Program, board, needs_namespace, wait_until  # noqa: E402,F401

pytestmark = needs_namespace
# The topics of board "studio-a", computed as its man page says.
CONNECTION = "x-nmos/events/v1.0/connections/" + str(uuid.uuid5(
    uuid.NAMESPACE_URL, "urn:x-vlmgpio:gpiomqtt:studio-a:connection"))
SOURCES = ["x-nmos/events/v1.0/sources/" + str(uuid.uuid5(
    uuid.NAMESPACE_URL, f"urn:x-vlmgpio:gpiomqtt:studio-a:gpi:{line}:source")) for line in range(8)]
# A state as another program may leave it on a topic, completed with "true" or "false".
PLANTED = '{"message_type":"state","event_type":"boolean","payload":{"value":%s}}'


def status(active):
    return CONNECTION, {"active": active, "message_type": "connection_status"}


class Subscriber(Program):
    """mosquitto_sub on every IS-07 topic and on "probe", ready when the retained probe has come:
    `retained` holds what came before it. Every message it reads must pass its JSON Schema."""

    def __init__(self, broker):
        super().__init__("mosquitto_sub", "-p", broker.port, "-q", "2", "-F", "%t %p",
                         "-t", "x-nmos/events/v1.0/#", "-t", "probe")
        self.broker = broker
        broker.subscribers.append(self)
        self.retained = dict(iter(self.next, None))

    def next(self, seconds=10):
        """The next IS-07 message as (topic, message or None when empty); None for a probe."""
        topic, _, payload = self.wait_for("", seconds).partition(" ")
        message = json.loads(payload) if payload and topic != "probe" else None
        if message and payload != PLANTED % "true":
            schema = json.loads((SCHEMAS / f"{message['message_type']}.json").read_text())
            resolver = jsonschema.RefResolver(SCHEMAS.as_uri() + "/", schema)
            jsonschema.validate(message, schema, resolver=resolver)
            self.broker.kinds.add(message["message_type"])
        return None if topic == "probe" else (topic, message)


class Broker:
    """mosquitto on a free port, keeping its retained messages in `folder` across restarts."""

    def __init__(self, folder):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port, self.subscribers, self.kinds = free.getsockname()[1], [], set()
        self.conf = folder / "mosquitto.conf"
        self.conf.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                             f"persistence true\npersistence_location {folder}/\nuser root\n")
        self.start()

    def start(self):
        self.process = Program("mosquitto", "-c", self.conf, ready="running$")
        self.publish("probe", "ready", retain=True)

    def publish(self, topic, message, retain=False):
        subprocess.run(["mosquitto_pub", "-p", str(self.port), "-q", "2", "-t", topic]
                       + ["-r"] * retain + (["-n"] if message is None else ["-m", message]),
                       check=True, timeout=10)

    def levels(self):
        """{line: value} of the retained states, as a subscriber joining now gets them."""
        joiner = Subscriber(self)
        joiner.stop()
        return {line: joiner.retained[topic]["payload"]["value"]
                for line, topic in enumerate(SOURCES) if topic in joiner.retained}


def start_gateway(broker, forward):
    """gpiomqtt as board "studio-a", GPO lines 2 and 5 following facility/tally/2 and /5; ready
    when connected, so receiving on 127.0.0.1:42000 since before."""
    return Program(BUILD / "tools/gpiomqtt/gpiomqtt", "--broker", f"127.0.0.1:{broker.port}",
                   "--id", "studio-a", "-v", "--gpo", "2=facility/tally/2", "--gpo",
                   "5=facility/tally/5", "--forward", forward.getsockname()[1], ready="connected")


def passed_on(forward):
    """The next GPI event gpiomqtt passed on to `forward`, as (line, status); probes skipped."""
    forward.settimeout(5)
    while (datagram := forward.recv(64)) == PROBE:
        pass
    return struct.unpack(">ii", datagram)


@pytest.fixture(scope="module")
def broker(tmp_path_factory):
    """mosquitto with what an earlier run left: line 6 set, a state where GPO line 5 follows."""
    broker = Broker(tmp_path_factory.mktemp("broker"))
    broker.publish(SOURCES[6], PLANTED % "true", retain=True)
    broker.publish("facility/tally/5", PLANTED % "true", retain=True)
    yield broker
    for program in broker.subscribers + [broker.process]:
        program.stop()


@pytest.fixture(scope="module")
def gateway(board, broker):
    """gpiomqtt, serving; `forward` the socket it passes GPI datagrams on to, `live` a subscriber
    since before it started."""
    forward = socket.socket(type=socket.SOCK_DGRAM)
    forward.bind(("127.0.0.1", 0))
    live = Subscriber(broker)
    gateway = start_gateway(broker, forward)
    gateway.forward, gateway.live = forward, live
    yield gateway
    gateway.stop()
    forward.close()


def test_at_start_the_connection_is_active_and_every_line_state_cleared(gateway):
    assert [gateway.live.next() for _ in range(9)] == [status(True)] + [
        (topic, None) for topic in SOURCES]


def test_each_gpi_change_is_one_retained_state_in_order_a_pulse_two(board, broker, gateway):
    steps = [("gpi 01", (0, 1), [(0, True)]), ("gpi 05", (2, 1), [(2, True)]),
             ("gpi 04", (0, 0), [(0, False)]), ("pulse 2", (2, 2), [(2, False), (2, True)])]
    for command, event, states in steps:
        board.say(command)
        assert passed_on(gateway.forward) == event, command
        got = [gateway.live.next() for _ in states]
        assert [(topic, message["payload"]["value"]) for topic, message in got] == [
            (SOURCES[line], value) for line, value in states], command
    broker.publish("probe", "mark")
    assert list(iter(gateway.live.next, None)) == [], "nothing else before the mark"


def test_a_late_joiner_gets_each_known_level_and_none_an_earlier_run_left(broker, gateway):
    assert broker.levels() == {0: False, 2: True}


def test_followed_states_set_the_gpo_register_and_nothing_else_does(board, broker, gateway):
    assert board.wait_for("^GPO <- ").startswith("GPO <- 0x20"), "the state retained at start"
    broker.publish("facility/tally/2", PLANTED % "true")
    assert board.wait_for("^GPO <- ").startswith("GPO <- 0x24")
    for invalid in [None, "not json", "[true]", PLANTED.replace('"state"', '"shutdown"') % "true",
                    PLANTED.replace("boolean", "number") % "1", PLANTED % '"false"', PLANTED % 0]:
        broker.publish("facility/tally/2", invalid)
    broker.publish("facility/tally/3", PLANTED % "false")
    broker.publish("facility/tally/5", PLANTED % "false")
    assert board.wait_for("^GPO <- ").startswith("GPO <- 0x04"), "the first request after those"


def test_ten_seconds_without_the_broker_then_its_states_are_the_levels_within_five(
        board, broker, gateway):
    broker.process.stop()
    away = time.monotonic()
    for command, event in [("gpi 0C", (3, 1)), ("gpi 08", (2, 0))]:
        board.say(command)
        assert passed_on(gateway.forward) == event, "the GPI path waits for no broker"
    time.sleep(max(0.0, away + 10 - time.monotonic()))
    broker.start()
    back = time.monotonic()
    assert wait_until(lambda: broker.levels() == {0: False, 2: False, 3: True}, 8, 0.2)
    assert time.monotonic() - back <= 5


def test_sigterm_sends_shutdown_on_each_source_then_inactive_and_exits_0(broker, gateway):
    watcher = Subscriber(broker)
    gateway.process.send_signal(signal.SIGTERM)
    assert gateway.process.wait(10) == 0
    got = [watcher.next() for _ in range(9)]
    assert [(topic, message["message_type"]) for topic, message in got[:8]] == [
        (topic, "shutdown") for topic in SOURCES]
    assert got[8] == status(False)
    for count, cause in [(1, "an empty message"), (2, "not a JSON object"),
                         (1, "not a state message"), (1, "an event type other than boolean"),
                         (2, "a value that is not true or false")]:
        gateway.wait_for(f"changed nothing: {count} of {cause}$")


def test_kill_9_leaves_the_will_active_false(broker, gateway):
    watcher, again = broker.subscribers[-1], start_gateway(broker, gateway.forward)
    try:
        assert [watcher.next() for _ in range(9)][0] == status(True)
        again.process.kill()
        assert watcher.next(5) == status(False)
    finally:
        again.stop()


def test_every_kind_of_message_was_read_and_passed_its_schema(broker):
    assert broker.kinds == {"state", "shutdown", "connection_status"}
