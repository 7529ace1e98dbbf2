# The package as a user gets it: `cmake --install` into a temporary prefix, imported by a fresh
# interpreter from there with the library installed beside it, and the two examples run with it
# against devsim (the GPI one on the daemon and sdiboard, in a network namespace).
import os
import subprocess

import pytest
from conftest import BUILD, ROOT, Program, needs_namespace

EXAMPLES = ROOT / "examples" / "python"


@pytest.fixture(scope="module")
def user_env(tmp_path_factory):
    """The environment of a user of the installed package: its folder on PYTHONPATH, nothing
    of the build tree's."""
    prefix = tmp_path_factory.mktemp("prefix")
    subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True,
                   stdout=subprocess.DEVNULL)
    kept = {k: v for k, v in os.environ.items() if k not in ("ZQHANDLER_LIBRARY", "LD_LIBRARY_PATH")}
    return {**kept, "PYTHONPATH": str(prefix / "lib/python3/dist-packages"), "PREFIX": str(prefix)}


@pytest.mark.parametrize("named", [None, BUILD / "lib/zqhandler/libzqhandler.so.0"])
def test_a_fresh_interpreter_imports_the_installed_package_and_its_library(user_env, tmp_path,
                                                                          named):
    script = ("import zqhandler as z, os; print(os.path.realpath(z.__file__)); "
              "print(os.path.realpath(z._lib.path)); print(z.timecode.from_frames(107892, 30, 1))")
    env = {**user_env, "ZQHANDLER_LIBRARY": str(named)} if named else user_env
    said = subprocess.run(["/usr/bin/python3", "-c", script], env=env, cwd=tmp_path,
                          capture_output=True, text=True, check=True).stdout.splitlines()
    prefix = os.path.realpath(user_env["PREFIX"])
    assert said[0] == os.path.join(prefix, "lib/python3/dist-packages/zqhandler/__init__.py")
    library = os.path.realpath(named) if named else os.path.join(prefix, "lib/libzqhandler.so.0")
    assert said[1].startswith(library) and said[2] == "01:00:00;00"


def test_cue_and_play_cues_the_clip_and_plays_it(devsim, user_env):
    server = devsim("--clip", "NEWS 00:00:10:00 00:00:30:00")
    run = subprocess.run(["/usr/bin/python3", EXAMPLES / "cue_and_play.py", "127.0.0.1",
                          str(server.udp), "NEWS", "00:00:12:05"], env=user_env,
                         capture_output=True, text=True, timeout=30)
    assert (run.returncode, run.stdout) == (0, "NEWS cued at 00:00:12:05\n"
                                               "playing NEWS from 00:00:12:05\n")
    for heard in ("IN PRESET NEWS", "CUE UP WITH DATA 00:00:12:05", "PLAY$"):
        server.wait_for(heard)


@needs_namespace
def test_next_clip_on_gpi_plays_the_next_clip_at_each_rise_of_line_0(devsim, board, user_env):
    server = devsim("--clip", "NEWS", "--clip", "PROMO1")
    example = Program("/usr/bin/python3", EXAMPLES / "next_clip_on_gpi.py", "127.0.0.1",
                      server.udp, "--count", 2, env=user_env, ready="^waiting for GPI line 0")
    try:
        for clip in ("NEWS", "PROMO1"):
            board.say("gpi 01")
            assert example.wait_for("playing") == "GPI 0 rose: playing " + clip
            server.wait_for("IN PRESET " + clip)
            board.say("gpi 00")  # and seen to fall, so that the next rise is one
            board.daemon.wait_for(r"Raise GPI \(#0, 0\)")
        assert example.process.wait(10) == 0
    finally:
        example.stop()
