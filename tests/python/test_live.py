"""A camera that goes and comes back."""

import socket
import threading
from pathlib import Path
from typing import List

import pytest
from conftest import LONG, Camera, eventually, media
from kelp_player import Event, Failed, FirstVideoFrame, Player, Stalled, StallEnded, Started


pytestmark = pytest.mark.beside_each_other


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
        frames._box.keep_newest(False)  # empties it: what was shown before the loss is no sign of life
        first = next(frames).pts_ms
        assert next(frames).pts_ms > first
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
