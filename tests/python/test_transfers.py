# Transfers over TCP and the management endpoint over UDP, from Python against devsim, with the
# contents devsim serves written to files of a temporary directory.
import socket

import pytest

import zqhandler

CONTENTS = {"diskinfo": b"DISK\x00\x01INFO", "gop": b"GOP\x00" * 40, "log": b"line 1\nline 2\n",
            "entry": b"ENTRY 2", "picture": b"\x89PNG\x00picture", "upload": b"NEW GOP"}
GOP = CONTENTS["gop"]


@pytest.fixture
def server(devsim, tmp_path):
    for name, content in CONTENTS.items():
        (tmp_path / name).write_bytes(content)
    return devsim("--version", "7:9", "--diskinfo", tmp_path / "diskinfo", "--gop",
                  tmp_path / "gop", "--log", tmp_path / "log", "--entry",
                  "2:%s" % (tmp_path / "entry"), "--picture", "7:%s" % (tmp_path / "picture"))


# Each row: the link, the calls (chained with "or": uploads return None) in a folder, the result.
CALLS = [
    ("tcp", lambda d, _: d.transfer.version(), (7, 9)),
    ("tcp", lambda d, _: d.disk_info(), CONTENTS["diskinfo"].rstrip(b"\0")),
    ("tcp", lambda d, _: d.transfer.file_entry(2), CONTENTS["entry"]),
    ("tcp", lambda d, _: d.transfer.file_entry(3), b""),
    ("tcp", lambda d, _: d.transfer.download_gop(), GOP),
    ("tcp", lambda d, tmp: (d.transfer.download_gop(tmp / "new"), (tmp / "new").read_bytes()),
     (len(GOP), GOP)),
    ("tcp", lambda d, _: setattr(d.transfer, "gop_protocol", 0) or
     d.transfer.download_gop(capacity=len(GOP)), GOP),
    ("tcp", lambda d, tmp: d.transfer.upload_gop(tmp / "upload") or d.transfer.download_gop(),
     CONTENTS["upload"]),
    ("mgmt", lambda d, _: d.management.log(), CONTENTS["log"]),
    ("mgmt", lambda d, _: d.disk_info(), CONTENTS["diskinfo"]),
    ("mgmt", lambda d, _: d.management.picture(7), CONTENTS["picture"]),
    ("mgmt", lambda d, _: d.management.put_disk_info(b"accepted"), None),
]


@pytest.mark.parametrize("link, call, expected", CALLS)
def test_transfers_give_what_the_server_holds(server, tmp_path, link, call, expected):
    with server.connect(link) as deck:
        assert call(deck, tmp_path) == expected


FAILURES = [
    ("tcp", lambda d, _: d.transfer.download_gop(capacity=10), zqhandler.InvalidArgument),
    ("tcp", lambda d, _: d.transfer.disk_info(capacity=4), zqhandler.ProtocolError),
    ("tcp", lambda d, tmp: d.transfer.download_gop(tmp / "log"), FileExistsError),
    ("udp", lambda d, _: d.transfer.version(), zqhandler.NotConnected),
    ("tcp", lambda d, _: d.management.log(), zqhandler.NotConnected),
    ("mgmt", lambda d, _: d.management.put_disk_info(bytes(256)), zqhandler.InvalidArgument),
]


@pytest.mark.parametrize("link, call, raised", FAILURES)
def test_transfer_failures_raise(server, tmp_path, link, call, raised):
    with server.connect(link, timeout=0.2) as deck:
        with pytest.raises(raised):
            call(deck, tmp_path)
    assert (tmp_path / "log").read_bytes() == CONTENTS["log"]


def test_management_raises_when_refused_or_unanswered(devsim):
    with devsim("--refuse-uploads").connect("mgmt") as deck:
        with pytest.raises(zqhandler.CommunicationError):
            deck.management.put_disk_info(b"refused")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        with zqhandler.connect_udp(*silent.getsockname(), timeout=0.2) as deck:
            with pytest.raises(zqhandler.ReceiveTimeout):
                deck.management.log()
