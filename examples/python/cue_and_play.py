#!/usr/bin/python3
"""Cues a clip of the video server to a timecode and plays it from there.

    cue_and_play.py HOST PORT CLIP TIMECODE      (UDP; the server's protocol port, 32896)

Loads CLIP by its ID, cues to TIMECODE, waits for the server to report cue-up complete, plays,
and prints where it started. Exit status 0, 1 when the server fails, 2 for a bad command line.
"""

import argparse
import sys
import time

import zqhandler

CUE_UP_COMPLETE = 0x01  # status byte 2, bit 0


def timecode_argument(text):
    if not zqhandler.timecode.is_normal(text):
        raise argparse.ArgumentTypeError("%r is not HH:MM:SS:FF" % text)
    return text


def wait_for_cue_up(deck, seconds=5.0):
    deadline = time.monotonic() + seconds
    while not deck.status_range(2, 1)[0] & CUE_UP_COMPLETE:
        if time.monotonic() > deadline:
            raise SystemExit("cue_and_play: the server did not complete the cue-up")
        time.sleep(0.02)


def main():
    parser = argparse.ArgumentParser(description="Cue a clip to a timecode and play it.")
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("clip")
    parser.add_argument("timecode", type=timecode_argument)
    args = parser.parse_args()
    try:
        with zqhandler.connect_udp(args.host, args.port, timeout=0.5) as deck:
            deck.odetics.in_preset(args.clip)
            deck.cue(args.timecode)
            wait_for_cue_up(deck)
            print("%s cued at %s" % (args.clip, deck.timecode()))
            deck.play()
            print("playing %s from %s" % (args.clip, args.timecode))
    except zqhandler.Error as error:
        print("cue_and_play: %s" % error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
