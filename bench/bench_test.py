#!/usr/bin/env python3
"""Runs the shortest measurement of everything and looks whether each topic has rows that show something, and whether
docs/performance.md has a table for them; what the figures are is not looked at. Arguments: kelp_bench and a folder to
work in."""

import json
import os
import shutil
import subprocess
import sys

# By topic: columns of which each row has one, and that are more than nothing.
SHOWS = {
    "cost": [["pictures"], ["cpu"], ["peak_mib"]],
    "codecs": [["pictures"], ["limit_pictures"], ["cpu"], ["limit_cpu"]],
    "subtitles": [["pictures"], ["cpu"], ["peak_mib"]],
    "players": [["cpu"], ["limit_cpu"], ["shown_percent"], ["limit_shown_percent"]],
    "wakes": [["threads", "playing"]],
    "latency": [["count"], ["worst_ms"]],
    "steps": [["count"], ["right"], ["worst_ms"]],
    "presentation": [["pictures", "flashes", "looks"]],
    "udp": [["received"], ["mbits"], ["limit_mbits"]],
    "micro": [["time_ns"], ["cpu_ns"]],
}


def fill_tables(output, folder):
    here = os.path.dirname(os.path.abspath(__file__))
    names = [os.path.join(folder, name) for name in ("output.md", "performance.md")]
    with open(names[0], "w", encoding="utf-8") as file:
        file.write(output)
    shutil.copy(os.path.join(here, "..", "docs", "performance.md"), names[1])
    unknown = subprocess.run([os.path.join(here, "fill_tables.py"), *names], stdout=subprocess.PIPE, text=True, check=True)
    return unknown.stdout.split("\n")[:-1]


def main():
    program, folder = sys.argv[1:]
    os.makedirs(folder, exist_ok=True)
    run = subprocess.run([program, "--smoke", "--out", folder, *SHOWS], stdout=subprocess.PIPE, text=True, check=False)
    print(run.stdout)
    faults = []
    if run.returncode != 0:
        faults.append(f"status {run.returncode}")
    with open(os.path.join(folder, "bench.json"), encoding="utf-8") as file:
        tables = json.load(file)["tables"]
    for topic, wanted in SHOWS.items():
        rows = [row for table in tables if table["topic"] == topic for row in table["rows"]]
        if not rows:
            faults.append(f"{topic}: no rows")
        for row in rows:
            faults += [f"{topic}: no {' or '.join(names)} in {row}" for names in wanted
                       if not any((row.get(name) or 0) > 0 for name in names)]
    # A heading and a rule for each table.
    lines = sum(line.startswith("|") for line in run.stdout.splitlines())
    expected = sum(len(table["rows"]) + 2 for table in tables)
    if lines != expected:
        faults.append(f"{lines} lines of tables instead of {expected}")
    # The table of `micro` has one more column in the document.
    faults += [f"docs/performance.md: no table with {headings}"
               for headings in fill_tables(run.stdout, folder) if not headings.startswith("benchmark |")]
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
