"""Plays media: files, cameras and whatever else libavformat opens, into windows, callbacks and iterators.

::

    with Player("film.mp4", preset="recommended") as player:
        for picture in player.frames():
            ...

:class:`Player` is where to begin; docs/python.md tells the story. The package needs the library libkelp_player, and
numpy only for arrays.
"""

from ._headless import headless
from ._native import decoded as _decoded
from ._native import lib as _lib
from .clock import Clock, HostClock, get_sample_correction_percent_max, set_sample_correction_percent_max
from .devices import audio_devices
from .errors import Closed, FailureKind, KelpPlayerError, PlaybackFailed, Refused
from .events import (
    Buffering,
    Completed,
    DurationUpdated,
    Event,
    Failed,
    FirstAudioFrame,
    FirstVideoFrame,
    Prepared,
    StallEnded,
    Stalled,
    Started,
    VideoSizeUpdated,
)
from .kinds import HwDecode, Info, SyncMaster, WindowType
from .log import LogLevel, get_log_level, log_to, set_log_callback, set_log_level, write_log
from .muxer import PixFormat, StreamMuxer, VideoCodec
from .packets import Packet, PacketSink, PacketStream
from .pictures import Picture, Plane
from .player import Player
from .reader import FrameReader
from .recorder import Recorder
from .sinks import Frames, FrameSink
from .statistics import AudioStatistics, SoundOutput, Statistics, VideoStatistics
from .subtitles import SubtitleLine, SubtitlePicture, Subtitles
from .tracks import Track, TrackKind
from .udp import UdpReceiver, UdpSender

#: The library's version, which is the package's too.
__version__: str = _decoded(_lib.kelp_version())

__all__ = [
    "AudioStatistics",
    "Buffering",
    "Clock",
    "Closed",
    "Completed",
    "DurationUpdated",
    "Event",
    "Failed",
    "FailureKind",
    "FirstAudioFrame",
    "FirstVideoFrame",
    "FrameReader",
    "FrameSink",
    "Frames",
    "HostClock",
    "HwDecode",
    "Info",
    "KelpPlayerError",
    "LogLevel",
    "Packet",
    "PacketSink",
    "PacketStream",
    "Picture",
    "PixFormat",
    "Plane",
    "PlaybackFailed",
    "Player",
    "Prepared",
    "Recorder",
    "Refused",
    "SoundOutput",
    "StallEnded",
    "Stalled",
    "Started",
    "Statistics",
    "StreamMuxer",
    "SubtitleLine",
    "SubtitlePicture",
    "Subtitles",
    "SyncMaster",
    "Track",
    "TrackKind",
    "UdpReceiver",
    "UdpSender",
    "VideoCodec",
    "VideoSizeUpdated",
    "VideoStatistics",
    "WindowType",
    "audio_devices",
    "get_log_level",
    "get_sample_correction_percent_max",
    "headless",
    "log_to",
    "set_log_callback",
    "set_log_level",
    "set_sample_correction_percent_max",
    "write_log",
]
