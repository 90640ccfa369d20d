"""Packets as they are read, before they are decoded."""

from __future__ import annotations

import contextlib
import ctypes
import threading
from dataclasses import dataclass
from fractions import Fraction
from typing import TYPE_CHECKING, Any, Iterator, List, Optional, Tuple

from ._lifetime import Native, callback, register
from ._native import call_type, decoded, kelp_packet_sink_calls, lib, memory, packet_type, streams_type
from .errors import check
from .tracks import TrackKind

if TYPE_CHECKING:
    from .recorder import Recorder

_NO_TIME = -(2**63)


@dataclass(frozen=True)
class PacketStream:
    """A stream whose packets a sink gets. A plain value, which may be kept."""

    track: int  #: its number, by which packets name it
    kind: TrackKind
    codec: str  #: FFmpeg's short name, such as "h264"
    time_base: Fraction  #: the seconds that its times count in
    width: int  #: of a video, before it is turned, in pixels
    height: int  #: likewise
    frame_rate: float  #: pictures per second, as the source states them; 0 where it doesn't
    sample_rate: int  #: of the sound, in Hz
    channels: int  #: of the sound
    configuration: bytes  #: what the decoder needs beside the packets


class Packet:
    """One packet. ``data`` is a memoryview on the reader's own memory and valid **during the call only**."""

    __slots__ = ("track", "kind", "pts", "dts", "duration", "is_key_frame", "_raw")

    def __init__(self, raw: Any) -> None:
        packet = raw.contents
        self.track: int = packet.track  #: of which stream
        self.kind = TrackKind(packet.kind)
        #: When it is shown, in the stream's units and on the source's own time line; None if that isn't stated.
        self.pts: Optional[int] = packet.pts if packet.pts != _NO_TIME else None
        self.dts: Optional[int] = packet.dts if packet.dts != _NO_TIME else None  #: when it is decoded, likewise
        self.duration: int = packet.duration  #: likewise; 0 if it isn't known
        self.is_key_frame = bool(packet.is_key_frame)  #: decoding can begin with it
        self._raw = raw

    @property
    def data(self) -> memoryview:
        """The bytes: H.264 and HEVC with start codes or with lengths, as the source has them."""
        if self._raw is None:
            raise ValueError("this packet was valid during its callback only; bytes(packet.data) keeps its bytes")
        packet = self._raw.contents
        return memoryview(memory(packet.data, packet.data_size)).cast("B").toreadonly()


class PacketSink:
    """Takes packets from a player: derive from it, and hand an object to ``Player.set_packet_sink``.

    ``on_streams`` comes first, then the packets in the order in which they are read. All come on the thread that reads,
    one at a time, and nothing is read meanwhile. Of the player ``tracks``, ``statistics``, ``take_snapshot``,
    ``set_packet_sink``, ``run_in_worker``, ``add_timer`` and ``remove_timer`` alone may be called.
    """

    def on_streams(self, streams: List[PacketStream]) -> None:
        """The streams of the packets to come; before the first one, and whenever they are others."""

    def on_packet(self, packet: Packet) -> None:
        """The next packet."""

    def on_gap(self) -> None:
        """What comes next doesn't go on from what came last: a seek, the next turn of a loop, or the end of a live
        source's pause."""

    def on_end(self) -> None:
        """No packet comes behind this, unless ``on_streams`` does."""

    def pass_on(self, recorder: Recorder) -> None:
        """In a call of one of these: hands what it is about on to a recorder. For one thread at a time."""
        function, arguments = _now.call
        if function is None:
            raise ValueError("there is nothing to pass on but in a call of a packet sink")

        def put(recorder_handle: int) -> None:
            sink = lib.kelp_recorder_get_sink(recorder_handle)
            check(function(sink, *arguments), lib.kelp_packet_sink_last_error, sink)

        recorder._native.call(put)


class _Now(threading.local):
    call: Tuple[Any, Tuple[Any, ...]] = (None, ())  # what would pass on what this thread's call is about


_now = _Now()


@contextlib.contextmanager
def _passing(function: Any, *arguments: Any) -> Iterator[None]:
    _now.call = (function, arguments)
    try:
        yield
    finally:
        _now.call = (None, ())


class PacketOutlet:
    """A packet sink of the library's that calls one of the host's."""

    def __init__(self, sink: PacketSink, player: Native) -> None:
        self._sink = sink
        self.number = register(self)
        calls = kelp_packet_sink_calls(
            user=self.number,
            on_streams=PacketOutlet._on_streams,
            on_packet=PacketOutlet._on_packet,
            on_gap=PacketOutlet._on_gap,
            on_end=PacketOutlet._on_end,
        )
        handle = check(lib.kelp_packet_sink_create(ctypes.byref(calls)))
        self.handle = handle
        player.behind.append(lambda: lib.kelp_packet_sink_destroy(handle))  # only then nobody may be in it

    @callback(streams_type, pinned=True)
    def _on_streams(self, raw: Any, count: int) -> None:
        streams = [raw[index].contents for index in range(count)]
        with _passing(lib.kelp_packet_sink_put_streams, raw, count):
            self._sink.on_streams(
                [
                    PacketStream(
                        stream.track,
                        TrackKind(stream.kind),
                        decoded(stream.codec),
                        Fraction(stream.time_base_num, stream.time_base_den),
                        stream.width,
                        stream.height,
                        stream.frame_rate,
                        stream.sample_rate,
                        stream.channels,
                        bytes(memory(stream.configuration, stream.configuration_size)),
                    )
                    for stream in streams
                ]
            )

    @callback(packet_type, pinned=True)
    def _on_packet(self, raw: Any) -> None:
        packet = Packet(raw)
        try:
            with _passing(lib.kelp_packet_sink_put_packet, raw):
                self._sink.on_packet(packet)
        finally:
            packet._raw = None

    @callback(call_type, pinned=True)
    def _on_gap(self) -> None:
        with _passing(lib.kelp_packet_sink_put_gap):
            self._sink.on_gap()

    @callback(call_type, pinned=True)
    def _on_end(self) -> None:
        with _passing(lib.kelp_packet_sink_put_end):
            self._sink.on_end()
