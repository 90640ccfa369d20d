#!/usr/bin/python3
"""What a picture costs a host in Python, beside one in C++ that does the same with it.

usage: PYTHONPATH=python KELP_PLAYER_LIBRARY=build/release/libkelp_player.so bench/python_frames.py FRAME_COST FILE...

FRAME_COST is the host in C++, build/release/bench/frame_cost. Plays each FILE once for each way of taking its pictures, in
a process of its own, and prints the processor time for a picture that is shown, and what it is more than that of the first
way: all repaints of the picture included.
"""

import subprocess
import sys
import time

WAYS = {
    ("C++", "call"): "C++: a sink that does nothing, decoding included",
    ("Python", "call"): "Python: `add_frame_sink`, a function that does nothing",
    ("C++", "array"): "C++: the mean of the luma",
    ("Python", "array"): "Python: the same by numpy",
    ("C++", "copy"): "C++: a copy",
    ("Python", "copy"): "Python: `picture.copy()`",
    ("Python", "frames"): "Python: `frames()`, which copies too",
}


def play(way: str, path: str) -> None:
    import kelp_player

    kelp_player.headless()
    kelp_player.set_log_callback(lambda line: None)
    with kelp_player.Player(path, preset="recommended", log_level="none", audio_track="none") as player:
        if way == "call":
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


def cost(program: str, language: str, way: str, path: str) -> float:
    words = [program, way, path] if language == "C++" else [sys.executable, __file__, "--play", way, path]
    # The first player's line, of FFmpeg's configuration, may stand in front.
    return float(subprocess.check_output(words).split()[-1])


def main(program: str, *paths: str) -> None:
    print("| microseconds of processor time for a picture | " + " | ".join(paths) + " |")
    print("| --- |" + " ---: |" * len(paths))
    first = {}
    for (language, way), text in WAYS.items():
        cells = []
        for path in paths:
            now = cost(program, language, way, path)
            cells.append(f"{now - first[path]:+.0f}" if path in first else f"{now:.0f}")
            first.setdefault(path, now)
        print(f"| {text} | " + " | ".join(cells) + " |", flush=True)


if sys.argv[1:2] == ["--play"]:
    play(*sys.argv[2:])
else:
    main(*sys.argv[1:])
