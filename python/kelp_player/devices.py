"""The machine's sound devices."""

from __future__ import annotations

from typing import Any, List

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
        return [_name(devices, index) for index in range(lib.kelp_audio_devices_count(devices))]
    finally:
        lib.kelp_audio_devices_free(devices)


def _name(devices: Any, index: int) -> str:
    return decoded(check(lib.kelp_audio_devices_name(devices, index), lib.kelp_audio_devices_last_error, devices))
