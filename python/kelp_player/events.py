"""What a player tells: one small class for each event, for ``match`` or ``isinstance``.

Times are milliseconds, on the host's clock where the source was opened with an offset.
"""

from __future__ import annotations

from dataclasses import dataclass

from .errors import FailureKind


class Event:
    """The base of all events."""


@dataclass(frozen=True)
class VideoSizeUpdated(Event):
    """The size of the pictures in pixels, before they are turned clockwise by ``rotation`` degrees, 0 to 359."""

    width: int
    height: int
    rotation: int


@dataclass(frozen=True)
class Prepared(Event):
    """The source is open and has these streams; after a restart it comes again."""

    has_video: bool
    has_audio: bool


@dataclass(frozen=True)
class Started(Event):
    """Playback began, or began again after a restart."""


@dataclass(frozen=True)
class FirstVideoFrame(Event):
    """The first picture is about to be shown, at the start or after a seek."""

    pts_ms: int


@dataclass(frozen=True)
class FirstAudioFrame(Event):
    """The first sound is about to be played, at the start or after a seek."""

    pts_ms: int


@dataclass(frozen=True)
class DurationUpdated(Event):
    """The source has turned out to be as long as this."""

    duration_ms: int


@dataclass(frozen=True)
class Stalled(Event):
    """Playback stands, as a source over a network doesn't come fast enough; ``StallEnded`` follows."""


@dataclass(frozen=True)
class Buffering(Event):
    """Of a playback that stands: so much is read ahead, and the same as a part of what is waited for, 0 to 100."""

    waiting_ms: int
    percent: int


@dataclass(frozen=True)
class StallEnded(Event):
    """A playback that stood goes on, or was stopped."""


@dataclass(frozen=True)
class Completed(Event):
    """The source has been played to its end. It stays open: a seek plays on."""


@dataclass(frozen=True)
class Failed(Event):
    """The player has failed for good; what it mends by itself isn't told. ``reason`` is for people to read."""

    kind: FailureKind
    reason: str
