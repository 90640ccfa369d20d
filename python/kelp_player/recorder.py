"""Recording without encoding."""

from __future__ import annotations

import ctypes
import os

from ._lifetime import Closable, Native, callback, register
from ._native import (
    Text,
    count_type,
    decoded,
    encoded,
    kelp_recorder_events,
    kelp_recorder_limits,
    lib,
    path_reason_type,
    path_time_type,
    path_type,
)
from .errors import check


class Recorder(Closable):
    """Writes what a player reads into files, picture and sound, without encoding, while it is played.

    ::

        with Recorder() as recorder:
            player.set_recorder(recorder)
            recorder.start("camera.mp4")
            ...
            recorder.stop()

    A recording begins with the first key frame that is read after ``start``. Where packets don't go on, and at a limit,
    the next file begins, whose name has "-2", "-3" and so on in front of its ending. Derive from this class for what it
    tells: that comes on a thread of its own, and may call ``is_recording`` of it alone.
    """

    _last_error = lib.kelp_recorder_last_error

    def __init__(self) -> None:
        self._number = register(self)
        events = kelp_recorder_events(
            user=self._number,
            on_file_begun=Recorder._on_file_begun,
            on_file_ended=Recorder._on_file_ended,
            on_packets_lost=Recorder._on_packets_lost,
            on_failed=Recorder._on_failed,
        )
        self._native = Native(self, check(lib.kelp_recorder_create(ctypes.byref(events))), lib.kelp_recorder_destroy)

    def on_file_begun(self, path: str) -> None:
        """A file was created, or overwritten."""

    def on_file_ended(self, path: str, duration_ms: int) -> None:
        """A file is complete and closed, and holds so much."""

    def on_packets_lost(self, packets: int) -> None:
        """So many packets were left out, as the disk is slower than the source."""

    def on_failed(self, path: str, reason: str) -> None:
        """The recording has ended by itself. What was written before stays, and plays."""

    def start(self, path: Text, file_ms: int = 0, file_bytes: int = 0, waiting_bytes: int = 0) -> None:
        """Records into ``path``, which ends in ".mp4", ".mov", ".mkv" or ".ts", from the next key frame on.

        The next file begins at the first key frame behind ``file_ms`` milliseconds or ``file_bytes``; 0 for no limit.
        ``waiting_bytes`` may wait in memory to be written; 0 for 64 MiB. Raises Refused with another ending, and until
        what was begun is stopped, also where that has failed.
        """
        limits = kelp_recorder_limits(file_ms=file_ms, file_bytes=file_bytes, waiting_bytes=waiting_bytes)
        check(self._native.call(lib.kelp_recorder_start, encoded(path), ctypes.byref(limits)))

    def stop(self) -> None:
        """Ends the recording: waits until what was read by now is written."""
        check(self._native.call(lib.kelp_recorder_stop))

    @property
    def is_recording(self) -> bool:
        """Between start and stop, unless it has failed."""
        return bool(self._native.call(lib.kelp_recorder_is_recording))

    @callback(path_type)
    def _on_file_begun(self, path: bytes) -> None:
        self.on_file_begun(os.fsdecode(path))

    @callback(path_time_type)
    def _on_file_ended(self, path: bytes, duration_ms: int) -> None:
        self.on_file_ended(os.fsdecode(path), duration_ms)

    @callback(count_type)
    def _on_packets_lost(self, packets: int) -> None:
        self.on_packets_lost(packets)

    @callback(path_reason_type)
    def _on_failed(self, path: bytes, reason: bytes) -> None:
        self.on_failed(os.fsdecode(path), decoded(reason))
