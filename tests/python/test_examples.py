"""The programs in examples/python, as somebody at a terminal uses them, on a screen of their own."""

import concurrent.futures
import contextlib
import fcntl
import os
import pathlib
import re
import subprocess
import time
from typing import Any, Dict, Iterator, List

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


class Screen:
    """A screen without hardware, on which a program draws with software."""

    def __init__(self) -> None:
        reader, writer = os.pipe()
        # Two servers that look for a free display at the same time may each get a half of one.
        with open("/tmp/.kelp_test_xvfb.lock", "a") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            words = ["setpriv", "--pdeathsig", "TERM", "Xvfb", "-displayfd", str(writer), "-screen", "0", "1400x900x24", "-nolisten", "tcp", "-noreset"]
            self._server = subprocess.Popen(
                words, pass_fds=[writer], env=TOOLS_ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
            )
            os.close(writer)
            with os.fdopen(reader) as displays:
                self.display = ":" + displays.readline().strip()

    def start(self, name: str, *arguments: str) -> "subprocess.Popen[str]":
        drawing = {"SDL_RENDER_DRIVER": "software", "SDL_FRAMEBUFFER_ACCELERATION": "0"}
        return start({"DISPLAY": self.display, **drawing}, name, *arguments)

    def shows_bars(self, process: "subprocess.Popen[str]") -> bool:
        """Whether the second of seven colour bars, a yellow one, is there before the program ends."""
        end = time.monotonic() + LONG
        while time.monotonic() < end and process.poll() is None:
            pixels = tool("ffmpeg", "-v", "error", "-f", "x11grab", "-video_size", "1400x900", "-i", self.display,
                          "-frames:v", "1", "-pix_fmt", "rgb24", "-f", "rawvideo", "-")  # fmt: skip
            if re.search(rb"(?:[\xa0-\xd0][\xa0-\xd0][\x00-\x30]){20}", pixels[250 * 1400 * 3 : 252 * 1400 * 3]):
                return True
            time.sleep(0.1)
        return False

    def close(self) -> None:
        self._server.terminate()
        self._server.wait()


class Showing:
    """A program that shows the colour bars, watched from its start on."""

    def __init__(self, pool: concurrent.futures.Executor, name: str, *arguments: str) -> None:
        self._screen = Screen()
        self.process = self._screen.start(name, *arguments)
        self.shows_bars = pool.submit(self._screen.shows_bars, self.process)

    def ends(self) -> str:
        """What it has written when it has ended by itself."""
        text = self.process.communicate(timeout=2 * LONG)[0]
        assert self.process.returncode == 0, text
        return text

    def close(self) -> None:
        self.process.kill()
        self.process.communicate()
        self._screen.close()


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    return tmp_path_factory.mktemp("examples")


@pytest.fixture(scope="module")
def computed(folder: pathlib.Path) -> "Iterator[Dict[str, concurrent.futures.Future[List[str]]]]":
    """The lines of the programs without a window, which run beside the others."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        yield {
            "thumbnails.py": pool.submit(run, "thumbnails.py", media("small.mp4"), "4", str(folder / "sheet.png")),
            "brightness.py": pool.submit(run, "brightness.py", media("short.mp4"), "200"),
        }


@pytest.fixture(scope="module")
def showing(folder: pathlib.Path, computed: Any) -> Iterator[Dict[str, Showing]]:
    """All programs with a window, at once, as each takes as long as the film."""
    film = media("bars.mp4")
    with concurrent.futures.ThreadPoolExecutor() as pool, contextlib.ExitStack() as stack:
        programs = {}
        for name, *more in (("minimal.py",), ("camera.py", str(folder / "camera.mp4")), ("tk_player.py",)):
            programs[name] = Showing(pool, name, film, *more)
            stack.callback(programs[name].close)
        yield programs


def test_the_shortest_host_shows_a_film_and_ends_with_it(showing: Dict[str, Showing]) -> None:
    assert len((EXAMPLES / "minimal.py").read_text().splitlines()) < 20
    assert showing["minimal.py"].shows_bars.result()
    showing["minimal.py"].ends()


def test_the_camera_is_watched_and_recorded(showing: Dict[str, Showing], folder: pathlib.Path) -> None:
    assert showing["camera.py"].shows_bars.result()
    assert f"{folder / 'camera.mp4'}: 4.0 s" in showing["camera.py"].ends()


def test_the_desktop_player_shows_a_film(showing: Dict[str, Showing]) -> None:
    assert showing["tk_player.py"].shows_bars.result()


def test_thumbnails_become_a_picture(computed: Dict[str, Any], folder: pathlib.Path) -> None:
    computed["thumbnails.py"].result()
    assert tool("ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of", "csv=p=0",
                str(folder / "sheet.png")) == b"png,640,90\n"  # fmt: skip


def test_brightness_is_read_by_time_and_in_order(computed: Dict[str, Any]) -> None:
    lines = computed["brightness.py"].result()
    assert re.fullmatch(r" +0 ms +[\d.]+", lines[0])
    times = [int(line.split()[0]) for line in lines[1:]]
    assert times == list(range(240, 520, 40))
    assert all("changed by" in line for line in lines[1:])
