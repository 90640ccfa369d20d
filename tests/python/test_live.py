"""A camera that goes and comes back."""

import socket
import subprocess
import threading
from pathlib import Path
from typing import List

import pytest
from conftest import LONG, PYTHON, ROOT, TOOLS_ENVIRONMENT, eventually, media
from kelp_player import Event, Failed, FirstVideoFrame, Player, Stalled, StallEnded, Started


pytestmark = pytest.mark.beside_each_other


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


def test_a_player_survives_the_loss_of_a_camera() -> None:
    heard: List[Event] = []
    options = {"preset": "recommended", "log_level": "none", "timeout": 2000000, "retry_when_failed": 200}
    with Camera() as camera, Player(f"rtsp://127.0.0.1:{camera.port}/h264", **options) as player:
        player.on(Event, heard.append)
        frames = player.frames(timeout=LONG)
        player.play()
        next(frames)
        player.wait_for(FirstVideoFrame, LONG)
        starts = heard.count(Started())
        camera.stop()
        eventually(lambda: player.statistics.restarts > 0)
        camera.start()
        eventually(lambda: heard.count(Started()) > starts)
        del heard[:]
        eventually(lambda: player.statistics.video.shown > 0)
        next(frames)
        assert not any(isinstance(event, Failed) for event in heard)


def test_a_playback_that_stands_tells() -> None:
    stalled = threading.Event()
    content = Path(media("hevc.ts")).read_bytes()

    def serve() -> None:
        connection, _ = listener.accept()
        with connection:
            connection.recv(4096)
            head = f"HTTP/1.0 200 OK\r\nContent-Type: video/mp2t\r\nContent-Length: {len(content)}\r\n\r\n"
            connection.sendall(head.encode() + content[: len(content) // 2])
            stalled.wait(LONG)
            connection.sendall(content[len(content) // 2 :])

    with socket.create_server(("127.0.0.1", 0)) as listener:
        server = threading.Thread(target=serve)
        server.start()
        url = f"http://127.0.0.1:{listener.getsockname()[1]}/film.ts"
        with Player(url, preset="recommended", log_level="none") as player:
            heard: List[Event] = []
            player.on(Event, heard.append)
            player.on(Stalled, lambda _: stalled.set())
            player.set_speed(4.0)
            player.play()
            player.wait(LONG)
            kinds = [type(event) for event in heard]
            assert 1 <= kinds.count(Stalled) == kinds.count(StallEnded)
        server.join()
