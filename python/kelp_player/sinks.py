"""Pictures from a player: into a callback, or out of an iterator."""

from __future__ import annotations

import collections
import contextlib
import ctypes
import sys
import threading
import time
import weakref
from typing import Any, Callable, Deque, Iterator, List, Optional

from ._lifetime import Native, callback, logger, reap, refuse_when_pinned, register
from ._native import frame_type, kelp_frame_sink_calls, lib, memory, size_type
from .errors import Closed, check
from .pictures import Picture, Plane

_PACKET = 4
_LAST_PICTURE_S = 0.5  # behind the end, without a new picture


class FrameSink:
    """Takes pictures in place of a window, from ``Player.add_frame_sink`` to ``remove`` or the player's end.

    The callback gets a :class:`Picture` on the player's video thread and holds up every window of the player meanwhile.
    The planes are **the player's memory, valid during the call only**: ``picture.copy()`` keeps them, and so does
    anything that is computed from them; an array on them that is kept is an error in the log, and reads what comes
    there next. From the callback a player's ``tracks``, ``statistics``, ``take_snapshot``, ``run_in_worker``,
    ``add_timer`` and ``remove_timer`` alone may be called, and neither ``pause`` nor ``remove`` of a sink, which
    ``run_in_worker`` takes.
    """

    def __init__(
        self,
        shelf: SinkShelf,
        function: Callable[[Picture], Any],
        repaints: bool,
        removed: Callable[[FrameSink], Any],
    ) -> None:
        self._shelf = shelf
        self._function = function
        self._removed = removed
        self._repaints = repaints
        self._last: Optional[int] = None  # the time of the last picture; on the video thread, but for expect()
        self._fps = 30
        self.number = register(self)
        calls = kelp_frame_sink_calls(user=self.number, on_size=FrameSink._on_size, on_frame=FrameSink._on_frame)
        self.handle = check(lib.kelp_frame_sink_create(ctypes.byref(calls)))

    def pause(self, pause: bool = True) -> None:
        """No picture comes while it is paused; for the running playback only."""
        refuse_when_pinned("pause")
        check(self._shelf.player.call(lib.kelp_player_pause_frame_sink, self.handle, pause))

    def remove(self) -> None:
        """Takes it away from its player. A picture that is just coming still does."""
        refuse_when_pinned("remove")
        self._function = _ignore
        self._shelf.remove(self.handle)
        self._removed(self)

    def expect(self) -> None:
        """Has the next picture come even if it is the same as the last one."""
        self._last = None

    def _on_repaint(self) -> None:
        pass

    @callback(size_type, pinned=True)
    def _on_size(self, width: int, height: int, fps: int) -> None:
        self._fps = fps

    @callback(frame_type, pinned=True)
    def _on_frame(self, raw: Any) -> None:
        frame = raw.contents
        pts = frame.pts_ms
        if pts == self._last and not self._repaints:
            self._on_repaint()
            return
        self._last = pts
        if frame.pix_format == _PACKET:
            packet = bytes(memory(frame.data[0], frame.line_size[0]))
            self._function(Picture(pts, 0, 0, self._fps, frame.rotate, (), packet, frame.frame_tag))
            return
        width, height = frame.width, frame.height
        picture = Picture(
            pts,
            width,
            height,
            self._fps,
            frame.rotate,
            (
                _plane(frame, 0, width, height),
                _plane(frame, 1, width // 2, height // 2),
                _plane(frame, 2, width // 2, height // 2),
            ),
        )
        try:
            self._function(picture)
        finally:
            for plane in picture.planes:
                lent, plane._memory = plane._memory, None
                # Here and as an argument: whoever else refers to it has made an array or a view of it.
                if sys.getrefcount(lent) > 2:
                    logger.error("a plane of a picture is kept behind its callback: copy() it")


def _plane(frame: Any, index: int, width: int, height: int) -> Plane:
    stride = frame.line_size[index]
    size = (height - 1) * stride + width if height and width else 0
    return Plane(memory(frame.data[index], size), width, height, stride)


def _ignore(_: object) -> None:
    pass


class SinkShelf:
    """All sinks of one player. Nothing in here refers to the player or a callback of the host's."""

    def __init__(self, player: Native) -> None:
        self.player = player
        self.completed_at: Optional[float] = None  # on the monotonic clock, when the end was told
        self._mutex = threading.Lock()  # guards all below
        self._sinks: "weakref.WeakSet[FrameSink]" = weakref.WeakSet()
        self._boxes: "weakref.WeakSet[Mailbox]" = weakref.WeakSet()
        self._handles: List[int] = []  # that the player has
        self._removed: List[int] = []  # that it may have until it was stopped
        player.wakes.append(self.wake)
        player.behind.append(self._end)

    def add(self, sink: FrameSink) -> None:
        handle = sink.handle
        with self._mutex:
            self._handles.append(handle)
            self._sinks.add(sink)
        weakref.finalize(sink, reap, lambda: self.remove(handle)).atexit = False
        check(self.player.call(lib.kelp_player_add_frame_sink, handle))

    def add_box(self, box: Mailbox) -> None:
        with self._mutex:
            self._boxes.add(box)

    def remove(self, handle: int) -> None:
        def take_away(player: int) -> None:
            with self._mutex:
                if handle not in self._handles:
                    return
                self._handles.remove(handle)
            lib.kelp_player_remove_frame_sink(player, handle)
            with self._mutex:
                self._removed.append(handle)  # only now a stop may let it be destroyed

        with contextlib.suppress(Closed):  # whose end destroys it
            self.player.call(take_away)

    def forget_removed(self) -> None:
        """The player was stopped: what was removed before won't be drawn on."""
        with self._mutex:
            removed, self._removed = self._removed, []
        for handle in removed:
            lib.kelp_frame_sink_destroy(handle)

    def begin(self) -> None:
        """Another playback or a seek: it isn't at its end, and the picture that stands counts as new."""
        self.completed_at = None
        with self._mutex:
            sinks = list(self._sinks)
        for sink in sinks:
            sink.expect()

    def wake(self) -> None:
        """Nobody waits for pictures any more, nor the video thread for anybody."""
        with self._mutex:
            boxes = list(self._boxes)
        for box in boxes:
            box.close()

    def _end(self) -> None:
        with self._mutex:
            self._removed += self._handles
            self._handles = []
        self.forget_removed()


class Mailbox:
    """Pictures on their way from the video thread to another one."""

    def __init__(self, size: int, wait: bool = False) -> None:
        self._size = size  # at most so many; 0 for no limit
        self._wait = wait  # the video thread waits for room, instead of dropping the oldest
        self._pictures: Deque[Picture] = collections.deque()  # guarded by _changed, like the rest
        self._only_newest = False
        self._closed = False
        self._changed = threading.Condition()
        self.lost = 0

    def put(self, picture: Picture) -> None:
        copy = picture.copy()
        with self._changed:
            if self._wait:
                self._changed.wait_for(lambda: self._has_room() or self._only_newest or self._closed)
            if self._closed:
                return
            if self._only_newest:
                self._pictures.clear()
            elif not self._has_room():
                self._pictures.popleft()
                self.lost += 1
            self._pictures.append(copy)
            self._changed.notify_all()

    def get(self, timeout: Optional[float]) -> Optional[Picture]:
        """The next one; None where it is closed and empty. Raises TimeoutError."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._pictures or self._closed, timeout):
                raise TimeoutError(f"no picture within {timeout} s")
            if not self._pictures:
                return None
            self._changed.notify_all()
            return self._pictures.popleft()

    def get_at(self, pts_ms: int, timeout: Optional[float]) -> Picture:
        """That of a time, as soon as it is the newest. Raises TimeoutError."""
        with self._changed:
            if self._changed.wait_for(lambda: self._closed or self._is_newest(pts_ms), timeout) and self._pictures:
                return self._pictures[-1]
            raise Closed("the player was closed") if self._closed else TimeoutError(f"no picture within {timeout} s")

    def keep_newest(self, only_newest: bool) -> None:
        """Empties it; then it keeps the newest picture alone, and no thread waits, or it keeps all again."""
        with self._changed:
            self._only_newest = only_newest
            self._pictures.clear()
            self._closed = False
            self._changed.notify_all()

    def close(self) -> None:
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def _has_room(self) -> bool:
        return not self._size or len(self._pictures) < self._size

    def _is_newest(self, pts_ms: int) -> bool:
        return bool(self._pictures) and self._pictures[-1].pts_ms == pts_ms


class BoxSink(FrameSink):
    """Fills a mailbox, and closes it when the playback has shown its last picture."""

    def __init__(self, shelf: SinkShelf, box: Mailbox) -> None:
        super().__init__(shelf, box.put, False, _ignore)
        self._box = box

    def _on_repaint(self) -> None:
        # The last picture may be shown a moment behind the end, but not with a repaint in between.
        since = self._shelf.completed_at
        if since is not None and time.monotonic() - since > max(_LAST_PICTURE_S, 2 / max(self._fps, 1)):
            self._box.close()


class Frames(Iterator[Picture]):
    """Pictures as they are shown, each once, as copies that may be kept; from ``Player.frames``.

    A host that takes longer than the film loses the oldest, which ``lost`` counts. It ends with the playback, and with
    the player.
    """

    def __init__(self, shelf: SinkShelf, size: int, timeout: Optional[float]) -> None:
        self._box = Mailbox(size)
        self._timeout = timeout
        self._sink = BoxSink(shelf, self._box)
        shelf.add_box(self._box)
        shelf.add(self._sink)

    @property
    def lost(self) -> int:
        """How many were left out, as the host took longer."""
        return self._box.lost

    def __next__(self) -> Picture:
        picture = self._box.get(self._timeout)
        if picture is None:
            raise StopIteration
        return picture

    def close(self) -> None:
        """No more come. Not from the callback of a sink or a clock."""
        refuse_when_pinned("close")
        self._sink.remove()
        self._box.close()
