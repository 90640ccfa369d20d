"""What a player is told and asked, by number."""

import enum


class SyncMaster(enum.IntEnum):
    """Whose clock the other streams follow."""

    CLOCK = 0  #: the player's own, or that of ``set_clock``; at the start
    AUDIO = 1
    VIDEO = 2


class HwDecode(enum.IntFlag):
    """Which kinds of hardware decoding are tried before software."""

    NONE = 0
    DECODER = 1
    ACCEL = 2
    ALL = 3


class WindowType(enum.IntEnum):
    """What a window's handle is."""

    NATIVE = 1  #: a native window id as a toolkit gives it out, on X11 the XID
    SDL = 2  #: the address of an SDL_Window, best made with SDL_WINDOW_OPENGL


class Info(enum.IntEnum):
    """One fact of a source."""

    DURATION = 0  #: in milliseconds, on the host's clock
    WIDTH = 1  #: of the picture before it is turned, in pixels
    HEIGHT = 2
    ROTATE = 3  #: clockwise, in degrees from 0 to 359
    FPS = 4  #: whole pictures per second, 30 if that isn't known
