"""The tracks of a source."""

from __future__ import annotations

import ctypes
import enum
from dataclasses import dataclass
from typing import Any, List

from ._native import decoded, kelp_track, lib
from .errors import check


class TrackKind(enum.IntEnum):
    """What a track carries."""

    VIDEO = 0
    AUDIO = 1
    SUBTITLE = 2
    OTHER = 3  #: data, attached files and the like


@dataclass(frozen=True)
class Track:
    """One track of a source, as its opening found it: all that a menu of tracks shows."""

    number: int  #: what ``select_track`` and the options ``video_track`` and so on take
    kind: TrackKind
    codec: str  #: FFmpeg's short name, such as "h264"
    language: str  #: mostly three letters; empty where the source doesn't say
    title: str  #: for people to read; empty where there is none
    is_default: bool  #: the source asks for it where nobody chooses
    is_attached_picture: bool  #: a single picture that goes with the sound, such as a song's cover
    is_playable: bool  #: there is a decoder for it, and the options allow it
    is_played: bool  #: the player has taken it, or the host has selected it since
    width: int  #: of a video track's picture before it is turned, in pixels; 0 where it isn't known
    height: int  #: likewise
    sample_rate: int  #: of the sound, in Hz; 0 where it isn't known
    channels: int  #: of the sound; 0 where it isn't known
    frame_rate: float  #: pictures per second, on average; 0 where it isn't known


def _track(raw: kelp_track) -> Track:
    return Track(
        raw.number,
        TrackKind(raw.kind),
        decoded(raw.codec),
        decoded(raw.language),
        decoded(raw.title),
        bool(raw.is_default),
        bool(raw.is_attached_picture),
        bool(raw.is_playable),
        bool(raw.is_played),
        raw.width,
        raw.height,
        raw.sample_rate,
        raw.channels,
        raw.frame_rate,
    )


def read_tracks(tracks: Any) -> List[Track]:
    """The tracks of a handle of the library's, which is freed."""
    try:
        result = []
        for index in range(lib.kelp_tracks_count(tracks)):
            raw = kelp_track()
            check(lib.kelp_tracks_get(tracks, index, ctypes.byref(raw)), lib.kelp_tracks_last_error, tracks)
            result.append(_track(raw))
        return result
    finally:
        lib.kelp_tracks_free(tracks)
