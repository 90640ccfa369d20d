#!/usr/bin/env python3
"""Fails when a function of the C interface is called by none of the tests beside this, or never with a null for one of its
pointers where the handle in front is none; when one stands in the header or in the linker's map alone; when an operation
of TarnPlayer has none; and when the shortest host in C isn't short. Argument: the project's root."""

import pathlib
import re
import sys
from typing import Dict, Iterator, List

ROOT = pathlib.Path(sys.argv[1])
HEADER = (ROOT / "include/kelp_player/kelp_player_c.h").read_text()
# Those of other names for C: the stall observer's calls are among the player's events.
OTHER_NAMES = {
    "getAudioDevices": "kelp_get_audio_devices",
    "getPlayDetailInfo": "kelp_player_get_info",
    "setAVSyncMode": "kelp_player_set_sync_master",
    "setOffsetToClockMs": "kelp_player_set_offset",
    "setStallObserver": "kelp_player_create",
    "setSyncClock": "kelp_player_set_clock",
}


def arguments(text: str, begin: int) -> List[str]:
    """What stands between commas behind the parenthesis before `begin`."""
    depth, parts, start, at = 1, [], begin, begin
    while depth:
        depth += text[at] in "([{"
        depth -= text[at] in ")]}"
        if depth == 0 or (depth == 1 and text[at] == ","):
            parts.append(text[start:at].strip())
            start = at + 1
        at += 1
    return parts


def functions() -> Dict[str, List[str]]:
    """The parameters of each function."""
    header = re.sub(r"//.*|#.*", "", HEADER)
    return {found[1]: arguments(header, found.end()) for found in re.finditer(r"KELP_C_API [^(;]*\b(kelp_\w+)\(", header)}


def calls(sources: str, name: str) -> Iterator[List[str]]:
    for found in re.finditer(rf"\b{name}\(", sources):
        yield arguments(sources, found.end())


def faults() -> Iterator[str]:
    sources = "".join(re.sub(r"/\*.*?\*/", "", path.read_text(), flags=re.DOTALL) for path in (ROOT / "tests/c").glob("*.c"))
    declared = functions()
    for name, parameters in declared.items():
        made = list(calls(sources, name))
        if not made:
            yield f"no test calls {name}"
        for index, parameter in enumerate(parameters):
            is_pointer = "*" in parameter or parameter.startswith("kelp_call ")
            if is_pointer and not any(call[index] == "NULL" and (index == 0 or call[0] != "NULL") for call in made):
                yield f"no test calls {name} with a null for {parameter}"

    mapped = re.findall(r"^    (kelp_[a-z0-9_]*);$", (ROOT / "cmake/kelp_player.map").read_text(), re.MULTILINE)
    if len(declared) != HEADER.count("\nKELP_C_API ") or sorted(declared) != sorted(mapped):
        yield "the header and the map don't have the same functions"

    player = (ROOT / "include/kelp_player/tarn_player.h").read_text()
    body = player[player.index("\nclass KELP_PLAYER_API TarnPlayer") :]
    body = body[: body.index("\nprivate:")]
    operations = set(re.findall(r"^    [a-z][^(/]* \**([a-z][A-Za-z]*)\(", body, re.MULTILINE))
    if len(operations) <= 30:
        yield "the operations of TarnPlayer weren't found"
    for operation in sorted(operations):
        name = OTHER_NAMES.get(operation, "kelp_player_" + re.sub("([A-Z])", r"_\1", operation).lower())
        if name not in declared:
            yield f"TarnPlayer::{operation} isn't there for C"

    if len((ROOT / "examples/c_host/main.c").read_text().splitlines()) >= 60:
        yield "the shortest host in C has 60 lines or more"
    print(len(declared), "functions")


found = list(faults())
print("\n".join(found))
sys.exit(bool(found))
