"""Who ends what: the host, the collector, or the interpreter with its end."""

import concurrent.futures
import ctypes
import gc
import os
import sys
import threading
import weakref
from typing import Any, Dict, List, Optional, Tuple

import kelp_player
import pytest
from conftest import LONG, OPTIONS, eventually, media, python
from kelp_player import Clock, Completed, FirstVideoFrame, FrameReader, Player, Recorder
from kelp_player import _lifetime

HEAD = """
import os, sys, time
os.environ["SDL_VIDEODRIVER"] = os.environ["SDL_AUDIODRIVER"] = "dummy"
import kelp_player
from kelp_player import *
"""


def _threads() -> int:
    return len(os.listdir("/proc/self/task"))


def _descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


class _Mallinfo2(ctypes.Structure):
    _fields_ = [
        (name, ctypes.c_size_t)
        for name in "arena ordblks smblks hblks hblkhd usmblks fsmblks uordblks fordblks keepcost".split()
    ]


def _allocated() -> int:
    """The bytes that are allocated outside of Python's own heap, and not freed."""
    process = ctypes.CDLL(None)
    if hasattr(process, "__sanitizer_get_current_allocated_bytes"):
        process.__sanitizer_get_current_allocated_bytes.restype = ctypes.c_size_t
        return int(process.__sanitizer_get_current_allocated_bytes())
    process.mallinfo2.restype = _Mallinfo2
    info = process.mallinfo2()
    return int(info.uordblks + info.hblkhd)


def _all_ended() -> bool:
    return not _lifetime._live


def test_a_thousand_players_that_are_dropped_leave_nothing() -> None:
    def drop(count: int) -> None:
        playing: List[Player] = []
        for number in range(count):
            player = Player(log_level="none")
            player.on(Completed, lambda event, again=player.seek: again(0))  # a cycle
            player.run_in_worker(lambda: None)
            if number % 5 == 0:
                player.add_frame_sink(lambda picture: None)
                player.open(media("short.mp4"))
                player.play()
                playing.append(player)
            if number % 50 == 49:
                for each in playing:
                    each.wait_for(FirstVideoFrame, LONG)
                del player, each
                playing.clear()
                gc.collect()
                eventually(_all_ended, "the end of all players")

    drop(200)  # what the first ones allocate for good
    threads, descriptors, allocated, objects = _threads(), _descriptors(), _allocated(), sys.getallocatedblocks()
    drop(1000)
    eventually(lambda: _threads() <= threads)
    assert _descriptors() <= descriptors
    assert len(_lifetime._hosts) == 0
    assert sys.getallocatedblocks() - objects < 5000  # of Python's, five for a player
    # An engine and its demuxer, without a file, stay for good: 8 KB for a player, whether it has played or not.
    print("bytes for a player:", (_allocated() - allocated) / 1000)
    assert _allocated() - allocated < 1000 * 12000


def test_a_player_can_be_dropped_in_its_own_callback() -> None:
    held: List[Any] = []
    dropped = threading.Event()

    def drop(_: object) -> None:
        held.clear()
        gc.collect()
        dropped.set()

    player = Player(**OPTIONS)
    gone = weakref.ref(player)
    player.add_frame_sink(drop)
    player.open(media("small.mp4"))
    held.append(player)
    del player
    held[0].play()
    assert dropped.wait(LONG)
    eventually(_all_ended)
    assert gone() is None


def test_a_player_can_be_closed_in_its_own_callback() -> None:
    player = Player(media("small.mp4"), **OPTIONS)
    player.on(FirstVideoFrame, lambda event: player.close())
    player.play()
    eventually(lambda: player.closed)
    eventually(lambda: player._native not in _lifetime._live.values())


def test_a_reader_that_is_dropped_lets_go_of_the_thread_that_waits_for_its_host() -> None:
    reader = FrameReader(media("numbers.mp4"), timeout=LONG, log_level="none")
    box = reader._box
    eventually(lambda: len(box._pictures) == 4)  # and the next one waits for room
    del reader
    gc.collect()
    eventually(_all_ended)


def test_what_a_player_uses_may_be_dropped_before_it_or_with_it() -> None:
    for _ in range(5):
        player, clock, recorder = Player(media("short.mp4"), **OPTIONS), Clock(), Recorder()
        player.set_clock(clock)
        player.set_recorder(recorder)
        player.play()
        player.wait_for(FirstVideoFrame, LONG)
        clock.close()
        del player, clock, recorder
    gc.collect()
    eventually(_all_ended)


def test_a_clock_outlives_many_players_without_growing() -> None:
    with Clock() as clock:
        for _ in range(20):
            with Player(log_level="none") as player:
                player.set_clock(clock)
        assert not clock._native.detaches


def test_an_object_ends_when_the_calls_of_other_threads_have_returned() -> None:
    class Owner:
        pass

    steps: List[str] = []
    called, goes_on, wakes = threading.Event(), threading.Event(), threading.Event()

    def call(handle: int) -> None:
        called.set()
        assert goes_on.wait(LONG)
        steps.append(f"call {handle}")

    owner = Owner()
    native = _lifetime.Native(owner, 7, lambda handle: steps.append(f"end {handle}"))
    native.wakes.append(wakes.set)
    caller = threading.Thread(target=native.call, args=(call,))
    caller.start()
    assert called.wait(LONG)
    ender = threading.Thread(target=native.close)
    ender.start()
    assert wakes.wait(LONG)
    with pytest.raises(kelp_player.Closed):
        native.call(call)
    goes_on.set()
    ender.join()
    caller.join()
    assert steps == ["call 7", "end 7"]


def test_what_is_just_being_handed_over_is_taken_back_before_it_ends() -> None:
    class Owner:
        pass

    steps: List[str] = []
    called, goes_on, wakes = threading.Event(), threading.Event(), threading.Event()

    def give(user: int, handle: Optional[int]) -> None:
        if handle:
            called.set()
            assert goes_on.wait(LONG)
        steps.append(f"{user} uses {handle}")

    owners = Owner(), Owner()
    user = _lifetime.Native(owners[0], 1, lambda handle: None)
    used = _lifetime.Native(owners[1], 2, lambda handle: steps.append(f"end {handle}"))
    used.wakes.append(wakes.set)
    giver = threading.Thread(target=used.call, args=(lambda handle: user.use("test", give, used, handle),))
    giver.start()
    assert called.wait(LONG)
    ender = threading.Thread(target=used.close)
    ender.start()
    assert wakes.wait(LONG)
    goes_on.set()
    ender.join()
    giver.join()
    user.close()
    assert steps == ["1 uses 2", "1 uses None", "end 2"]


def test_what_was_replaced_is_not_taken_back() -> None:
    class Owner:
        pass

    steps: List[Optional[int]] = []
    owners = Owner(), Owner(), Owner()
    user, first, second = (_lifetime.Native(owner, index, lambda handle: None) for index, owner in enumerate(owners, 1))

    def give(used: _lifetime.Native) -> None:
        used.call(lambda handle: user.use("test", lambda _, given: steps.append(given), used, handle))

    give(first)
    first.wakes.append(lambda: give(second))  # while the first one is about to be taken back
    first.close()
    assert steps == [2, 3]
    second.close()
    assert steps == [2, 3, None]
    user.close()


def test_a_host_that_goes_with_its_callback_is_in_it_still() -> None:
    in_callbacks: List[int] = []

    class Host:
        def __init__(self) -> None:
            self.number = _lifetime.register(self)

        def drop(self) -> None:
            held.clear()

        def __del__(self) -> None:
            in_callbacks.append(_lifetime._thread.callbacks)

    held = [Host()]
    _lifetime.callback(lambda function: function)(Host.drop)(held[0].number)
    assert in_callbacks == [1] and _lifetime._thread.callbacks == 0


def test_an_object_that_is_dropped_is_ended_by_another_thread() -> None:
    class Owner:
        pass

    threads: List[int] = []
    owner = Owner()
    _lifetime.Native(owner, 7, lambda handle: threads.append(threading.get_ident()))
    del owner
    eventually(lambda: threads)
    assert threads != [threading.get_ident()]


def test_who_waits_is_told_of_the_end() -> None:
    player = Player(media("small.mp4"), **OPTIONS)
    raised: List[BaseException] = []

    def wait() -> None:
        try:
            player.wait()
        except BaseException as error:
            raised.append(error)

    waiter = threading.Thread(target=wait)
    waiter.start()
    player.close()
    waiter.join(LONG)
    assert [type(error) for error in raised] == [kelp_player.Closed]


PLAYING = """
player = Player(sys.argv[1], preset="recommended", log_level="debug")
lines = []
set_log_callback(lines.append)
player.on(Event, lambda event: None)
player.add_frame_sink(lambda picture: None, repaints=True)
player.add_timer(1, lambda: None)
frames = player.frames()
class Slow:
    def __del__(self, sleep=time.sleep):
        sleep(0.3)  # the interpreter is about to go, and callbacks would come
sys.slow = Slow()
receiver = UdpReceiver(lambda data: None)
player.play()
player.wait_for(FirstVideoFrame, 60)
"""
ENDS = ["pass", "sys.exit(0)", "raise SystemExit(0)", "del player; sys.exit(0)"]

# Interpreters that end in the middle of something. The last argument is a file to be written.
PROGRAMS = {
    **{end: PLAYING + end for end in ENDS},
    "closing": """
import threading
from kelp_player import _lifetime
class Owner: pass
owner = Owner()
native = _lifetime.Native(owner, 7, lambda handle: (time.sleep(0.5), os.write(1, b"gone")))
threading.Thread(target=native.close, daemon=True).start()
while not native.closed:
    time.sleep(0.01)
""",
    "reading": """
film = FrameReader(sys.argv[1], timeout=60, log_level="none")
next(film)
while len(film._box._pictures) < 4:
    time.sleep(0.01)
""",
    "recording": """
class Told(Recorder):
    def on_file_ended(self, path, duration_ms):
        print("complete:", path)
player = Player(sys.argv[1], preset="recommended", log_level="none")
recorder = Told()
player.set_recorder(recorder)
recorder.start(sys.argv[2])
player.play()
player.wait_for(FirstVideoFrame, 60)  # the file isn't read to its end so soon
""",
    "raising": """
player = Player(sys.argv[1], preset="recommended", log_level="none")
player.play()
for picture in player.frames():
    raise RuntimeError("the host's own")
""",
}


@pytest.fixture(scope="module")
def recording(tmp_path_factory: pytest.TempPathFactory) -> str:
    return str(tmp_path_factory.mktemp("recording") / "film.mp4")


@pytest.fixture(scope="module")
def ended(recording: str) -> Dict[str, Tuple[int, str]]:
    """The exit code and the words of each of these interpreters, which run at the same time."""
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        runs = [pool.submit(python, HEAD + code, media("numbers.mp4"), recording) for code in PROGRAMS.values()]
    return {name: run.result() for name, run in zip(PROGRAMS, runs)}


@pytest.mark.parametrize("end", ENDS)
def test_an_interpreter_ends_while_a_player_plays(end: str, ended: Dict[str, Tuple[int, str]]) -> None:
    code, text = ended[end]
    assert (code, [line for line in text.splitlines() if "Error" in line or "rror:" in line]) == (0, []), text


def test_an_interpreter_ends_behind_an_object_that_another_thread_is_closing(ended: Dict[str, Tuple[int, str]]) -> None:
    assert ended["closing"] == (0, "gone")


def test_an_interpreter_ends_while_a_reader_waits_for_its_host(ended: Dict[str, Tuple[int, str]]) -> None:
    code, text = ended["reading"]
    assert code == 0 and "Error" not in text, text


def test_a_recording_is_complete_when_the_interpreter_ends(ended: Dict[str, Tuple[int, str]], recording: str) -> None:
    code, text = ended["recording"]
    assert code == 0 and f"complete: {recording}\n" in text, text
    with kelp_player.FrameReader(recording, timeout=LONG, log_level="none") as film:
        assert film.duration_ms > 0
        next(film)


def test_an_interpreter_ends_with_an_exception_of_the_host(ended: Dict[str, Tuple[int, str]]) -> None:
    code, text = ended["raising"]
    assert code == 1 and "the host's own" in text and "Fatal" not in text
