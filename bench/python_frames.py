#!/usr/bin/python3
"""What a picture costs a host in Python, beside one in C that does nothing with it.

usage: PYTHONPATH=python KELP_PLAYER_LIBRARY=build/release/libkelp_player.so bench/python_frames.py FILE...

Plays each FILE once for each way of taking its pictures, in a process of its own, and prints the processor time for a
picture that is shown, and what it is more than the first one's: all repaints of the picture included.
"""

import ctypes
import subprocess
import sys
import time

WAYS = {
    "none": "a sink in C that does nothing",
    "call": "`add_frame_sink`, a function that does nothing",
    "array": "the same, and the mean of the luma by numpy",
    "copy": "the same, and `picture.copy()`",
    "frames": "`frames()`, which copies too",
}


def play(way: str, path: str) -> None:
    import kelp_player
    from kelp_player import _native

    kelp_player.headless()
    kelp_player.set_log_callback(lambda line: None)
    with kelp_player.Player(path, preset="recommended", log_level="error", audio_track="none") as player:
        if way == "none":
            calls = _native.kelp_frame_sink_calls()
            sink = _native.lib.kelp_frame_sink_create(ctypes.byref(calls))
            player._native.call(_native.lib.kelp_player_add_frame_sink, sink)
        elif way == "call":
            player.add_frame_sink(lambda picture: None)
        elif way == "array":
            import numpy

            player.add_frame_sink(lambda picture: numpy.asarray(picture.planes[0]).mean())
        elif way == "copy":
            player.add_frame_sink(lambda picture: picture.copy())
        frames = player.frames() if way == "frames" else ()
        player.wait_for(kelp_player.Prepared)
        begin = time.process_time()
        player.play()
        for _ in frames:
            pass
        player.wait()
        print((time.process_time() - begin) / player.statistics.video.shown * 1e6)


def main() -> None:
    print("| microseconds of processor time for a picture | " + " | ".join(sys.argv[1:]) + " |")
    print("| --- |" + " ---: |" * len(sys.argv[1:]))
    first = {}
    for way, text in WAYS.items():
        cells = []
        for path in sys.argv[1:]:
            cost = float(subprocess.check_output([sys.executable, __file__, "--play", way, path]))
            more = cost - first.setdefault(path, cost)
            cells.append(f"{cost:.0f}" if way == "none" else f"+{more:.0f}")
        print(f"| {text} | " + " | ".join(cells) + " |", flush=True)


if sys.argv[1:2] == ["--play"]:
    play(*sys.argv[2:])
else:
    main()
