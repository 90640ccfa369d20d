"""Clocks that players follow."""

from __future__ import annotations

import ctypes

from ._lifetime import Closable, Native, callback, register
from ._native import flag_type, kelp_clock_calls, lib, time_type
from .errors import check


class Clock(Closable):
    """A clock that runs by the system's date, can be paused and set, and is always obeyed. One may lead many players.

    Hand it to ``Player.set_clock``; the player's master is to be ``SyncMaster.CLOCK``.
    """

    _last_error = lib.kelp_clock_last_error

    def __init__(self, start_ms: int = 0, no_sync_threshold_ms: int = 10000) -> None:
        """Reads ``start_ms``, at speed 1. Streams that are the threshold away, 10000 at least, don't try to follow."""
        handle = check(lib.kelp_clock_create(start_ms, no_sync_threshold_ms))
        self._native = Native(self, handle, lib.kelp_clock_destroy)

    @property
    def time_ms(self) -> int:
        """The reading."""
        return int(self._native.call(lib.kelp_clock_get_time_ms))

    def pause(self) -> None:
        """Stops the clock at its reading."""
        check(self._native.call(lib.kelp_clock_pause))

    def resume(self) -> None:
        """Lets it go on from there."""
        check(self._native.call(lib.kelp_clock_resume))

    def reset(self, time_ms: int) -> None:
        """Sets the reading. A paused clock stays paused."""
        check(self._native.call(lib.kelp_clock_reset, time_ms))

    def set_speed(self, speed: float) -> None:
        """Changes its rate, 1.0 being that of the system; below 0 it runs backwards. The players' own is theirs."""
        check(self._native.call(lib.kelp_clock_set_speed, speed))


class HostClock(Closable):
    """A clock of the host's own: derive from it, and tell the time. What derives calls ``super().__init__()``.

    All is called at every frame, on several threads at once, and must answer at once.
    """

    _last_error = lib.kelp_clock_last_error

    def __init__(self) -> None:
        self._number = register(self)
        calls = kelp_clock_calls(
            user=self._number,
            get_time_ms=HostClock._get_time_ms,
            get_no_sync_threshold_ms=HostClock._get_no_sync_threshold_ms,
            is_force_sync=HostClock._is_force_sync,
        )
        self._native = Native(self, check(lib.kelp_clock_create_own(ctypes.byref(calls))), lib.kelp_clock_destroy)

    def get_time_ms(self) -> int:
        """The reading on the time line of the host."""
        raise NotImplementedError

    def get_no_sync_threshold_ms(self) -> int:
        """How far a stream may be away from this clock before it stops trying to follow; 10000 at least."""
        return 10000

    def is_force_sync(self) -> bool:
        """Picture and sound wait for this clock, however far they run ahead of it."""
        return True

    @callback(time_type, default=0, pinned=True)
    def _get_time_ms(self) -> int:
        return int(self.get_time_ms())

    @callback(time_type, default=10000, pinned=True)
    def _get_no_sync_threshold_ms(self) -> int:
        return self.get_no_sync_threshold_ms()

    @callback(flag_type, default=1, pinned=True)
    def _is_force_sync(self) -> int:
        return bool(self.is_force_sync())


def set_sample_correction_percent_max(percent: int) -> None:
    """By how many percent the sound may be stretched to follow a clock, 0 to 99, where its tempo can't be changed.

    For the whole process; 10 at the start. ``Clock.set_speed`` sets it too.
    """
    lib.kelp_set_sample_correction_percent_max(percent)


def get_sample_correction_percent_max() -> int:
    """What is set."""
    return int(lib.kelp_get_sample_correction_percent_max())
