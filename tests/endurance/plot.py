#!/usr/bin/env python3
"""Draws the samples of `endurance --out` as an SVG: plot.py SAMPLES.csv... > docs/endurance.svg"""

import csv
import sys

WIDTH, HEIGHT, LEFT, TOP, GAP = 300, 120, 80, 50, 60
COLUMNS = [("rss_kb", "resident memory, KB"), ("heap_kb", "heap, KB"), ("descriptors", "open descriptors"),
           ("threads", "threads")]
NAMES = {"plays": "load, play, stop on one player", "lives": "create, play, destroy", "loop": "one clip, looped"}


def read(paths):
    phases = {}
    for path in paths:
        with open(path, newline="") as file:
            for row in csv.DictReader(file):
                phases.setdefault(row["phase"], []).append(row)
    return phases


def curve(rows, column, left, top):
    times = [float(row["seconds"]) for row in rows]
    values = [float(row[column]) for row in rows]
    first, last, high = times[0], times[-1], max(values) * 1.1 or 1
    points = " ".join(
        f"{left + (time - first) / max(last - first, 1e-9) * WIDTH:.1f},{top + HEIGHT - value / high * HEIGHT:.1f}"
        for time, value in zip(times, values))
    return [
        f'<rect x="{left}" y="{top}" width="{WIDTH}" height="{HEIGHT}" fill="none" stroke="#bbb"/>',
        f'<polyline points="{points}" fill="none" stroke="#06c" stroke-width="1.5"/>',
        f'<text x="{left - 6}" y="{top + 10}" text-anchor="end">{high:.0f}</text>',
        f'<text x="{left - 6}" y="{top + HEIGHT}" text-anchor="end">0</text>',
        f'<text x="{left + WIDTH}" y="{top + HEIGHT + 14}" text-anchor="end">{last - first:.0f} s, '
        f'{rows[-1]["round"]} rounds, {values[0]:.0f} to {values[-1]:.0f}</text>',
    ]


def main():
    phases = read(sys.argv[1:])
    width = LEFT + len(COLUMNS) * (WIDTH + GAP)
    height = TOP + len(phases) * (HEIGHT + GAP)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" font-family="sans-serif" '
           'font-size="11">', f'<rect width="{width}" height="{height}" fill="white"/>']
    for line, (phase, rows) in enumerate(phases.items()):
        top = TOP + line * (HEIGHT + GAP)
        for index, (column, name) in enumerate(COLUMNS):
            left = LEFT + index * (WIDTH + GAP)
            out.append(f'<text x="{left}" y="{top - 8}">{NAMES.get(phase, phase)}: {name}</text>')
            out += curve(rows, column, left, top)
    print("\n".join(out + ["</svg>"]))


if __name__ == "__main__":
    main()
