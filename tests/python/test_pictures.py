"""Planes and pictures as buffers and arrays."""

import ctypes
from typing import Any

import numpy
import pytest
from kelp_player import Picture, Plane


def _lent(rows: int, stride: int, width: int) -> Any:
    """Memory that isn't Python's, with the numbers from 0 on: its last row ends where the picture does."""
    size = (rows - 1) * stride + width
    return (ctypes.c_ubyte * size)(*(number % 256 for number in range(size)))


def _picture(width: int, height: int, y: int, u: int, v: int, rotation: int = 0) -> Picture:
    planes = [Plane(bytearray([y]) * (width * height), width, height, width)]
    for sample in (u, v):
        planes.append(Plane(bytearray([sample]) * (width // 2 * (height // 2)), width // 2, height // 2, width // 2))
    return Picture(0, width, height, 25, rotation, tuple(planes))


def test_an_array_lies_on_the_memory_of_a_plane() -> None:
    memory = _lent(3, 8, 5)
    array = numpy.asarray(Plane(memory, 5, 3, 8))
    assert array.shape == (3, 5) and array.dtype == numpy.uint8
    assert array.tolist() == [[0, 1, 2, 3, 4], [8, 9, 10, 11, 12], [16, 17, 18, 19, 20]]
    memory[9] = 77
    assert array[1, 1] == 77


def test_lent_memory_cannot_be_written_to() -> None:
    plane = Plane(_lent(3, 8, 5), 5, 3, 8)
    assert plane.buffer.readonly
    with pytest.raises(ValueError):
        numpy.asarray(plane)[0, 0] = 1


def test_a_copy_has_memory_of_its_own_and_can_be_written_to() -> None:
    memory = _lent(3, 8, 5)
    picture = Picture(40, 5, 3, 25, 0, (Plane(memory, 5, 3, 8),))
    copy = picture.copy()
    numpy.asarray(copy.planes[0])[1, 1] = 1
    assert memory[9] == 9
    assert numpy.asarray(copy.planes[0])[1].tolist() == [8, 1, 10, 11, 12]
    assert copy.pts_ms == 40


def test_bytes_are_the_samples_without_what_is_between_the_rows() -> None:
    plane = Plane(_lent(3, 8, 5), 5, 3, 8)
    assert plane.tobytes() == bytes([0, 1, 2, 3, 4, 8, 9, 10, 11, 12, 16, 17, 18, 19, 20])
    assert Plane(_lent(2, 4, 4), 4, 2, 4).tobytes() == bytes(range(8))


def test_an_array_of_another_type_is_a_copy() -> None:
    plane = Plane(_lent(2, 4, 4), 4, 2, 4)
    assert numpy.asarray(plane, dtype=numpy.float32).tolist() == [[0, 1, 2, 3], [4, 5, 6, 7]]


def test_a_plane_without_rows_is_an_empty_array() -> None:
    assert numpy.asarray(Plane(bytearray(), 0, 0, 0)).size == 0


@pytest.mark.parametrize(
    "height, samples, colour",
    [
        (4, (16, 128, 128), (0, 0, 0)),
        (4, (235, 128, 128), (255, 255, 255)),
        (4, (81, 90, 240), (254, 0, 0)),  # red by BT.601
        (578, (63, 102, 240), (255, 0, 0)),  # red by BT.709
        (4, (145, 54, 34), (0, 255, 1)),
        (4, (41, 240, 110), (0, 0, 255)),
    ],
)
def test_colours_become_those_of_a_screen(height: int, samples: Any, colour: Any) -> None:
    rgb = _picture(4, height, *samples).to_rgb()
    assert rgb.shape == (height, 4, 3)
    assert numpy.abs(rgb.astype(int) - numpy.array(colour)).max() <= 2


def test_colours_of_an_odd_size_reach_its_last_row_and_column() -> None:
    assert _picture(5, 3, 235, 128, 128).to_rgb().tolist() == [[[255] * 3] * 5] * 3


def test_a_picture_is_turned_clockwise() -> None:
    picture = _picture(4, 2, 16, 128, 128, rotation=90)
    numpy.asarray(picture.planes[0])[0, 0] = 235  # the upper left goes to the upper right
    rgb = picture.to_rgb()
    assert rgb.shape == (4, 2, 3)
    assert rgb[0, 1].tolist() == [255] * 3 and rgb.sum() == 3 * 255
