"""Pictures and their planes: the player's own memory, or a copy that stays."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Tuple

if TYPE_CHECKING:
    import numpy


class Plane:
    """One plane of a picture: ``height`` rows of ``width`` samples of 8 bits, ``stride`` bytes from row to row.

    ``numpy.asarray(plane)`` is an array of ``height`` by ``width`` on the same memory, and ``buffer`` a flat memoryview
    of all of it. Both can be written to in a copy only.
    """

    __slots__ = ("width", "height", "stride", "_memory", "__weakref__")

    def __init__(self, memory: Any, width: int, height: int, stride: int) -> None:
        self.width = width
        self.height = height
        self.stride = stride
        self._memory = memory

    @property
    def buffer(self) -> memoryview:
        """The bytes, rows with what is behind them up to ``stride``, but for the last one."""
        if self._memory is None:
            raise ValueError("this picture was valid during its callback only; copy() keeps one")
        view = memoryview(self._memory).cast("B")
        return view if isinstance(self._memory, bytearray) else view.toreadonly()

    def tobytes(self) -> bytes:
        """The samples alone, row by row."""
        buffer = self.buffer
        if self.stride == self.width:
            return buffer.tobytes()
        starts = range(0, self.height * self.stride, self.stride)
        return b"".join(buffer[start : start + self.width] for start in starts)

    def __array__(self, dtype: Any = None, copy: Any = None) -> numpy.ndarray[Any, Any]:
        import numpy

        array: numpy.ndarray[Any, Any] = numpy.ndarray(
            (self.height, self.width), numpy.uint8, self.buffer, 0, (self.stride, 1)
        )
        return array.astype(dtype) if copy or dtype not in (None, numpy.uint8) else array

    def _copied(self) -> Plane:
        return Plane(bytearray(self.buffer), self.width, self.height, self.stride)


class Picture:
    """One picture: planes Y, U and V, the latter two of half the width and height, rounded down.

    One that comes with a callback lies in the player's memory, can't be written to, and is **valid during the call
    only**: keep ``copy()``. One from an iterator is a copy already.
    """

    __slots__ = ("pts_ms", "width", "height", "fps", "rotation", "planes", "packet", "tag")

    def __init__(
        self,
        pts_ms: int,
        width: int,
        height: int,
        fps: int,
        rotation: int,
        planes: Tuple[Plane, ...],
        packet: bytes | None = None,
        tag: int = 0,
    ) -> None:
        self.pts_ms = pts_ms  #: its time on the stream's time line, in milliseconds
        self.width = width  #: in pixels, before it is turned
        self.height = height  #: likewise
        self.fps = fps  #: the stream's whole pictures per second, 30 where that isn't known
        self.rotation = rotation  #: clockwise, for display, in degrees from 0 to 359; not applied to the planes
        self.planes = planes  #: Y, U, V; none where the bytes were not decoded
        self.packet = packet  #: bytes that were not decoded; None for a picture
        self.tag = tag  #: the packet's time in the stream's own units, from its start; 0 for a picture

    def copy(self) -> Picture:
        """The same in memory of its own, which may be kept and written to."""
        planes = tuple(plane._copied() for plane in self.planes)
        return Picture(
            self.pts_ms, self.width, self.height, self.fps, self.rotation, planes, self.packet, self.tag
        )

    def tobytes(self) -> bytes:
        """All samples, plane by plane, as ``ffmpeg -f rawvideo -pix_fmt yuv420p`` writes them for even sizes."""
        return b"".join(plane.tobytes() for plane in self.planes)

    def to_rgb(self) -> numpy.ndarray[Any, Any]:
        """An array of height by width by 3, uint8, turned as it is to be shown where that is a multiple of 90 degrees.

        Needs numpy. The samples count as limited range, by BT.601 up to 576 lines and by BT.709 above.
        """
        import numpy

        y, u, v = (numpy.asarray(plane).astype(numpy.float32) for plane in self.planes)
        row = numpy.minimum(numpy.arange(self.height) // 2, u.shape[0] - 1)
        column = numpy.minimum(numpy.arange(self.width) // 2, u.shape[1] - 1)
        u, v = ((plane - 128)[row][:, column] for plane in (u, v))
        y = (y - 16) * (255 / 219)
        red, blue = (0.299, 0.114) if self.height <= 576 else (0.2126, 0.0722)
        green = 1 - red - blue
        v *= 2 * (1 - red) * 255 / 224
        u *= 2 * (1 - blue) * 255 / 224
        rgb: numpy.ndarray[Any, Any] = numpy.stack((y + v, y - (blue * u + red * v) / green, y + u), axis=2)
        rgb = numpy.clip(numpy.rint(rgb), 0, 255).astype(numpy.uint8)
        if self.rotation % 90:
            return rgb
        turned: numpy.ndarray[Any, Any] = numpy.ascontiguousarray(numpy.rot90(rgb, -self.rotation // 90))
        return turned

    def __repr__(self) -> str:
        return f"Picture(pts_ms={self.pts_ms}, {self.width}x{self.height})"
