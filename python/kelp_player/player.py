"""The player."""

from __future__ import annotations

import ctypes
import threading
import time
from typing import Any, Callable, Dict, List, Optional, Set, Tuple, Type, TypeVar, Union, overload

from ._board import Board, Events
from ._lifetime import Closable, Native, callback, logger, refuse_when_pinned, register
from ._native import (
    Text,
    encoded,
    event_1_type,
    event_2_type,
    event_3_type,
    event_type,
    kelp_player_events,
    kelp_statistics,
    lib,
    utf8,
)
from ._worker_call import WorkerCall
from .clock import Clock, HostClock
from .errors import FailureKind, check
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
from .packets import PacketOutlet, PacketSink
from .pictures import Picture
from .recorder import Recorder
from .sinks import Frames, FrameSink, SinkShelf
from .statistics import Statistics, read_statistics
from .subtitles import SubtitleOutlet, Subtitles
from .tracks import Track, TrackKind, read_tracks

E = TypeVar("E", bound=Event)
R = TypeVar("R")

_FILM_END = 2**31 - 1


class Player(Closable):
    """Plays one source, a file or a URL, into windows, sinks and iterators of pictures, and onto the sound device.

    ::

        with Player("film.mp4", preset="recommended") as player:
            player.add_window(window_id, 1280, 720)
            player.play()
            player.wait()

    Any thread may call anything, but for what the callbacks of sinks and clocks may, see their classes. Callbacks come on
    threads of the player; an exception in one is logged, to the logger "kelp_player", and the playback goes on. A player
    that is dropped is ended by a thread of this package, and those that there are when the interpreter ends are ended
    before.

    All times are milliseconds on the host's clock, which is the stream's own unless an offset is given.
    """

    _last_error = lib.kelp_player_last_error

    def __init__(self, source: Optional[Text] = None, **options: object) -> None:
        """Opens ``source``, if there is one. The keywords are options, as ``set_option`` takes them.

        A new program should ask for ``preset="recommended"``. Raises Refused where there is no screen or sound system
        that SDL can use: SDL_VIDEODRIVER=dummy and SDL_AUDIODRIVER=dummy in the environment do without.
        """
        self._board = Board()
        self._listeners: Dict[Type[Event], List[Callable[[Any], Any]]] = {}
        self._state = threading.Lock()
        self._wanted = False  # to play as soon as it is prepared; guarded by _state, like the next two
        self._prepared = False
        self._stopped = False
        self._has_source = False
        self._calls: Dict[int, WorkerCall] = {}
        self._frame_sinks: Set[FrameSink] = set()
        self._packet_outlet: Optional[PacketOutlet] = None
        self._subtitle_outlet: Optional[SubtitleOutlet] = None
        self._follows: object = None  # the clock and the recorder, which stay as long as they are used
        self._records: object = None
        self._number = register(self)
        raw = kelp_player_events(
            user=self._number,
            on_video_size=Player._on_video_size,
            on_prepared=Player._on_prepared,
            on_started=Player._on_started,
            on_failed=Player._on_failed,
            on_first_video_frame=Player._on_first_video_frame,
            on_first_audio_frame=Player._on_first_audio_frame,
            on_completed=Player._on_completed,
            on_duration_updated=Player._on_duration_updated,
            on_stalled=Player._on_stalled,
            on_buffering=Player._on_buffering,
            on_stall_ended=Player._on_stall_ended,
        )
        self._native = Native(self, check(lib.kelp_player_create(ctypes.byref(raw))), lib.kelp_player_destroy)
        self._native.wakes.append(self._board.close)
        self._sinks = SinkShelf(self._native)
        for key in sorted(options, key=lambda name: name != "preset"):
            self.set_option(key, options[key])
        if source is not None:
            self.open(source)

    def _call(self, function: Any, *arguments: Any) -> Any:
        refuse_when_pinned(function.__name__)
        return check(self._native.call(function, *arguments))

    # ---- Playback ----

    def open(self, source: Text, offset_ms: int = 0) -> None:
        """Opens a source, a path or URL, in place of the one before; ``Prepared`` or ``Failed`` comes.

        ``offset_ms`` is where the stream's zero lies on the host's clock. Below 0 the stream starts at that much after
        its beginning.
        """
        if self._has_source:
            self.stop()
            self._call(lib.kelp_player_reset)
        self._has_source = True
        self._begin(stopped=False)
        self._call(lib.kelp_player_set_data_source, encoded(source), offset_ms)
        self._call(lib.kelp_player_prepare_async)

    def play(self) -> None:
        """Plays as soon as the source is open; opens it again behind ``stop``. Returns at once.

        That it can't be played comes as ``Failed``, and from ``wait``.
        """
        with self._state:
            now, again = self._prepared, self._stopped
            self._wanted = not now
        if now:
            self._call(lib.kelp_player_start)
        elif again:
            self._begin(stopped=False)
            self._call(lib.kelp_player_prepare_async)
        else:
            self._native.require()

    def _begin(self, stopped: bool) -> None:
        with self._state:
            self._stopped = stopped
        self._board.forget()
        self._sinks.begin()

    def pause(self) -> None:
        """Halts playback. Out of playback it is kept for the next start that was asked for too early."""
        self._call(lib.kelp_player_pause)

    def resume(self) -> None:
        """Lets playback go on, or takes such a request back."""
        self._call(lib.kelp_player_resume)

    def seek(self, time_ms: int) -> None:
        """Goes to a time, in playback, halted or behind the end. Raises Refused where the source can't.

        It is done with the next ``FirstVideoFrame``, or ``FirstAudioFrame`` where there are no pictures, for which
        ``wait_for`` waits.
        """
        refuse_when_pinned("seek")
        self._board.forget(FirstVideoFrame, FirstAudioFrame, Completed)
        self._sinks.begin()
        self._call(lib.kelp_player_seek, int(time_ms))

    def step_frame(self, pictures: int = 1) -> None:
        """While paused, shows the picture so many behind the one that is shown, or before it if negative.

        It comes by itself, soon, and has no events. Raises Refused where nothing that has pictures is paused, and for a
        step back in a source that can't seek.
        """
        self._call(lib.kelp_player_step_frame, pictures)

    def set_loop(self, start_ms: int = 0, end_ms: Optional[int] = None) -> None:
        """Plays from ``start_ms`` to right before ``end_ms`` again and again, by default all of the film.

        At any time, and for the playbacks to come; there is no ``on_completed`` while it is on. Raises Refused where
        the end isn't behind the start, and where the source is live or can't seek, as far as it is known by then.
        """
        self._call(lib.kelp_player_set_loop, int(start_ms), _FILM_END if end_ms is None else int(end_ms))

    def clear_loop(self) -> None:
        """Ends that: plays on to the film's end."""
        self._call(lib.kelp_player_clear_loop)

    def stop(self) -> bool:
        """Ends playback, or the opening of the source, and waits for the player's threads. ``play`` begins anew.

        False without a source.
        """
        refuse_when_pinned("stop")
        with self._state:
            self._wanted = self._prepared = False
        self._sinks.wake()
        stopped = bool(self._native.call(lib.kelp_player_stop))
        if stopped:
            with self._state:
                self._stopped = True
            self._sinks.forget_removed()
        return stopped

    @property
    def position_ms(self) -> int:
        """Of the picture that is shown, or of the sound where there are no pictures; stopped, the offset.

        0 without a source, while it is being opened, and when it has failed.
        """
        refuse_when_pinned("position_ms")
        return int(self._native.call(lib.kelp_player_get_current_time))

    @property
    def duration_ms(self) -> int:
        """Ten hours for a source that states none; else as ``position_ms``."""
        refuse_when_pinned("duration_ms")
        return int(self._native.call(lib.kelp_player_get_duration))

    def get_info(self, info: Info) -> int:
        """One fact of the source; 0 for what isn't known, the offset for such a duration."""
        refuse_when_pinned("get_info")
        return int(self._native.call(lib.kelp_player_get_info, info))

    @property
    def ended(self) -> Union[Completed, Failed, None]:
        """How it has ended: played to the end, with no seek since, or failed; None while neither is so."""
        return self._board.get(Failed) or self._board.get(Completed)

    def set_volume(self, volume: float) -> None:
        """A linear factor, 1.0 again after each start.

        Raises Refused out of playback, without sound, and before its first moment, which takes the value all the same.
        """
        self._call(lib.kelp_player_set_volume, volume)

    def set_speed(self, speed: float) -> None:
        """How fast the sound is played, above 0; the pitch stays. Pictures follow with the option ``timing``."""
        self._call(lib.kelp_player_set_speed, speed)

    @property
    def muted(self) -> bool:
        """Silence while the volume stays what it is; at any time, and for the playbacks to come."""
        return bool(self._native.call(lib.kelp_player_is_muted))

    @muted.setter
    def muted(self, muted: bool) -> None:
        self._call(lib.kelp_player_set_mute, muted)

    def set_option(self, key: str, value: object) -> None:
        """Sets an option, see docs/options.md. A value that isn't one is a line in the log and changes nothing."""
        self._call(lib.kelp_player_set_option, utf8(key), utf8(value))

    def set_sync_master(self, master: SyncMaster) -> None:
        """Whose clock the streams follow."""
        self._call(lib.kelp_player_set_sync_master, master)

    def enable_hw_decoder(self, enable: bool, mode: HwDecode = HwDecode.ALL) -> None:
        """Whether hardware decoders are tried, and of which kinds; from the next start on. On at first."""
        self._call(lib.kelp_player_enable_hw_decoder, enable, mode)

    # ---- Events ----

    @overload
    def on(self, kind: Type[E]) -> Callable[[Callable[[E], R]], Callable[[E], R]]: ...

    @overload
    def on(self, kind: Type[E], function: Callable[[E], R]) -> Callable[[E], R]: ...

    def on(self, kind: Type[E], function: Optional[Callable[[E], R]] = None) -> Any:
        """Has ``function`` called for each event of ``kind``, or for every one with ``Event``; also as a decorator.

        ::

            @player.on(Failed)
            def failed(event: Failed) -> None: ...

        It comes on the player's worker, one at a time and in order, and may call anything.
        """
        if function is None:
            return lambda decorated: self.on(kind, decorated)
        self._listeners.setdefault(kind, []).append(function)
        return function

    def events(self, timeout: Optional[float] = None) -> Events:
        """An iterator of the events to come, which ends with the player.

        It raises TimeoutError where none comes for ``timeout`` seconds.
        """
        return self._board.queue(timeout)

    def wait_for(self, kind: Type[E], timeout: Optional[float] = None) -> E:
        """Waits for an event of ``kind``, which may have come already since ``open``, or since the last ``seek``.

        Raises PlaybackFailed, Closed, or TimeoutError after so many seconds. Not from a callback.
        """
        return self._board.wait_for(kind, timeout)

    def wait(self, timeout: Optional[float] = None) -> None:
        """Waits until the source has been played to its end; otherwise as ``wait_for``."""
        self.wait_for(Completed, timeout)

    def _tell(self, event: Event) -> None:
        self._board.post(event)
        for kind in (type(event), Event):
            for function in tuple(self._listeners.get(kind, ())):
                try:
                    function(event)
                except BaseException:
                    logger.exception("exception in a callback for %s", event)

    @callback(event_3_type)
    def _on_video_size(self, _: int, width: int, height: int, rotation: int) -> None:
        self._tell(VideoSizeUpdated(width, height, rotation))

    @callback(event_2_type)
    def _on_prepared(self, _: int, has_video: int, has_audio: int) -> None:
        with self._state:
            self._prepared = not self._stopped
            start, self._wanted = self._wanted and self._prepared, False
        refused = start and not self._native.call(lib.kelp_player_start)
        self._tell(Prepared(bool(has_video), bool(has_audio)))
        if refused:
            with self._state:
                refused = self._prepared
            if refused:  # not by a stop that has come meanwhile
                self._tell(Failed(FailureKind.START, self.last_error))

    @callback(event_type)
    def _on_started(self, _: int) -> None:
        self._tell(Started())

    @callback(event_1_type)
    def _on_failed(self, _: int, kind: int) -> None:
        self._tell(Failed(FailureKind(kind), self.last_error))

    @callback(event_1_type)
    def _on_first_video_frame(self, _: int, pts_ms: int) -> None:
        self._tell(FirstVideoFrame(pts_ms))

    @callback(event_1_type)
    def _on_first_audio_frame(self, _: int, pts_ms: int) -> None:
        self._tell(FirstAudioFrame(pts_ms))

    @callback(event_type)
    def _on_completed(self, _: int) -> None:
        self._sinks.completed_at = time.monotonic()
        self._tell(Completed())

    @callback(event_1_type)
    def _on_duration_updated(self, _: int, duration_ms: int) -> None:
        self._tell(DurationUpdated(duration_ms))

    @callback(event_type)
    def _on_stalled(self, _: int) -> None:
        self._tell(Stalled())

    @callback(event_2_type)
    def _on_buffering(self, _: int, waiting_ms: int, percent: int) -> None:
        self._tell(Buffering(waiting_ms, percent))

    @callback(event_type)
    def _on_stall_ended(self, _: int) -> None:
        self._tell(StallEnded())

    # ---- Pictures ----

    def add_window(self, handle: int, width: int, height: int, kind: WindowType = WindowType.NATIVE) -> None:
        """Shows the pictures in a window too. It stays the host's, and is to live until the player was stopped.

        A second call for a window tells its new size in pixels.
        """
        self._call(lib.kelp_player_add_window, handle, kind, width, height)

    def remove_window(self, handle: int) -> None:
        """Takes a window away, which the player lets go of right before the next drawing."""
        self._call(lib.kelp_player_remove_window, handle)

    def pause_window(self, handle: int, pause: bool = True) -> None:
        """The window keeps its picture meanwhile; for the running playback only."""
        self._call(lib.kelp_player_pause_window, handle, pause)

    def add_frame_sink(self, function: Callable[[Picture], Any], repaints: bool = False) -> FrameSink:
        """Calls ``function`` with each picture, in the player's memory, on the player's video thread.

        See :class:`FrameSink` for what it may do. The same picture comes again, each time that it is painted, if
        ``repaints`` says so.
        """
        refuse_when_pinned("add_frame_sink")
        sink = FrameSink(self._sinks, function, repaints, self._frame_sinks.discard)
        self._frame_sinks.add(sink)
        self._sinks.add(sink)
        return sink

    def frames(self, size: int = 8, timeout: Optional[float] = None) -> Frames:
        """An iterator of the pictures to come, as they are shown, each a copy that may be kept.

        At most ``size`` wait for the host, 0 for no limit; then the oldest go. It ends with the playback, and raises
        TimeoutError where no picture comes for ``timeout`` seconds.
        """
        refuse_when_pinned("frames")
        return Frames(self._sinks, size, timeout)

    # ---- Tracks, statistics ----

    @property
    def tracks(self) -> List[Track]:
        """All tracks of the source, also those that can't be played; none while nothing is prepared."""
        return read_tracks(check(self._native.call(lib.kelp_player_get_tracks)))

    def select_track(self, kind: TrackKind, number: int) -> None:
        """Plays another video or sound in place of the one that is played, without a new load, or shows subtitles.

        Of these -1 is none. Raises Refused out of playback, and for a track that there isn't or that can't be played.
        """
        self._call(lib.kelp_player_select_track, kind, number)

    @property
    def statistics(self) -> Statistics:
        """How the playback goes; from any thread at any time."""
        raw = kelp_statistics()
        check(self._native.call(lib.kelp_player_get_statistics, ctypes.byref(raw)))
        return read_statistics(raw)

    def take_snapshot(self, path: Text) -> None:
        """Writes the picture that is shown into a PNG file; from any thread at any time, and from a sink.

        Raises Refused where none has been shown since the start, and if the file can't be written.
        """
        check(self._native.call(lib.kelp_player_take_snapshot, encoded(path)))

    # ---- Packets, clocks ----

    def set_packet_sink(self, sink: Optional[PacketSink]) -> None:
        """Gives the packets of what is played, as they are read, to ``sink``; or with None to nobody. At any time.

        When this has returned, the one before isn't called any more.
        """
        outlet = PacketOutlet(sink, self._native) if sink is not None else None
        self._native.use("packets", lib.kelp_player_set_packet_sink, None, outlet.handle if outlet else None)
        self._packet_outlet, self._records = outlet, None

    def set_recorder(self, recorder: Optional[Recorder]) -> None:
        """Gives the packets of what is played to a recorder, in place of a packet sink; or with None to nobody."""
        if recorder is None:
            self._native.use("packets", lib.kelp_player_set_packet_sink, None, None)
        else:
            used = recorder._native

            def hand_over(handle: int) -> None:
                sink = check(lib.kelp_recorder_get_sink(handle))
                self._native.use("packets", lib.kelp_player_set_packet_sink, used, sink)

            used.call(hand_over)
        self._packet_outlet, self._records = None, recorder

    def set_subtitle_sink(
        self, function: Optional[Callable[[Subtitles], Any]], picture_size: Tuple[int, int] = (0, 0)
    ) -> None:
        """Has ``function`` called with all that is to be seen whenever it changes; None for nobody. At any time.

        It comes on the player's subtitle thread, and pictures come with it where ``picture_size`` says how large the
        screen is. Windows draw subtitles in any case. From there ``tracks``, ``statistics``, ``take_snapshot``,
        ``run_in_worker``, ``add_timer``, ``remove_timer`` and ``set_subtitle_sink`` alone may be called.
        """
        outlet = SubtitleOutlet(function, picture_size, self._native) if function is not None else None
        self._native.use("subtitles", lib.kelp_player_set_subtitle_sink, None, outlet.handle if outlet else None)
        self._subtitle_outlet = outlet

    def set_clock(self, clock: Union[Clock, HostClock, None]) -> None:
        """Follows a clock with ``SyncMaster.CLOCK``; with None the player's own.

        When this has returned, the one before isn't read any more.
        """
        refuse_when_pinned("set_clock")
        if clock is None:
            self._native.use("clock", lib.kelp_player_set_clock, None, None)
        else:
            used = clock._native
            used.call(lambda handle: self._native.use("clock", lib.kelp_player_set_clock, used, handle))
        self._follows = clock

    def set_offset(self, offset_ms: int) -> None:
        """Changes the offset of ``open`` during playback, and seeks to where the clock is on the stream.

        Raises Refused if no clock is set.
        """
        self._call(lib.kelp_player_set_offset, offset_ms)

    # ---- The worker ----

    def run_in_worker(self, function: Callable[[], Any]) -> None:
        """Calls ``function`` on the thread of the events, behind those that are queued; ``close`` waits for it.

        From any callback: it is the way to call what isn't allowed there.
        """
        call = WorkerCall(self._calls, function)
        check(self._native.call(lib.kelp_player_run_in_worker, WorkerCall.on_call, call.number, WorkerCall.on_gone))

    def add_timer(self, interval_ms: int, function: Callable[[], Any], one_shot: bool = False) -> int:
        """Calls ``function`` on the thread of the events after so many milliseconds, 1 or more, and again and again.

        Returns the timer's number, for ``remove_timer``.
        """
        call = WorkerCall(self._calls, function)
        arguments = (interval_ms, one_shot, WorkerCall.on_call, call.number, WorkerCall.on_gone)
        return int(check(self._native.call(lib.kelp_player_add_timer, *arguments)))

    def remove_timer(self, timer: int) -> None:
        """Cancels a timer. A call of it that is queued already still comes."""
        check(self._native.call(lib.kelp_player_remove_timer, timer))
