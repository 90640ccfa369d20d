#!/usr/bin/env python3
"""Puts the tables of a run into a document, each in place of the one with the same headings, and names the headings that
the document doesn't have. Of the targets, which each run has for its topics alone, the rows of these topics are replaced,
as far as the document has them. Arguments: what `./dev bench` printed, and the document."""

import re
import sys

TABLE = re.compile(r"(?:^\|.*\n)+", re.MULTILINE)


def headings(table):
    return " | ".join(cell.strip() for cell in table.split("\n", 1)[0].strip("|").split("|"))


def cells(row):
    return [cell.strip() for cell in row.strip("|").split("|")]


def with_topics(old, new):
    """The table `old`, with the rows of `new` for each topic, its first column, that both have."""
    (head, rule, *rows), fresh = old.splitlines(), [cells(row) for row in new.splitlines()[2:]]
    merged, done = [cells(head)], {row[0] for row in fresh}
    for topic in dict.fromkeys(cells(row)[0] for row in rows):
        merged += [row for row in (fresh if topic in done else map(cells, rows)) if row[0] == topic]
    widths = [max(map(len, column)) for column in zip(*merged)]
    ends = [cell.endswith(":") for cell in cells(rule)]
    lines = [[cell.rjust(width) if end else cell.ljust(width) for cell, width, end in zip(row, widths, ends)]
             for row in merged]
    lines.insert(1, ["-" * (width - end) + ":" * end for width, end in zip(widths, ends)])
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def filled(old, measured):
    new = measured.get(headings(old), old)
    return with_topics(old, new) if headings(old).startswith("topic | what") else new


def main():
    output, document = sys.argv[1:]
    with open(output, encoding="utf-8") as file:
        measured = {headings(table): table for table in TABLE.findall(file.read())}
    with open(document, encoding="utf-8") as file:
        text = file.read()
    there = {headings(table) for table in TABLE.findall(text)}
    with open(document, "w", encoding="utf-8") as file:
        file.write(TABLE.sub(lambda old: filled(old[0], measured), text))
    for unknown in sorted(measured.keys() - there):
        print(unknown)


main()
