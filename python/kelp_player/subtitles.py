"""Subtitles, for a host that shows them itself."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Any, Callable, Optional, Tuple

from ._lifetime import Native, callback, register
from ._native import decoded, kelp_subtitle_sink_calls, lib, memory, picture_size_type, subtitles_type
from .errors import check


@dataclass(frozen=True)
class SubtitleLine:
    """One subtitle of text."""

    start_ms: int  #: on the stream's own time line
    end_ms: Optional[int]  #: the first moment at which it is gone; None where only the next one tells
    text: str  #: to be read, with line feeds between its lines
    styled: str  #: the same with its styles: a line of a script of ASS


@dataclass(frozen=True)
class SubtitlePicture:
    """A drawn part of what is to be seen."""

    x: int  #: where it goes, on a screen of the size that was asked for, in pixels
    y: int  #: likewise
    width: int  #: likewise
    height: int  #: likewise
    pixel_width: int  #: its own size, to be scaled if it is another one
    pixel_height: int  #: likewise
    pixels: bytes  #: rows without gaps, four bytes each: red, green, blue, and how much they cover


@dataclass(frozen=True)
class Subtitles:
    """All that is to be seen at a moment; nothing where all has gone. A plain value, which may be kept."""

    time_ms: int  #: of the film's picture that it goes with
    lines: Tuple[SubtitleLine, ...]  #: by their start; empty for subtitles that are pictures
    script: str  #: the head that the styled lines belong to
    pictures: Tuple[SubtitlePicture, ...]  #: the first one lowest; empty unless they are wanted


class SubtitleOutlet:
    """A subtitle sink of the library's that calls a function of the host's."""

    def __init__(self, function: Callable[[Subtitles], Any], picture_size: Tuple[int, int], player: Native) -> None:
        self._function = function
        self._picture_size = picture_size
        self.number = register(self)
        calls = kelp_subtitle_sink_calls(
            user=self.number,
            on_subtitles=SubtitleOutlet._on_subtitles,
            get_picture_size=SubtitleOutlet._get_picture_size,
        )
        handle = check(lib.kelp_subtitle_sink_create(ctypes.byref(calls)))
        self.handle = handle
        player.behind.append(lambda: lib.kelp_subtitle_sink_destroy(handle))  # only then nobody may be in it

    @callback(subtitles_type, pinned=True)
    def _on_subtitles(self, raw: Any) -> None:
        shown = raw.contents
        lines = (shown.lines[index].contents for index in range(shown.line_count))
        pictures = (shown.pictures[index].contents for index in range(shown.picture_count))
        self._function(
            Subtitles(
                shown.time_ms,
                tuple(
                    SubtitleLine(
                        line.start_ms, line.end_ms if line.end_ms >= 0 else None, decoded(line.text), decoded(line.styled)
                    )
                    for line in lines
                ),
                decoded(shown.script),
                tuple(
                    SubtitlePicture(
                        part.x,
                        part.y,
                        part.width,
                        part.height,
                        part.pixel_width,
                        part.pixel_height,
                        bytes(memory(part.pixels, part.pixel_width * part.pixel_height * 4)),
                    )
                    for part in pictures
                ),
            )
        )

    @callback(picture_size_type, pinned=True)
    def _get_picture_size(self, width: Any, height: Any) -> None:
        width[0], height[0] = self._picture_size
