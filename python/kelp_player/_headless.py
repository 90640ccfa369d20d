"""Doing without a screen and a sound device."""

import os


def headless() -> None:
    """Has SDL do without a screen and a sound device, unless the environment asks for others.

    Before the first player of the process. Pictures then go to sinks and iterators, and sound nowhere, at its pace.
    """
    os.environ.setdefault("SDL_VIDEODRIVER", "dummy")
    os.environ.setdefault("SDL_AUDIODRIVER", "dummy")
