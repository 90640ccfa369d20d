"""A host with nothing but the package: plays a file, and says how many pictures came. Arguments: a media file."""

import os
import sys

os.environ["SDL_VIDEODRIVER"] = os.environ["SDL_AUDIODRIVER"] = "dummy"
import kelp_player  # noqa: E402

pictures = set()
with kelp_player.Player(sys.argv[1], log_level="error") as player:
    player.add_frame_sink(lambda picture: pictures.add(picture.pts_ms))
    player.play()
    player.wait()
print(f"{len(pictures)} pictures in Python, version {kelp_player.__version__}")
sys.exit(not pictures)
