"""Packets, recordings, encoded video and datagrams."""

import os
import pathlib
import re
import socket
import subprocess
import threading
from typing import List

import pytest
from conftest import LONG, OPTIONS, TOOLS_ENVIRONMENT, eventually, media, packet_count, raw_pictures, tool
from kelp_player import (
    Packet,
    PacketSink,
    PacketStream,
    PlaybackFailed,
    Player,
    Recorder,
    Refused,
    StreamMuxer,
    TrackKind,
    UdpReceiver,
    UdpSender,
    VideoCodec,
)


pytestmark = pytest.mark.beside_each_other


class Collector(PacketSink):
    def __init__(self) -> None:
        self.streams: List[PacketStream] = []
        self.packets: List[Packet] = []
        self.sizes: List[int] = []
        self.gaps = 0
        self.ended = threading.Event()

    def on_streams(self, streams: List[PacketStream]) -> None:
        self.streams = streams

    def on_packet(self, packet: Packet) -> None:
        self.packets.append(packet)
        self.sizes.append(len(bytes(packet.data)))

    def on_gap(self) -> None:
        self.gaps += 1

    def on_end(self) -> None:
        self.ended.set()


def test_a_sink_gets_every_packet_of_a_file() -> None:
    sink = Collector()
    with Player(media("short.mp4"), **OPTIONS) as player:
        player.set_packet_sink(sink)
        player.play()
        assert sink.ended.wait(LONG)
        assert player.statistics.packet_sink_ms > 0
    video, audio = sink.streams
    assert (video.kind, video.codec, video.width, video.height) == (TrackKind.VIDEO, "h264", 160, 90)
    assert (audio.kind, audio.codec, audio.sample_rate, audio.channels) == (TrackKind.AUDIO, "aac", 48000, 2)
    assert video.configuration and video.time_base.denominator > 1
    pictures = [packet for packet in sink.packets if packet.track == video.track]
    assert len(pictures) == packet_count(media("short.mp4"), "v")
    assert pictures[0].is_key_frame and pictures[0].pts is not None
    sizes = [size for packet, size in zip(sink.packets, sink.sizes) if packet.track == video.track]
    shown = tool("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=size",
                 "-of", "csv=p=0", media("short.mp4"))  # fmt: skip
    assert sizes == [int(size) for size in re.findall(rb"\d+", shown)]
    with pytest.raises(ValueError):
        pictures[0].data


class Told(Recorder):
    def __init__(self) -> None:
        super().__init__()
        self.begun: List[str] = []
        self.ended: List[str] = []
        self.failed: List[str] = []

    def on_file_begun(self, path: str) -> None:
        self.begun.append(path)

    def on_file_ended(self, path: str, duration_ms: int) -> None:
        assert duration_ms > 0
        self.ended.append(path)

    def on_failed(self, path: str, reason: str) -> None:
        self.failed.append(reason)


def test_a_recording_holds_every_packet(tmp_path: pathlib.Path) -> None:
    path = tmp_path / "grüß.mp4"
    with Told() as recorder, Player(media("small.mp4"), **OPTIONS) as player:
        player.set_recorder(recorder)
        recorder.start(path)
        assert recorder.is_recording
        with pytest.raises(Refused):
            recorder.start(path)
        assert recorder.last_error
        player.play()
        player.wait(LONG)
        recorder.stop()
        assert not recorder.is_recording
        assert recorder.begun == recorder.ended == [str(path)]
    assert packet_count(str(path), "v") == 75
    assert raw_pictures(str(path), 320, 180) == raw_pictures(media("small.mp4"), 320, 180)


def test_a_recording_that_cannot_be_written_is_told(tmp_path: pathlib.Path) -> None:
    with Told() as recorder, Player(media("short.mp4"), **OPTIONS) as player:
        with pytest.raises(Refused):
            recorder.start(tmp_path / "film.xyz")
        player.set_recorder(recorder)
        recorder.start(tmp_path / "no" / "folder.mp4")
        player.play()
        eventually(lambda: recorder.failed)
        player.wait(LONG)


def test_names_and_titles_need_not_be_utf8(tmp_path: pathlib.Path) -> None:
    folder = os.fsencode(tmp_path)
    film, recorded, shown = (folder + name for name in (b"/caf\xe9.mkv", b"/recorded\xe9.mkv", b"/shown\xe9.png"))
    subprocess.run([b"ffmpeg", b"-v", b"error", b"-i", media("short.mp4"), b"-c", b"copy", b"-metadata:s:v:0",
                    b"title=caf\xe9", film], check=True, env=TOOLS_ENVIRONMENT)  # fmt: skip
    (tmp_path / os.fsdecode(b"caf\xe9.srt")).write_bytes(b"1\n00:00:00,000 --> 00:00:02,500\nGr\xfc\xdf dich\n")
    read: List[str] = []
    with Told() as recorder, Player(subtitle_file=folder + b"/caf\xe9.srt", **OPTIONS) as player:
        player.set_recorder(recorder)
        player.set_subtitle_sink(lambda shown: read.extend(line.text for line in shown.lines))
        recorder.start(recorded)
        player.open(film)
        player.play()
        player.wait(LONG)
        eventually(lambda: read)
        assert read[0] == "Grüß dich"
        assert [track.title for track in player.tracks if track.title] == ["caf\ufffd", "caf\ufffd.srt"]
        player.take_snapshot(shown)
        recorder.stop()
        assert recorder.begun == recorder.ended == [os.fsdecode(recorded)]
        player.open(os.fsdecode(folder + b"/missing\xe9.mkv"))
        player.play()
        with pytest.raises(PlaybackFailed) as failed:
            player.wait(LONG)
        failed.value.reason.encode()
        with pytest.raises(Refused) as refused:
            recorder.start(folder + b"/caf\xe9.xyz")
        str(refused.value).encode()
    assert os.path.getsize(shown) > 0
    assert packet_count(os.fsdecode(recorded), "v") == 13


def test_a_sink_passes_on_to_a_recorder(tmp_path: pathlib.Path) -> None:
    path = tmp_path / "film.mkv"

    class Passing(Collector):
        def on_streams(self, streams: List[PacketStream]) -> None:
            self.pass_on(recorder)

        def on_packet(self, packet: Packet) -> None:
            if packet.kind == TrackKind.VIDEO:
                self.pass_on(recorder)

        def on_end(self) -> None:
            self.pass_on(recorder)
            self.ended.set()

    sink = Passing()
    with Recorder() as recorder, Player(media("short.mp4"), **OPTIONS) as player:
        recorder.start(path)
        player.set_packet_sink(sink)
        player.play()
        assert sink.ended.wait(LONG)
        player.set_packet_sink(None)
        recorder.stop()
        with pytest.raises(ValueError):
            sink.pass_on(recorder)
    assert packet_count(str(path), "v") == 13


def test_encoded_frames_become_a_file(tmp_path: pathlib.Path) -> None:
    stream = tool("ffmpeg", "-v", "error", "-i", media("short.mp4"), "-an", "-c:v", "libx264", "-bf", "0",
                  "-x264-params", "aud=1:repeat-headers=1", "-f", "h264", "-")  # fmt: skip
    frames = re.split(rb"(?=\x00\x00\x00\x01\x09)", stream)[1:]
    path = tmp_path / "film.mp4"
    with StreamMuxer() as muxer:
        with pytest.raises(Refused):
            muxer.output_frame(b"x", 0, True)
        muxer.set_option("use_editlist", 0)
        muxer.open(path, VideoCodec.H264, 160, 90)
        for number, frame in enumerate(frames):
            muxer.output_frame(frame, number * 40000, number == 0)
    assert len(frames) == packet_count(str(path), "v") == 13
    with StreamMuxer() as muxer:
        with pytest.raises(Refused):
            muxer.open(tmp_path / "no" / "folder.mp4", VideoCodec.H264, 160, 90)
        assert muxer.last_error
        muxer.close_output()


def test_datagrams_come_as_they_were_sent() -> None:
    got: List[bytes] = []
    with UdpReceiver(got.append) as receiver, UdpSender() as sender:
        for _ in range(20):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
                probe.bind(("127.0.0.1", 0))
                port = probe.getsockname()[1]
            try:
                receiver.start(port)
                break
            except Refused:
                assert receiver.last_error
        sender.start("127.0.0.1", port)

        def sent() -> bool:
            assert sender.send(b"one two") == 7
            return b"one two" in got

        eventually(sent)
        assert set(got) == {b"one two"}
        sender.stop()
        with pytest.raises(Refused):
            sender.send(b"three")
        receiver.stop()
