"""Plays, seeks, reads pictures; what a host hears, and what it may get wrong."""

import gc
import logging
import pathlib
import threading
from typing import Any, Callable, List

import kelp_player
import numpy
import pytest
from conftest import LONG, OPTIONS, eventually, media, raw_pictures, tool
from kelp_player import (
    Clock,
    Completed,
    Event,
    Failed,
    FailureKind,
    FirstAudioFrame,
    FirstVideoFrame,
    FrameReader,
    HostClock,
    Picture,
    PlaybackFailed,
    Player,
    Prepared,
    Refused,
    Started,
    SyncMaster,
    TrackKind,
    VideoSizeUpdated,
    sinks,
)

pytestmark = pytest.mark.beside_each_other
Errors = Callable[[], List[str]]


def test_a_film_is_played_to_its_end_and_told_in_order(errors: Errors) -> None:
    heard: List[Event] = []
    with Player(**OPTIONS) as player:
        player.on(Event, heard.append)
        told = player.events(timeout=LONG)
        player.open(media("short.mp4"))
        player.play()
        player.wait(LONG)
        assert player.ended == Completed()
        eventually(lambda: heard[-1:] == [Completed()])  # who waits is told first
        assert list(told.poll()) == heard and list(told.poll()) == []
        assert [track.kind for track in player.tracks] == [TrackKind.VIDEO, TrackKind.AUDIO]
        assert [track.codec for track in player.tracks] == ["h264", "aac"]
        assert all(track.is_played for track in player.tracks)
        assert player.get_info(kelp_player.Info.WIDTH) == 160
        assert 450 <= player.duration_ms <= 600
        statistics = player.statistics
        assert statistics.video.codec == "h264" and statistics.video.decoded == 13
        assert statistics.audio.sample_rate == 48000 and statistics.restarts == 0
        assert statistics.last_failure is None
    assert list(told) == []
    assert heard[:2] == [VideoSizeUpdated(160, 90, 0), Prepared(True, True)]
    assert {type(event) for event in heard[2:5]} == {Started, FirstVideoFrame, FirstAudioFrame}
    assert heard[-1] == Completed()
    assert errors() == []


def test_pictures_are_those_of_the_ffmpeg_command_byte_for_byte() -> None:
    expected = raw_pictures(media("small.mp4"), 320, 180)
    with FrameReader(media("small.mp4"), timeout=LONG, log_level="none") as film:
        pictures = list(film)
    assert [picture.pts_ms for picture in pictures] == list(range(0, 3000, 40))
    assert [picture.tobytes() for picture in pictures] == expected


def test_a_reader_waits_for_its_host_and_seeks_to_what_is_on_at_a_time() -> None:
    expected = raw_pictures(media("numbers.mp4"), 320, 180)
    with FrameReader(media("numbers.mp4"), timeout=LONG, log_level="none") as film:
        for time_ms in (7010, 0, 19990, 400, 401, 12345):
            picture = film.seek(time_ms)
            assert picture.pts_ms == min(time_ms // 40 * 40, 19960)
            assert picture.tobytes() == expected[picture.pts_ms // 40], time_ms
        behind = [next(film) for _ in range(30)]
        assert [picture.pts_ms for picture in behind] == list(range(12360, 12360 + 30 * 40, 40))
        assert all(picture.tobytes() == expected[picture.pts_ms // 40] for picture in behind)


def test_a_reader_goes_back_from_the_end() -> None:
    with FrameReader(media("short.mp4"), timeout=LONG, log_level="none") as film:
        assert [picture.pts_ms for picture in film] == list(range(0, 520, 40))
        assert film.seek(240).pts_ms == 240
        assert [picture.pts_ms for picture in film] == list(range(280, 520, 40))


def test_a_reader_of_sound_alone_is_refused() -> None:
    with pytest.raises(PlaybackFailed):
        FrameReader(media("tone.mp3"), timeout=LONG, log_level="none")


def test_an_array_in_a_callback_lies_on_the_decoders_memory(errors: Errors) -> None:
    expected = raw_pictures(media("short.mp4"), 160, 90)
    seen = {}

    def take(picture: Picture) -> None:
        luma = numpy.asarray(picture.planes[0])
        assert luma.shape == (90, 160) and not luma.flags.owndata and not luma.flags.writeable
        seen[picture.pts_ms] = b"".join(numpy.asarray(plane).tobytes() for plane in picture.planes)

    with Player(**OPTIONS) as player:
        player.add_frame_sink(take)
        player.open(media("short.mp4"))
        player.play()
        player.wait(LONG)
    assert errors() == []
    assert seen and all(expected[pts_ms // 40] == data for pts_ms, data in seen.items())


def test_an_array_that_is_kept_behind_its_callback_is_told(errors: Errors) -> None:
    kept: List[Any] = []
    with Player(**OPTIONS) as player:
        sink = player.add_frame_sink(lambda picture: kept.append(picture))
        player.open(media("short.mp4"))
        player.play()
        eventually(lambda: len(kept) > 1)  # the first one's call has returned
        with pytest.raises(ValueError):
            kept[0].planes[0].buffer
        sink.remove()
        assert errors() == []

        arrays: List[Any] = []
        player.add_frame_sink(lambda picture: arrays.append(numpy.asarray(picture.planes[0])))
        eventually(errors)
        assert "kept" in errors()[0]


def test_pictures_come_from_an_iterator_until_the_end() -> None:
    with Player(**OPTIONS) as player:
        frames = player.frames(size=0, timeout=LONG)
        player.open(media("short.mp4"))
        player.play()
        times = [picture.pts_ms for picture in frames]
    # On a machine that does something else as well some may be late, but none comes twice.
    assert times == sorted(set(times)) and times[0] == 0


def test_an_iterator_ends_with_stop_and_with_close() -> None:
    player = Player(media("small.mp4"), **OPTIONS)
    frames = player.frames(timeout=LONG)
    player.play()
    next(frames)
    stopper = threading.Thread(target=player.stop)
    stopper.start()
    list(frames)
    stopper.join()
    frames = player.frames(timeout=LONG)
    closer = threading.Thread(target=player.close)
    closer.start()
    list(frames)
    closer.join()
    with pytest.raises(kelp_player.Closed):
        player.play()


def test_seeks_pause_and_a_second_playback() -> None:
    with Player(media("numbers.mp4"), **OPTIONS) as player:
        player.set_sync_master(SyncMaster.AUDIO)
        player.play()
        player.wait_for(FirstVideoFrame, LONG)
        player.pause()
        player.seek(8020)
        assert player.wait_for(FirstVideoFrame, LONG).pts_ms == 8000
        assert player.position_ms in (8000, 8020)
        player.resume()
        eventually(lambda: player.position_ms > 8020)
        player.seek(19500)
        player.wait(LONG)
        assert player.stop()
        player.play()
        assert player.wait_for(FirstVideoFrame, LONG).pts_ms == 0
        player.open(media("short.mp4"))
        player.play()
        player.wait(LONG)
        assert 400 <= player.duration_ms <= 600


def test_a_source_that_is_not_there_fails_with_a_reason() -> None:
    failed: List[Failed] = []
    with Player(media("missing.mp4"), **OPTIONS) as player:
        player.on(Failed)(failed.append)
        player.play()
        with pytest.raises(PlaybackFailed) as raised:
            player.wait(LONG)
        assert isinstance(player.ended, Failed)
        assert raised.value.kind == FailureKind.STREAM and raised.value.reason
        with pytest.raises(PlaybackFailed):
            player.wait_for(Prepared, LONG)


def test_a_source_that_comes_later_is_played_behind_a_stop(tmp_path: pathlib.Path) -> None:
    path = tmp_path / "film.mp4"
    with Player(path, **OPTIONS) as player:
        player.play()
        with pytest.raises(PlaybackFailed):
            player.wait(LONG)
        path.write_bytes(pathlib.Path(media("short.mp4")).read_bytes())
        player.stop()
        player.play()
        player.wait(LONG)
        assert player.ended == Completed()


def test_what_does_not_fit_is_refused_with_a_reason() -> None:
    with Player(**OPTIONS) as player:
        with pytest.raises(Refused, match="seek"):
            player.seek(0)
        with pytest.raises(Refused):
            player.select_track(TrackKind.AUDIO, 1)
        with pytest.raises(ValueError):
            player.open("a\0b")
        with pytest.raises(TimeoutError):
            player.wait_for(Started, 0.01)
    with pytest.raises(kelp_player.Closed):
        player.set_option("preset", "recommended")
    player.close()


def test_an_exception_in_a_callback_is_logged_and_playback_goes_on(errors: Errors) -> None:
    def fail(_: Any) -> None:
        raise RuntimeError("the host's own")

    heard: List[Event] = []
    with Player(**OPTIONS) as player:
        player.on(Event, fail)
        player.on(Event, heard.append)
        player.add_frame_sink(fail)
        player.open(media("short.mp4"))
        player.run_in_worker(lambda: fail(None))
        player.play()
        player.wait(LONG)
        eventually(lambda: Completed() in heard)
    texts = errors()
    assert any("Prepared" in text for text in texts)
    assert any("_on_frame" in text for text in texts)
    assert any("on_call" in text for text in texts)


def test_a_sink_may_not_wait_for_its_player(errors: Errors) -> None:
    raised: List[BaseException] = []
    done = threading.Event()

    def take(picture: Picture) -> None:
        assert player.statistics.video.track == 0 and player.tracks
        for call in (player.stop, sink.remove, sink.pause, frames.close):
            try:
                call()
            except Refused as error:
                raised.append(error)
        player.run_in_worker(end)

    def end() -> None:
        sink.remove()
        player.stop()
        done.set()

    with Player(**OPTIONS) as player:
        frames = player.frames()
        sink = player.add_frame_sink(take)
        player.open(media("small.mp4"))
        player.play()
        assert done.wait(LONG)
    assert len(raised) >= 4 and len(raised) % 4 == 0 and all("run_in_worker" in str(error) for error in raised)
    assert errors() == []


def test_a_removed_sink_is_kept_until_the_player_has_been_told(monkeypatch: pytest.MonkeyPatch) -> None:
    name = "kelp_player_remove_frame_sink"
    remove = getattr(sinks.lib, name)
    unused: List[List[int]] = []

    def look_and_remove(handle: int, sink: int) -> Any:
        unused.append(list(player._sinks._removed))
        return remove(handle, sink)

    with Player(**OPTIONS) as player:
        sink = player.add_frame_sink(lambda picture: None)
        monkeypatch.setattr(sinks.lib, name, look_and_remove)
        sink.remove()
        sink.remove()
        assert unused == [[]] and player._sinks._removed == [sink.handle]


def test_timers_run_on_the_worker_until_they_are_removed() -> None:
    with Player(**OPTIONS) as player:
        threads = []
        once = threading.Event()
        timer = player.add_timer(5, lambda: threads.append(threading.get_ident()))
        player.add_timer(1, once.set, one_shot=True)
        assert once.wait(LONG)
        eventually(lambda: len(threads) >= 3)
        player.remove_timer(timer)
        eventually(lambda: len(player._calls) == 0)
        worker: List[int] = []
        player.run_in_worker(lambda: worker.append(threading.get_ident()))
        eventually(lambda: worker)
        assert set(threads) == set(worker) != {threading.get_ident()}


def test_pictures_follow_a_clock_of_the_library() -> None:
    with Clock() as clock, Player(media("numbers_video.mp4"), **OPTIONS) as player:
        clock.pause()
        player.set_clock(clock)
        shown: List[int] = []
        player.add_frame_sink(lambda picture: shown.append(picture.pts_ms))
        player.play()
        player.wait_for(FirstVideoFrame, LONG)
        clock.reset(1000)
        assert clock.time_ms == 1000
        eventually(lambda: shown and shown[-1] >= 900)
        clock.resume()
        clock.set_speed(2.0)
        eventually(lambda: shown[-1] > 1400)
        player.set_clock(None)
    assert kelp_player.get_sample_correction_percent_max() == 51
    kelp_player.set_sample_correction_percent_max(10)


def test_pictures_follow_a_clock_of_the_host_that_goes_first() -> None:
    class Standing(HostClock):
        asked = 0

        def get_time_ms(self) -> int:
            self.asked += 1
            return 500

    with Player(media("numbers_video.mp4"), **OPTIONS) as player:
        clock = Standing()
        player.set_clock(clock)
        shown: List[int] = []
        player.add_frame_sink(lambda picture: shown.append(picture.pts_ms))
        player.play()
        eventually(lambda: shown and shown[-1] >= 400)
        assert clock.asked > 0 and shown[-1] < 1000
        clock.close()
        eventually(lambda: shown[-1] >= 1000)


def test_another_sound_is_selected_while_it_plays() -> None:
    with Player(media("two_tracks.mkv"), **OPTIONS) as player:
        player.play()
        player.wait_for(FirstVideoFrame, LONG)
        sounds = [track for track in player.tracks if track.kind == TrackKind.AUDIO]
        other = next(track for track in sounds if not track.is_played)
        player.select_track(TrackKind.AUDIO, other.number)
        assert [track.is_played for track in player.tracks if track.number == other.number] == [True]
        with pytest.raises(Refused):
            player.select_track(TrackKind.AUDIO, 99)


def test_the_shown_picture_becomes_a_file(tmp_path: Any) -> None:
    with Player(media("short.mp4"), **OPTIONS) as player:
        with pytest.raises(Refused):
            player.take_snapshot(tmp_path / "shown.png")
        player.play()
        player.wait()
        player.take_snapshot(tmp_path / "shown.png")
    assert (tmp_path / "shown.png").read_bytes().startswith(b"\x89PNG")


def test_subtitles_come_as_texts_and_as_pictures(tmp_path: Any) -> None:
    (tmp_path / "film.srt").write_text("1\n00:00:00,000 --> 00:00:02,500\nGrüß dich\n", encoding="utf-8")
    inputs = ["-i", media("small.mp4"), "-i", str(tmp_path / "film.srt")]
    tool("ffmpeg", "-v", "error", *inputs, "-map", "0", "-map", "1", "-c", "copy", str(tmp_path / "film.mkv"))
    heard: List[kelp_player.Subtitles] = []
    with Player(tmp_path / "film.mkv", subtitle_track=2, **OPTIONS) as player:
        player.set_subtitle_sink(heard.append, (320, 180))
        player.play()
        eventually(lambda: heard)
        player.set_subtitle_sink(None)
    (line,) = heard[0].lines
    assert line.text == "Grüß dich" and (line.end_ms or 0) > line.start_ms
    for part in heard[0].pictures:
        assert len(part.pixels) == 4 * part.pixel_width * part.pixel_height > 0


def stepped(player: Player, pictures: int) -> bool:
    try:
        player.step_frame(pictures)
    except Refused:
        return False
    return True


def test_a_step_shows_another_picture() -> None:
    with Player(media("small.mp4"), **OPTIONS) as player:
        with pytest.raises(Refused):
            player.step_frame()
        player.play()
        player.wait_for(FirstVideoFrame, LONG)
        player.pause()
        # On a busy machine the film may have been at its end before the pause.
        while not stepped(player, -100):
            player.seek(0)
            player.pause()
        eventually(lambda: player.position_ms == 0)
        player.step_frame(3)
        eventually(lambda: player.position_ms == 120)


def test_a_loop_needs_a_length() -> None:
    with Player(**OPTIONS) as player:
        with pytest.raises(Refused):
            player.set_loop(500, 400)
        player.set_loop()
        player.set_loop(500, 1000)
        player.clear_loop()


def test_sound_is_muted_and_devices_have_names() -> None:
    with Player(**OPTIONS) as player:
        assert not player.muted
        player.muted = True
        assert player.muted
        assert all(isinstance(name, str) for name in kelp_player.audio_devices())


def test_the_log_goes_where_the_host_wants_it(caplog: pytest.LogCaptureFixture) -> None:
    lines: List[str] = []
    level = kelp_player.get_log_level()
    try:
        kelp_player.set_log_level(kelp_player.LogLevel.INFO)
        kelp_player.set_log_callback(lambda line: lines.append(line) if "[Host]" in line else None)
        kelp_player.write_log(kelp_player.LogLevel.WARNING, "Host", "grüß")
        assert len(lines) == 1 and lines[0].endswith("[Host]: grüß\n")
        with caplog.at_level(logging.DEBUG):
            kelp_player.log_to(logging.getLogger("film"))
            kelp_player.write_log(kelp_player.LogLevel.ERROR, "Host", "one")
            kelp_player.write_log(kelp_player.LogLevel.INFO, "Host", "two")
        forwarded = [record for record in caplog.records if "[Host]" in record.getMessage()]
        assert [(record.name, record.levelno, record.getMessage()) for record in forwarded] == [
            ("film", logging.ERROR, "[Host]: one"),
            ("film", logging.INFO, "[Host]: two"),
        ]
        assert len(lines) == 1
    finally:
        kelp_player.set_log_callback(None)
        kelp_player.set_log_level(level)
    gc.collect()
