"""Doing without a screen and a sound device."""

import os


def headless() -> None:
    """Has SDL do without a screen and a sound device, unless the environment asks for others.

    Before the first player of the process. Pictures then go to sinks and iterators, and sound nowhere, at its pace:
    that of one player at a time, unless the option ``no_sound_device`` is ``silence``, as with the recommended preset.
    """
    os.environ.setdefault("SDL_VIDEODRIVER", "dummy")
    os.environ.setdefault("SDL_AUDIODRIVER", "dummy")
