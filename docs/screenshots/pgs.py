"""Writes a line of text as the subtitles of a Blu-ray disc have it, as a picture that stands for a minute. Arguments:
the text, and the .sup file."""

import struct
import sys

from PIL import Image, ImageDraw, ImageFont

WIDTH, HEIGHT = 1280, 720
COLORS = 64  # from the edge to the letter
NOTHING = 0  # the index that can't be seen


def drawn(text):
    """Of each pixel how far it is letter rather than edge, 1 to COLORS, or NOTHING."""
    font = ImageFont.truetype("DejaVuSans-Bold.ttf", 56)
    box = font.getbbox(text, stroke_width=5)
    size = (box[2] - box[0], box[3] - box[1])
    layers = []
    for stroke in (5, 0):
        layer = Image.new("L", size)
        ImageDraw.Draw(layer).text((-box[0], -box[1]), text, 255, font, stroke_width=stroke)
        layers.append(layer.load())
    edge, letter = layers
    return size, [[1 + letter[x, y] * (COLORS - 1) // 255 if edge[x, y] > 127 else NOTHING for x in range(size[0])]
                  for y in range(size[1])]


def run_lengths(rows):
    out = bytearray()
    for row in rows:
        x = 0
        while x < len(row):
            count = 1
            while x + count < len(row) and row[x + count] == row[x] and count < 0x3FFF:
                count += 1
            long = count > 63
            flags = (0x40 if long else 0) | (0x80 if row[x] else 0)
            out += bytes([0, flags | count >> 8, count & 255] if long else [0, flags | count])
            if row[x]:
                out.append(row[x])
            x += count
        out += b"\0\0"
    return bytes(out)


def main():
    text, path = sys.argv[1:]
    (width, height), rows = drawn(text)
    x, y = (WIDTH - width) // 2, HEIGHT - height - 40
    picture = run_lengths(rows)
    palette = bytes([0, 0])
    for index in range(1, COLORS + 1):  # black to yellow, in BT.709
        part = (index - 1) / (COLORS - 1)
        palette += bytes([index, int(16 + part * 203), 128 + int(part * 10), 128 - int(part * 112), 255])
    window = struct.pack(">BBHHHH", 1, 0, x, y, width, height)
    size = struct.pack(">HHB", WIDTH, HEIGHT, 0x10)
    begin = size + struct.pack(">HBBBBHBBHH", 0, 0x80, 0, 0, 1, 0, 0, 0, x, y)
    length = len(picture) + 4
    bitmap = struct.pack(">HBB", 0, 0, 0xC0) + length.to_bytes(3, "big") + struct.pack(">HH", width, height) + picture
    end = size + struct.pack(">HBBBB", 1, 0, 0, 0, 0)
    with open(path, "wb") as file:
        for seconds, segments in ((0, [(0x16, begin), (0x17, window), (0x14, palette), (0x15, bitmap), (0x80, b"")]),
                                  (60, [(0x16, end), (0x17, window), (0x80, b"")])):
            for kind, data in segments:
                file.write(b"PG" + struct.pack(">IIBH", seconds * 90000, 0, kind, len(data)) + data)


main()
