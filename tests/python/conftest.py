"""What the tests of the Python package share."""

import concurrent.futures
import os
import pathlib
import subprocess
import tempfile
import time
from typing import Any, Callable, Dict, List, Optional, Tuple

import pytest

os.environ["SDL_VIDEODRIVER"] = "dummy"
os.environ["SDL_AUDIODRIVER"] = "dummy"

ROOT = pathlib.Path(__file__).resolve().parents[2]
MEDIA = pathlib.Path(os.environ.get("KELP_TEST_MEDIA_DIR", ROOT / "build" / "media"))
PYTHON = "/usr/bin/python3"  # the system's own, which has the bindings of the RTSP server
LONG = 60.0  # seconds, for what comes at all

# As hosts ask for them, and a log without the hardware that isn't there.
OPTIONS: Dict[str, str] = {"preset": "recommended", "log_level": "none"}

#: For programs that the tests run: what is preloaded is for this process alone.
TOOLS_ENVIRONMENT = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}


def media(name: str) -> str:
    return str(MEDIA / name)


def tool(*words: str) -> bytes:
    """What a program writes to its standard output."""
    return subprocess.run(
        words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True, env=TOOLS_ENVIRONMENT
    ).stdout


def raw_pictures(path: str, width: int, height: int) -> List[bytes]:
    """All pictures of a file, as the ffmpeg command decodes them."""
    data = tool("ffmpeg", "-v", "error", "-i", path, "-an", "-fps_mode", "passthrough",
                "-f", "rawvideo", "-pix_fmt", "yuv420p", "-")  # fmt: skip
    size = width * height * 3 // 2
    assert len(data) % size == 0
    return [data[start : start + size] for start in range(0, len(data), size)]


def packet_count(path: str, stream: str) -> int:
    counted = tool("ffprobe", "-v", "error", "-count_packets", "-select_streams", stream, "-show_entries",
                   "stream=nb_read_packets", "-of", "csv=p=0", path)  # fmt: skip
    return int(counted.split(b"\n")[0].strip(b",\r ") or 0)


def eventually(condition: Callable[[], object], what: str = "it") -> None:
    """Waits until a condition holds, however slow the machine is."""
    end = time.monotonic() + LONG
    while not condition():
        assert time.monotonic() < end, f"{what} didn't come"
        time.sleep(0.01)


def python(code: str, *arguments: str) -> Tuple[int, str]:
    """Runs a program of its own: its exit code, and all that it wrote."""
    done = subprocess.run(
        [PYTHON, "-X", "faulthandler", "-c", code, *arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=2 * LONG,
    )
    return done.returncode, done.stdout.decode("utf-8", "replace")


class Camera:
    """An RTSP server on a port of its own, which it has again when it is started again."""

    def __init__(self) -> None:
        self.port = 0
        self.start()

    def start(self) -> None:
        words = [PYTHON, str(ROOT / "tests/e2e/rtsp_server.py"), "--port", str(self.port)]
        self.process = subprocess.Popen(
            words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, env=TOOLS_ENVIRONMENT
        )
        assert self.process.stdout
        line = self.process.stdout.readline()
        assert line.startswith("ready"), "are gir1.2-gst-rtsp-server-1.0, python3-gi and the plugins there?"
        self.port = int(line.split()[1])

    def stop(self) -> None:
        self.process.kill()
        self.process.communicate()

    def __enter__(self) -> "Camera":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()


# What plays waits for most of the time, so the tests of a file with this mark run beside each other, but for those that
# have a fixture other than a folder. Nothing else runs meanwhile.
_FOLDER = {"tmp_path", "tmp_path_factory", "request"}
_beside: "Dict[str, concurrent.futures.Future[None]]" = {}
_pool = concurrent.futures.ThreadPoolExecutor(6)


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "beside_each_other: run the tests without other fixtures than tmp_path at the same time")


def pytest_collection_modifyitems(items: List[Any]) -> None:
    items.sort(key=lambda item: not _is_beside(item))


def pytest_collection_finish(session: Any) -> None:
    if session.config.option.collectonly:
        return
    for item in session.items:
        if _is_beside(item):
            _beside[item.nodeid] = _pool.submit(_run, item)


def pytest_pyfunc_call(pyfuncitem: Any) -> Optional[bool]:
    if pyfuncitem.nodeid in _beside:
        _beside[pyfuncitem.nodeid].result()
        return True
    concurrent.futures.wait(_beside.values())
    return None


def _is_beside(item: Any) -> bool:
    return bool(item.get_closest_marker("beside_each_other")) and set(item.fixturenames) <= _FOLDER


def _run(item: Any) -> None:
    with tempfile.TemporaryDirectory() as folder:
        item.obj(*[pathlib.Path(folder)] if item.fixturenames else [])


@pytest.fixture
def errors(caplog: pytest.LogCaptureFixture) -> Callable[[], List[str]]:
    """What the package has written to its logger."""
    return lambda: [record.getMessage() for record in caplog.records if record.name == "kelp_player"]
