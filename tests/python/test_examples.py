"""The programs in examples/python, as somebody at a terminal uses them, on a screen of their own."""

import concurrent.futures
import contextlib
import ctypes
import fcntl
import os
import pathlib
import re
import select
import subprocess
import time
from typing import Any, Dict, Iterator, List, Tuple

import pytest
from conftest import LONG, PYTHON, ROOT, TOOLS_ENVIRONMENT, Camera, eventually, media, packet_count, tool

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
    return text.splitlines()


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
                assert select.select([displays], [], [], LONG)[0], "no screen"
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

    def close_window(self, title: str) -> None:
        """As the cross in a window's frame does."""
        environment = {**TOOLS_ENVIRONMENT, "DISPLAY": self.display}
        found: List[str] = []
        end = time.monotonic() + LONG
        while not found:
            assert time.monotonic() < end, title
            words = ["xdotool", "search", "--sync", "--name", title]
            found = subprocess.run(words, env=environment, stdout=subprocess.PIPE, text=True, timeout=LONG).stdout.split()
        x11 = ctypes.CDLL("libX11.so.6")
        x11.XOpenDisplay.restype = ctypes.c_void_p
        display = ctypes.c_void_p(x11.XOpenDisplay(self.display.encode()))
        number = int(found[0])
        protocols, delete = (x11.XInternAtom(display, name, False) for name in (b"WM_PROTOCOLS", b"WM_DELETE_WINDOW"))
        # A ClientMessage of longs, up to the size of any event.
        event = (ctypes.c_long * 24)(33, 0, 0, 0, number, protocols, 32, delete)
        assert x11.XSendEvent(display, ctypes.c_ulong(number), False, ctypes.c_long(0), ctypes.byref(event))
        x11.XCloseDisplay(display)

    def close(self) -> None:
        self._server.terminate()
        self._server.wait()


@contextlib.contextmanager
def showing(name: str, *arguments: str) -> "Iterator[Tuple[Screen, subprocess.Popen[str]]]":
    """A program with a window, on a screen of its own."""
    screen = Screen()
    with contextlib.closing(screen):
        process = screen.start(name, *arguments)
        try:
            yield screen, process
        finally:
            process.kill()
            process.communicate()


def shows_bars(name: str, *arguments: str) -> bool:
    with showing(name, *arguments) as (screen, process):
        return screen.shows_bars(process)


def ends(name: str, *arguments: str) -> str:
    """What it has written when it has ended by itself."""
    with showing(name, *arguments) as (_, process):
        text = process.communicate(timeout=2 * LONG)[0]
        assert process.returncode == 0, text
        return text


def record_a_camera_that_is_lost(folder: pathlib.Path) -> List[str]:
    """What is written until the window is closed, while there is a second file."""
    first, second = folder / "lost.mp4", folder / "lost-2.mp4"
    with Camera() as camera, showing("camera.py", f"rtsp://127.0.0.1:{camera.port}/h264", str(first)) as (screen, process):
        for path in (first, second):
            eventually(lambda: path.exists() and path.stat().st_size > 0, path.name)
            if path == first:
                camera.stop()
                camera.start()
        screen.close_window("lost [1-9][0-9]* times")
        text = process.communicate(timeout=2 * LONG)[0]
        assert process.returncode == 0, text
        return text.splitlines()


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    return tmp_path_factory.mktemp("examples")


@pytest.fixture(scope="module", autouse=True)
def computed(folder: pathlib.Path) -> "Iterator[Dict[str, concurrent.futures.Future[List[str]]]]":
    """The lines of the programs that run beside the others."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        yield {
            "thumbnails.py": pool.submit(run, "thumbnails.py", media("small.mp4"), "4", str(folder / "sheet.png")),
            "brightness.py": pool.submit(run, "brightness.py", media("short.mp4"), "200"),
            "camera.py": pool.submit(record_a_camera_that_is_lost, folder),
        }


@pytest.fixture(scope="module")
def long_bars(folder: pathlib.Path) -> str:
    """Colour bars for a minute, so that a slow machine sees them too."""
    film = str(folder / "bars.mp4")
    tool("ffmpeg", "-v", "error", "-stream_loop", "14", "-i", media("bars.mp4"), "-c", "copy", film)
    return film


def test_the_shortest_host_shows_a_film_and_ends_with_it(long_bars: str) -> None:
    assert len((EXAMPLES / "minimal.py").read_text().splitlines()) < 20
    assert shows_bars("minimal.py", long_bars)
    ends("minimal.py", media("short.mp4"))


def test_the_camera_is_watched_and_recorded(long_bars: str, folder: pathlib.Path) -> None:
    assert shows_bars("camera.py", long_bars, str(folder / "watched.mp4"))
    assert f"{folder / 'camera.mp4'}: 4.0 s" in ends("camera.py", media("bars.mp4"), str(folder / "camera.mp4"))


def test_the_desktop_player_shows_a_film(long_bars: str) -> None:
    assert shows_bars("tk_player.py", long_bars)


def test_thumbnails_become_a_picture(computed: Dict[str, Any], folder: pathlib.Path) -> None:
    computed["thumbnails.py"].result()
    assert tool("ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of", "csv=p=0",
                str(folder / "sheet.png")) == b"png,640,90\n"  # fmt: skip


def test_brightness_is_read_by_time_and_in_order(computed: Dict[str, Any]) -> None:
    # The log is written in pieces: one of a line may stand before the first of these.
    found = [re.search(r" +([0-9]+) ms +[\d.]+(, changed by [\d.]+)?$", line) for line in computed["brightness.py"].result()]
    first, *behind = [line for line in found if line]
    assert (int(first[1]), first[2]) == (0, None)
    assert [int(line[1]) for line in behind] == list(range(240, 520, 40))
    assert all(line[2] for line in behind)


def test_a_lost_camera_goes_on_in_a_second_file(computed: Dict[str, Any], folder: pathlib.Path) -> None:
    lines = computed["camera.py"].result()
    for name in ("lost.mp4", "lost-2.mp4"):
        assert any(re.fullmatch(re.escape(f"{folder / name}: ") + r"[\d.]+ s", line) for line in lines), lines
        assert packet_count(str(folder / name), "v") > 0
