"""Pictures of a file, in order or by time, for those who compute with them."""

from __future__ import annotations

from types import TracebackType
from typing import Any, Dict, Iterator, Optional, Type

from ._native import Text
from .errors import FailureKind, PlaybackFailed
from .events import FirstVideoFrame, Prepared
from .kinds import SyncMaster
from .pictures import Picture
from .player import Player
from .sinks import BoxSink, Mailbox

_WAITING = 4  # pictures
_SPEED = 4.0


class FrameReader(Iterator[Picture]):
    """Reads the pictures of a file without sound: each once and none left out, however long the host takes for one.

    ::

        with FrameReader("film.mp4") as film:
            first = next(film)
            middle = film.seek(film.duration_ms // 2)  # the picture that is on at that time
            for picture in film:                        # those behind it
                luma = numpy.asarray(picture.planes[0])

    Pictures come as copies that may be kept, at up to four times the film's own pace. All is for one thread at a time.
    It decodes in software, as every machine does alike.
    """

    def __init__(self, source: Text, timeout: Optional[float] = 60, **options: object) -> None:
        """Opens ``source`` with options as a :class:`Player` has them, the recommended ones unless others are asked for.

        Nothing is waited for longer than ``timeout`` seconds, behind which TimeoutError is raised, by the rest as well.
        Raises PlaybackFailed where there are no pictures, or the source can't be opened or read.
        """
        self._timeout = timeout
        self._halted = False
        self._box = Mailbox(_WAITING, wait=True)
        wanted: Dict[str, Any] = {"preset": "recommended", "audio_track": "none", **options}
        self._player = Player(**wanted)
        try:
            self._player.enable_hw_decoder(False)
            self._player.set_sync_master(SyncMaster.VIDEO)  # which waits for nobody, so that no picture is late
            self._player.set_speed(_SPEED)
            shelf = self._player._sinks
            shelf.add_box(self._box)
            self._sink = BoxSink(shelf, self._box)
            shelf.add(self._sink)
            self._player.open(source)
            if not self._player.wait_for(Prepared, timeout).has_video:
                raise PlaybackFailed(FailureKind.START, "there are no pictures")
            self._player.play()
            self._player.wait_for(FirstVideoFrame, timeout)  # so that no seek takes it for its own
        except BaseException:
            self._player.close()
            raise

    @property
    def player(self) -> Player:
        """What reads, for its tracks and statistics."""
        return self._player

    @property
    def duration_ms(self) -> int:
        """Of the film; ten hours where it states none."""
        return self._player.duration_ms

    def seek(self, time_ms: int) -> Picture:
        """The picture that is on at ``time_ms``; behind the end the last one. Reading goes on behind it.

        Raises Refused where the source can't seek.
        """
        if self._player.ended:  # a seek plays again: that it stands is to be asked for behind
            self._player.seek(time_ms)
            self._box.keep_newest(True)  # or the last picture may wait for room, and the first one behind it
            self._player.wait_for(FirstVideoFrame, self._timeout)
        self._box.keep_newest(True)
        self._player.pause()
        self._halted = True
        self._player.seek(time_ms)
        first = self._player.wait_for(FirstVideoFrame, self._timeout)
        return self._box.get_at(first.pts_ms, self._timeout)

    def __next__(self) -> Picture:
        if self._halted:
            self._box.keep_newest(False)
            self._player.resume()
            self._halted = False
        picture = self._box.get(self._timeout)
        if picture is None:
            raise StopIteration
        return picture

    def close(self) -> None:
        """Ends it. A second call does nothing."""
        self._player.close()

    def __enter__(self) -> FrameReader:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()
