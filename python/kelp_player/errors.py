"""What the package raises."""

from __future__ import annotations

import enum
from typing import Any, Callable

from ._native import decoded, lib


class FailureKind(enum.IntEnum):
    """What went wrong, as :class:`~kelp_player.Failed` and :class:`PlaybackFailed` say."""

    START = 0  #: what was opened can't be played
    STREAM = 1  #: the source couldn't be opened, or not be read any further
    VIDEO_DECODE = 2  #: the video decoder gave up


class KelpPlayerError(Exception):
    """The base of all errors of this package."""


class Refused(KelpPlayerError):
    """A call was refused, for it doesn't fit what the player does just now, or the source can't do it.

    The text is the library's own reason.
    """


def check(result: Any, last_error: Callable[..., Any] = lib.kelp_last_error, *handle: Any) -> Any:
    """``result`` of a call of the library, unless it says that it failed: then the library's reason is raised.

    That is the calling thread's, or that of a ``handle``.
    """
    if not result:
        raise Refused(decoded(last_error(*handle)) or "no reason is given")
    return result


class PlaybackFailed(KelpPlayerError):
    """The playback that was waited for has failed; ``kind`` says in what, the text is the library's own reason."""

    def __init__(self, kind: FailureKind, reason: str) -> None:
        super().__init__(reason or kind.name.lower())
        self.kind = kind
        self.reason = reason


class Closed(KelpPlayerError):
    """The object was closed, or is being closed while it was waited for."""
