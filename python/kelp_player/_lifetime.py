"""Who calls the host, and who ends what it has closed, forgotten, or still has when the interpreter ends.

The library calls functions of this package, which never go, with a number; the object of that number is found as long as
it lives, so nothing that the library holds keeps an object of the host's alive.

What the library has made is ended by one of three: ``close()``; threads of this module, for what was collected, since
the collector runs anywhere, also inside a callback of that very object and under any lock of the host's; or the end of
the interpreter, behind which no callback may come.
"""

from __future__ import annotations

import atexit
import functools
import itertools
import logging
import threading
import weakref
from queue import SimpleQueue
from types import TracebackType
from typing import Any, Callable, Dict, List, Optional, Type, TypeVar

from ._native import decoded
from .errors import Closed, Refused

logger = logging.getLogger("kelp_player")
T = TypeVar("T")
C = TypeVar("C", bound="Closable")


class _Thread(threading.local):
    callbacks = 0  # that this thread is in
    pinned = 0  # of these, such as a player's threads wait for


_thread = _Thread()
_numbers = itertools.count(1)
_hosts: "weakref.WeakValueDictionary[int, Any]" = weakref.WeakValueDictionary()


def register(host: object) -> int:
    """The number by which the library's callbacks find ``host``."""
    number = next(_numbers)
    _hosts[number] = host
    return number


def callback(kind: Any, default: Any = None, pinned: bool = False) -> Callable[[Callable[..., Any]], Any]:
    """Makes a method a callback of ``kind`` that every object of its class is called by.

    An exception in it is logged, and ``default`` returned, as it is when the object is gone. ``pinned``: a player's
    threads are waited for while it runs, so that it may call little of a player.
    """

    def make(method: Callable[..., Any]) -> Any:
        def call_host(number: int, *arguments: Any) -> Any:
            host = _hosts.get(number)
            if host is None:
                return default
            try:
                return method(host, *arguments)
            except BaseException:  # nothing may go on into the library
                logger.exception("exception in a callback, %s", method.__qualname__)
                return default

        def call(number: int, *arguments: Any) -> Any:  # refers to no host, whose __del__ is in the callback too
            _thread.callbacks += 1
            _thread.pinned += pinned
            try:
                return call_host(number, *arguments)
            finally:
                _thread.callbacks -= 1
                _thread.pinned -= pinned

        return kind(call)

    return make


def refuse_when_pinned(operation: str) -> None:
    """Raises where the library would wait for the very thread that this is."""
    if _thread.pinned:
        raise Refused(f"{operation}: not from the callback of a sink or a clock; run_in_worker takes it")


class Native:
    """One object that the library has made, from its making to its end, which comes once.

    Nothing in here may refer to the owner, the host's object, whose end it is to outlive.
    """

    def __init__(self, owner: object, handle: Optional[int], end: Callable[[int], Any]) -> None:
        self._name = type(owner).__name__
        self._handle = handle
        self._end = end
        self._calls = 0  # that are under way; guarded by _idle, as the end of _handle is
        self._idle = threading.Condition(threading.Lock())
        self._ended = threading.Event()
        self.wakes: List[Callable[[], None]] = []  # let go of the player's threads that wait in a callback
        self.detaches: Dict[Any, Callable[[], None]] = {}  # take it back from who uses it
        self.behind: List[Callable[[], Any]] = []  # what is done when it has gone
        self._used: Dict[str, Native] = {}  # what was handed to it, by what for
        self._using = threading.RLock()  # held over a change of what the library uses, and of _used with it
        _live[id(self)] = self
        _start_reapers()
        finalizer = weakref.finalize(owner, reap, self.end)
        finalizer.atexit = False  # _end_all keeps an order

    @property
    def closed(self) -> bool:
        return self._handle is None

    def require(self) -> None:
        """Raises where it is closed."""
        self.call(lambda _: None)

    def call(self, function: Callable[..., T], *arguments: Any) -> T:
        """``function`` of the library, with the handle in front, which isn't ended meanwhile."""
        with self._idle:
            handle = self._handle
            if handle is None:
                raise Closed(f"this {self._name} is closed")
            self._calls += 1
        try:
            return function(handle, *arguments)
        finally:
            with self._idle:
                self._calls -= 1
                if not self._calls:
                    self._idle.notify_all()

    def close(self) -> None:
        """Ends it: here, or, in a callback, as soon as that has returned."""
        if _thread.callbacks:
            reap(self.end)
        else:
            self.end()

    def end(self) -> None:
        with self._idle:
            handle, self._handle = self._handle, None
        if handle is None:
            return
        for step in (*self.wakes, *self.detaches.values()):
            step()
        with self._idle:
            self._idle.wait_for(lambda: not self._calls)
        for step in (*self.detaches.values(),):  # of who was just being given it
            step()
        self._end(handle)
        for purpose in list(self._used):
            self._let_go(purpose)
        for step in self.behind:
            step()
        self._ended.set()
        _live.pop(id(self), None)

    def use(self, purpose: str, function: Callable[..., Any], used: Optional[Native], handle: Optional[int]) -> None:
        """Hands ``handle``, of ``used``, over by ``function``, and takes it back before ``used`` ends.

        To be called in a call of ``used``, whose end waits for it. A callback that waits here does so for as long as
        the library does for a callback, which is limited.
        """
        with self._using:
            self.call(function, handle)
            self._let_go(purpose)
            if used is not None:
                self._used[purpose] = used
                used.detaches[id(self), purpose] = functools.partial(self._take_back, purpose, function, used)

    def _let_go(self, purpose: str) -> None:
        used = self._used.pop(purpose, None)
        if used is not None:
            used.detaches.pop((id(self), purpose), None)

    def _take_back(self, purpose: str, function: Callable[..., Any], used: Native) -> None:
        try:
            with self._using:
                if self._used.get(purpose) is used:
                    self.call(function, None)
                    self._let_go(purpose)
        except Closed:
            self._ended.wait()


class Closable:
    """An object of the host's around one of the library's. ``with`` closes it."""

    _native: Native
    _last_error: Any  # the library's function

    def close(self) -> None:
        """Ends it, and takes it back from who uses it. A second call does nothing."""
        self._native.close()

    @property
    def closed(self) -> bool:
        """It was closed, or is just being closed."""
        return self._native.closed

    @property
    def last_error(self) -> str:
        """Why the last call that failed did so, or what has failed by itself since; or empty."""
        return decoded(self._native.call(self._last_error))

    def __enter__(self: C) -> C:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()


_live: Dict[int, Native] = {}  # those that weren't ended, in the order of their making
_tasks: "SimpleQueue[Optional[Callable[[], None]]]" = SimpleQueue()
_reapers: List[threading.Thread] = []
_reapers_mutex = threading.Lock()
_REAPERS = 4  # an end is mostly waiting for threads of the library
_LONGEST_END_S = 10.0  # on another thread, that the end of the interpreter waits for


def reap(task: Callable[[], None]) -> None:
    """Has a thread of this module do ``task``. To be called from anywhere, as the collector does."""
    _tasks.put(task)  # may interrupt itself


def _run_reaper() -> None:
    while (task := _tasks.get()) is not None:
        try:
            task()
        except Exception:
            logger.exception("exception at the end of an object")
        del task


def _start_reapers() -> None:
    with _reapers_mutex:
        while len(_reapers) < _REAPERS:
            reaper = threading.Thread(target=_run_reaper, name="kelp_player reaper", daemon=True)
            reaper.start()
            _reapers.append(reaper)


def at_end(step: Callable[[], None]) -> Callable[[], None]:
    """Has ``step`` done when the interpreter ends, behind the end of every object."""
    _last_steps.append(step)
    return step


_last_steps: List[Callable[[], None]] = []


@atexit.register
def _end_all() -> None:
    for _ in _reapers:
        _tasks.put(None)
    for reaper in _reapers:
        reaper.join()
    for native in reversed(list(_live.values())):
        native.end()
        native._ended.wait(_LONGEST_END_S)  # where another thread is just closing it
    for step in _last_steps:
        step()
