# A row of N pictures from evenly spaced times of a file: thumbnails.py FILE N OUT.png
import sys

import numpy
from PIL import Image

from kelp_player import FrameReader, headless

headless()
count = int(sys.argv[2])
with FrameReader(sys.argv[1], log_level="error") as film:
    times = [film.duration_ms * (2 * number + 1) // (2 * count) for number in range(count)]
    row = numpy.hstack([film.seek(time).to_rgb()[::2, ::2] for time in times])
Image.fromarray(row).save(sys.argv[3])
