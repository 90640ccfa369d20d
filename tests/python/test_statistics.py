"""Every figure of the C struct has its own name in Python, and its value."""

import ctypes
from dataclasses import fields
from typing import Dict, Union

from kelp_player import AudioStatistics, FailureKind, SoundOutput, Statistics, VideoStatistics
from kelp_player._native import kelp_statistics
from kelp_player.statistics import read_statistics


def test_each_figure_is_told_under_its_name() -> None:
    raw = kelp_statistics()
    given: Dict[str, Union[int, float, str]] = {}
    for number, (name, kind, *_) in enumerate(kelp_statistics._fields_, start=2):
        if kind is ctypes.c_double:
            given[name] = number + 0.5
        else:
            given[name] = number if kind in (ctypes.c_size_t, ctypes.c_int, ctypes.c_int64) else f"codec {number}"
    given.update(video_is_hardware=1, audio_is_hardware=1, audio_output=2, last_failure=2, video_ahead_of_master_ms=-7)
    for name, value in given.items():
        setattr(raw, name, value.encode() if isinstance(value, str) else value)

    told = read_statistics(raw)
    heard = {f"video_{field.name}": getattr(told.video, field.name) for field in fields(VideoStatistics)}
    heard.update((f"audio_{field.name}", getattr(told.audio, field.name)) for field in fields(AudioStatistics))
    heard.update((field.name, getattr(told, field.name)) for field in fields(Statistics))
    assert heard.pop("video") is told.video and heard.pop("audio") is told.audio
    assert heard == {name: value for name, value in given.items() if name != "size"}
    assert told.video.is_hardware is True and told.audio.is_hardware is True
    assert told.audio.output is SoundOutput.SILENCE and told.last_failure is FailureKind.VIDEO_DECODE
