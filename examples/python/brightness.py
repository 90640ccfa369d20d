# How bright a film is, second by second, and from picture to picture at a time: brightness.py FILE [MS]
import sys

import numpy

from kelp_player import FrameReader, Picture, headless


def mean(picture: Picture) -> float:
    return float(numpy.asarray(picture.planes[0]).mean())  # on the picture's own memory, without a copy


headless()
with FrameReader(sys.argv[1], log_level="error") as film:
    # [seek]
    for time_ms in range(0, film.duration_ms, 1000):
        picture = film.seek(time_ms)  # the one that is on at that time, exactly
        print(f"{picture.pts_ms:8d} ms {mean(picture):6.1f}")
    # [/seek]
    if len(sys.argv) > 2:
        # [read]
        before = film.seek(int(sys.argv[2]))
        for picture in film:  # those behind it: each once, and none left out
            difference = numpy.asarray(picture.planes[0], int) - numpy.asarray(before.planes[0])
            print(f"{picture.pts_ms:8d} ms {mean(picture):6.1f}, changed by {abs(difference).mean():.1f}")
            before = picture
        # [/read]
