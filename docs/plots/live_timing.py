#!/usr/bin/env python3
"""Draws docs/live_timing.svg: what the filter of live sources makes of packets that come at the wrong time.

usage: build/release/tests/clock/live_timing_table | docs/plots/live_timing.py > docs/live_timing.svg
"""

import sys

# Case, title, first second of time shown, vertical range in milliseconds.
PANELS = [
    ("jitter", "jitter of ±15 ms", 0, (-20, 20)),
    ("drift", "and the sender's clock 100 ppm fast", 0, (-20, 20)),
    ("wrap", "and 33-bit time stamps that wrap around at 30 s", 0, (-20, 20)),
    ("loss", "and 10% lost, 5% behind their successor", 0, (-30, 90)),
    ("step", "and 300 ms more delay from 20 s on", 0, (-320, 120)),
    ("late_step", "the same from 600 s on", 590, (-320, 120)),
]
WIDTH, HEIGHT, LEFT, TOP, GAP = 440, 190, 56, 62, 54
SECONDS = 62


def panel(rows, title, start, limits, x0, y0):
    low, high = limits

    def x(ms):
        return x0 + (ms / 1000 - start) / SECONDS * WIDTH

    def y(ms):
        return y0 + (high - min(max(ms, low), high)) / (high - low) * HEIGHT

    out = [f'<rect x="{x0}" y="{y0}" width="{WIDTH}" height="{HEIGHT}" fill="#fff" stroke="#999"/>',
           f'<text x="{x0}" y="{y0 - 8}" font-weight="bold">{title}</text>']
    step = 10 if high - low <= 40 else 30 if high - low <= 120 else 100
    for value in range(-(-low // step) * step, high + 1, step):
        out.append(f'<line x1="{x0}" y1="{y(value):.1f}" x2="{x0 + WIDTH}" y2="{y(value):.1f}" '
                   f'stroke="{"#666" if value == 0 else "#e4e4e4"}"/>')
        out.append(f'<text x="{x0 - 6}" y="{y(value) + 4:.1f}" text-anchor="end">{value}</text>')
    for second in range(start, start + SECONDS + 1, 10):
        out.append(f'<text x="{x(second * 1000):.1f}" y="{y0 + HEIGHT + 16}" text-anchor="middle">{second} s</text>')
    shown = [row for row in rows if start <= row[0] / 1000 <= start + SECONDS]
    dots = "".join(f"M{x(at):.1f} {y(arrival):.1f}h.01" for at, arrival, _ in shown)
    out.append(f'<path d="{dots}" stroke="#aab4c4" stroke-width="2" stroke-linecap="round" fill="none"/>')
    line = " ".join(f"{x(at):.1f},{y(error):.1f}" for at, _, error in sorted(shown))
    out.append(f'<polyline points="{line}" fill="none" stroke="#c22" stroke-width="1.4"/>')
    return out


def main():
    cases = {}
    for line in sys.stdin:
        name, *values = line.split()
        cases.setdefault(name, []).append(tuple(map(float, values)))
    width = 2 * (LEFT + WIDTH) + 30
    height = TOP + len(PANELS) // 2 * (HEIGHT + GAP)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           'font-family="sans-serif" font-size="11">',
           f'<rect width="{width}" height="{height}" fill="#fafafa"/>',
           '<text x="56" y="24" font-size="13">Error in milliseconds against an arrival without jitter: '
           '<tspan fill="#8592a8">grey, the packet\'s arrival;</tspan> '
           '<tspan fill="#c22">red, the filter\'s answer, without the fixed 10 ms</tspan></text>']
    for i, (name, title, start, limits) in enumerate(PANELS):
        out += panel(cases[name], title, start, limits, LEFT + i % 2 * (WIDTH + LEFT + 10),
                     TOP + i // 2 * (HEIGHT + GAP))
    print("\n".join(out + ["</svg>"]))


main()
