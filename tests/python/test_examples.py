"""The programs in examples/python, as somebody at a terminal uses them, on a screen of their own."""

import fcntl
import os
import pathlib
import re
import subprocess
import time
from typing import Dict, Iterator, List

import pytest
from conftest import LONG, PYTHON, ROOT, TOOLS_ENVIRONMENT, media, tool

EXAMPLES = ROOT / "examples/python"


def start(screen: Dict[str, str], name: str, *arguments: str) -> "subprocess.Popen[str]":
    environment = {key: value for key, value in os.environ.items() if key != "SDL_VIDEODRIVER"}
    return subprocess.Popen(
        [PYTHON, str(EXAMPLES / name), *arguments],
        env={**environment, **screen},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def run(name: str, *arguments: str) -> List[str]:
    process = start({}, name, *arguments)
    text = process.communicate(timeout=2 * LONG)[0]
    assert process.returncode == 0, text
    return [line for line in text.splitlines() if "(Info)" not in line and "(ERROR)" not in line]


@pytest.fixture
def screen() -> Iterator[Dict[str, str]]:
    """A screen without hardware, in whose environment a program draws with software."""
    reader, writer = os.pipe()
    # Two servers that look for a free display at the same time may each get a half of one.
    with open("/tmp/.kelp_test_xvfb.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        words = ["setpriv", "--pdeathsig", "TERM", "Xvfb", "-displayfd", str(writer), "-screen", "0", "1400x900x24", "-nolisten", "tcp", "-noreset"]
        server = subprocess.Popen(
            words, pass_fds=[writer], env=TOOLS_ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )
        os.close(writer)
        with os.fdopen(reader) as displays:
            display = ":" + displays.readline().strip()
    yield {"DISPLAY": display, "SDL_RENDER_DRIVER": "software", "SDL_FRAMEBUFFER_ACCELERATION": "0"}
    server.terminate()
    server.wait()


def shows_bars(process: "subprocess.Popen[str]", display: str) -> bool:
    """Whether the second of seven colour bars, a yellow one, is on the screen before the program ends."""
    end = time.monotonic() + LONG
    while time.monotonic() < end and process.poll() is None:
        pixels = tool("ffmpeg", "-v", "error", "-f", "x11grab", "-video_size", "1400x900", "-i", display,
                      "-frames:v", "1", "-pix_fmt", "rgb24", "-f", "rawvideo", "-")  # fmt: skip
        yellow = re.findall(rb"(?:[\xa0-\xd0][\xa0-\xd0][\x00-\x30]){20}", pixels[250 * 1400 * 3 : 252 * 1400 * 3])
        if yellow:
            return True
        time.sleep(0.1)
    return False


def test_the_shortest_host_shows_a_film_and_ends_with_it(screen: Dict[str, str]) -> None:
    assert sum(map(bool, (EXAMPLES / "minimal.py").read_text().splitlines())) < 20
    process = start(screen, "minimal.py", media("bars.mp4"))
    assert shows_bars(process, screen["DISPLAY"])
    text = process.communicate(timeout=2 * LONG)[0]
    assert process.returncode == 0, text


def test_the_desktop_player_shows_a_film(screen: Dict[str, str]) -> None:
    process = start(screen, "tk_player.py", media("bars.mp4"))
    assert shows_bars(process, screen["DISPLAY"])
    process.kill()
    process.communicate()


def test_the_camera_is_watched_and_recorded(screen: Dict[str, str], tmp_path: pathlib.Path) -> None:
    path = tmp_path / "camera.mp4"
    process = start(screen, "camera.py", media("bars.mp4"), str(path))
    assert shows_bars(process, screen["DISPLAY"])
    text = process.communicate(timeout=2 * LONG)[0]
    assert process.returncode == 0 and f"{path}: 4.0 s" in text, text


def test_thumbnails_become_a_picture(tmp_path: pathlib.Path) -> None:
    path = str(tmp_path / "sheet.png")
    run("thumbnails.py", media("small.mp4"), "4", path)
    assert tool("ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of", "csv=p=0",
                path) == b"png,640,90\n"  # fmt: skip


def test_brightness_is_read_by_time_and_in_order() -> None:
    lines = run("brightness.py", media("short.mp4"), "200")
    assert re.fullmatch(r" +0 ms +[\d.]+", lines[0])
    times = [int(line.split()[0]) for line in lines[1:]]
    assert times == list(range(240, 520, 40))
    assert all("changed by" in line for line in lines[1:])
