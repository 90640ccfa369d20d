#!/usr/bin/env python3
"""Puts the tables of a run into a document, each in place of the one with the same headings, and names the headings that
the document doesn't have. Arguments: what `./dev bench` printed, and the document."""

import re
import sys

TABLE = re.compile(r"(?:^\|.*\n)+", re.MULTILINE)


def headings(table):
    return " | ".join(cell.strip() for cell in table.split("\n", 1)[0].strip("|").split("|"))


def main():
    output, document = sys.argv[1:]
    with open(output, encoding="utf-8") as file:
        measured = {headings(table): table for table in TABLE.findall(file.read())}
    with open(document, encoding="utf-8") as file:
        text = file.read()
    there = {headings(table) for table in TABLE.findall(text)}
    with open(document, "w", encoding="utf-8") as file:
        file.write(TABLE.sub(lambda old: measured.get(headings(old[0]), old[0]), text))
    for unknown in sorted(measured.keys() - there):
        print(unknown)


main()
