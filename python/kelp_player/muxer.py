"""Writing encoded video."""

from __future__ import annotations

import ctypes
import enum
from types import TracebackType
from typing import Optional, Type, Union

from ._lifetime import Closable, Native
from ._native import Text, encoded, kelp_muxer_video, lib, utf8
from .errors import check


class VideoCodec(enum.IntEnum):
    """Video codecs that a muxer writes."""

    MSMPEG4V1 = 0
    MSMPEG4V2 = 1
    MSMPEG4V3 = 2
    H264 = 3
    HEVC = 4
    MPEG4 = 5
    MJPEG = 6


class PixFormat(enum.IntEnum):
    """Layout of an encoded picture."""

    YUV420P = 0
    YUYV422 = 1
    YUV422P = 2
    YUV420P10 = 3


class StreamMuxer(Closable):
    """Writes one encoded video stream to an RTSP or RTP destination or into an MP4 file. There is no sound.

    It has no thread and no lock: one call at a time, which does its work, network included, before it returns.
    ``with`` closes it, and ends the output before where nothing was raised.
    """

    _last_error = lib.kelp_muxer_last_error

    def __init__(self) -> None:
        self._native = Native(self, check(lib.kelp_muxer_create()), lib.kelp_muxer_destroy)

    def set_option(self, key: str, value: object) -> None:
        """An option of FFmpeg's muxers. For RTSP "timeout", in microseconds, should be set."""
        check(self._native.call(lib.kelp_muxer_set_option, utf8(key), utf8(value)))

    def open(
        self,
        path: Text,
        codec: VideoCodec,
        width: int,
        height: int,
        pix_format: PixFormat = PixFormat.YUV420P,
        time_base: int = 90000,
    ) -> None:
        """Opens ``path``, which begins with "rtsp://" or "rtp://" or holds ".mp4", and writes the header.

        ``time_base`` is in ticks per second: 90000 for RTSP and RTP, 10000 or more for MP4.
        """
        video = kelp_muxer_video(codec=codec, width=width, height=height, pix_format=pix_format)
        check(self._native.call(lib.kelp_muxer_open, encoded(path), ctypes.byref(video), time_base))

    def output_frame(self, data: Union[bytes, bytearray, memoryview], pts_us: int, is_key_frame: bool) -> None:
        """Writes one frame at a time in microseconds, which increases from frame to frame.

        H.264 and HEVC come with start codes, and the first frame is a key frame with its parameter sets in front.
        """
        frame = bytes(data)
        check(self._native.call(lib.kelp_muxer_output_frame, frame, len(frame), pts_us, is_key_frame))

    def stop(self) -> None:
        """Writes the end of the output, without which an MP4 file can't be played."""
        check(self._native.call(lib.kelp_muxer_stop))

    def close_output(self) -> None:
        """Closes the output. Another one may be opened then."""
        check(self._native.call(lib.kelp_muxer_close))

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        if kind is None and not self._native.closed:
            self.stop()
        self.close()
