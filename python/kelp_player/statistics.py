"""How a playback goes."""

from __future__ import annotations

import enum
from dataclasses import dataclass, fields
from typing import Any, Dict, Optional, Type

from ._native import decoded, kelp_statistics
from .errors import FailureKind


class SoundOutput(enum.IntEnum):
    """Where the sound goes."""

    NONE = 0  #: no sound is played, it hasn't begun, or it waits for a device
    DEVICE = 1
    SILENCE = 2  #: nowhere, for want of a device, at its pace all the same


@dataclass(frozen=True)
class VideoStatistics:
    """The video, or the picture that goes with a sound. The counts begin with the playback."""

    track: int  #: the number of the track; -1 where none is played, and all else is 0
    codec: str  #: FFmpeg's short name
    decoder: str  #: the library's name for what decodes it; empty without one
    is_hardware: bool  #: hardware decodes it, or helps
    packets: int  #: read and handed on
    bytes: int  #: in these
    bit_rate: int  #: bits that were read in the last second
    queue_count: int  #: packets that wait to be decoded
    queue_ms: int  #: from the first of them to the last
    width: int  #: of the pictures, in pixels
    height: int  #: likewise
    frame_rate: float  #: pictures per second, as the source states them; 0 where it doesn't
    decoded: int  #: pictures that left the decoder
    shown: int  #: of these, brought to the windows
    late: int  #: left out, as they came far behind the master
    repeated: int  #: times that a picture was drawn again as the next one was far too early
    pictures_count: int  #: pictures that wait to be shown
    pictures_ms: int  #: from the first of them to the last
    ahead_of_master_ms: int  #: by how much the picture runs ahead of what it follows, below 0 behind it


@dataclass(frozen=True)
class AudioStatistics:
    """The sound. The counts begin with the playback."""

    track: int  #: as for the video, down to the queue
    codec: str
    decoder: str
    is_hardware: bool
    packets: int
    bytes: int
    bit_rate: int
    queue_count: int
    queue_ms: int
    sample_rate: int  #: of the stream, in Hz
    channels: int  #: likewise
    decoded: int  #: pieces of sound that left the decoder
    blocks: int  #: handed to the output
    underruns: int  #: gaps: the device asked for sound, and got it later
    output: SoundOutput  #: where it goes
    sound_count: int  #: pieces that wait to be played
    sound_ms: int  #: from the first of them to the last
    ahead_of_master_ms: int  #: as for the picture


@dataclass(frozen=True)
class Statistics:
    """A snapshot, taken while the player works on.

    Out of playback all is 0 and the tracks -1, but for what is said of the player, and, while a source is open, of its
    tracks.
    """

    video: VideoStatistics
    audio: AudioStatistics
    restarts: int  #: of the source, since the player was made
    last_failure: Optional[FailureKind]  #: the last one, also if it was mended
    live_delay_ms: float  #: of a live source: how late the last packet of video came; below 0 for early
    live_jitter_ms: float  #: the mean of that distance over some 16 packets
    packet_sink_ms: float  #: what the packet sink has taken
    packet_sink_longest_ms: float  #: and at most for one call


def _part(kind: Type[Any], raw: kelp_statistics, prefix: str) -> Dict[str, Any]:
    values = {field.name: getattr(raw, prefix + field.name) for field in fields(kind) if hasattr(raw, prefix + field.name)}
    return {name: decoded(value) if isinstance(value, bytes) else value for name, value in values.items()}


def read_statistics(raw: kelp_statistics) -> Statistics:
    video = _part(VideoStatistics, raw, "video_")
    audio = _part(AudioStatistics, raw, "audio_")
    player = _part(Statistics, raw, "")
    video["is_hardware"] = bool(video["is_hardware"])
    audio["is_hardware"] = bool(audio["is_hardware"])
    audio["output"] = SoundOutput(audio["output"])
    player["last_failure"] = FailureKind(raw.last_failure) if raw.last_failure else None
    return Statistics(video=VideoStatistics(**video), audio=AudioStatistics(**audio), **player)
