#!/usr/bin/python3
"""Plays the video server's next clip each time GPI line 0 rises.

    next_clip_on_gpi.py HOST PORT [--count N]     (UDP; the server's protocol port, 32896)

Reads the server's clip list, then listens for the board's GPI events from vlmgpiod.out on
127.0.0.1:42000: at each rise of line 0 it cues the next clip of the list (from the first, round
and round) and plays it. Ends after N rises (default: never). Exit status 0, 1 when the server
fails or has no clip, 2 for a bad command line.
"""

import argparse
import itertools
import sys

import zqhandler
from zqhandler import gpio


def main():
    parser = argparse.ArgumentParser(description="Play the next clip when GPI line 0 rises.")
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--count", type=int, default=None, help="end after this many rises")
    args = parser.parse_args()
    try:
        with zqhandler.connect_udp(args.host, args.port, timeout=0.5) as deck, \
                gpio.GpiListener() as events:
            clips = list(deck.odetics.ids())
            if not clips:
                print("next_clip_on_gpi: the server has no clip", file=sys.stderr)
                return 1
            print("waiting for GPI line 0 on %s:%d" % events.address, flush=True)
            rises = (e for e in events if e.line == 0 and e.status == gpio.SET)
            for clip, _ in zip(itertools.cycle(clips), itertools.islice(rises, args.count)):
                deck.odetics.in_preset(clip)
                deck.play()
                print("GPI 0 rose: playing %s" % clip, flush=True)
    except zqhandler.Error as error:
        print("next_clip_on_gpi: %s" % error, file=sys.stderr)
        return 1
    except OSError as error:
        print("next_clip_on_gpi: 127.0.0.1:%d: %s" % (gpio.LOOP_GPI_PORT, error.strerror),
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
