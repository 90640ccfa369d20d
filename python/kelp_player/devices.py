"""The machine's sound devices."""

from __future__ import annotations

from typing import List

from ._lifetime import refuse_when_pinned
from ._native import decoded, lib
from .errors import check


def audio_devices() -> List[str]:
    """The names of the sound devices that there are by now, for the option ``audio_device``.

    None before the first player. Not from the callback of a sink or a clock.
    """
    refuse_when_pinned("audio_devices")
    devices = check(lib.kelp_get_audio_devices())
    try:
        count = lib.kelp_audio_devices_count(devices)
        return [decoded(lib.kelp_audio_devices_name(devices, index)) for index in range(count)]
    finally:
        lib.kelp_audio_devices_free(devices)
