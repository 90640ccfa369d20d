"""The library's log, one for the process."""

from __future__ import annotations

import ctypes
import enum
import functools
import logging
import re
import threading
from typing import Any, Callable, List, Optional

from ._lifetime import at_end, callback, register
from ._native import call_type, decoded, lib, log_type, utf8
from .errors import check


class LogLevel(enum.IntEnum):
    """How much is written: what is more than the level set isn't."""

    NONE = -1
    FATAL = 0
    ERROR = 1
    WARNING = 2
    INFO = 3  #: the level at the start, which the first player sets
    DEBUG = 4


class _Receiver:
    """The function of one set_log_callback."""

    def __init__(self, function: Callable[[str], Any]) -> None:
        self.function = function
        self.number = register(self)
        self.gone = threading.Event()  # the library won't call it any more

    @callback(log_type)
    def on_line(self, line: bytes) -> None:
        self.function(decoded(line))

    @callback(call_type)
    def on_gone(self) -> None:
        self.gone.set()


_NO_LINE: Any = ctypes.cast(0, log_type)
_NO_CALL: Any = ctypes.cast(0, call_type)
_receivers: List[_Receiver] = []  # the present one last, behind those that may still be called
_mutex = threading.Lock()


def set_log_callback(function: Optional[Callable[[str], Any]]) -> None:
    """Sends every line of the library's log to ``function``; None returns them to the standard output.

    It is called on the thread that logs, one call at a time, and must call nothing of this package. A line of another
    thread's may still come to the one before when this has returned. FFmpeg's own lines go to the standard error as
    ever.
    """
    with _mutex:
        _receivers[:] = [receiver for receiver in _receivers if not receiver.gone.is_set()]
        if function is None:
            check(lib.kelp_log_set_callback(_NO_LINE, None, _NO_CALL))
        else:
            _receivers.append(_Receiver(function))
            check(lib.kelp_log_set_callback(_Receiver.on_line, _receivers[-1].number, _Receiver.on_gone))


_LINE = re.compile(r"\((FATAL|ERROR|WARN|Info|DEBUG)\)\x1b\[0m (.*)", re.DOTALL)
_LEVELS = {
    "FATAL": logging.CRITICAL,
    "ERROR": logging.ERROR,
    "WARN": logging.WARNING,
    "Info": logging.INFO,
    "DEBUG": logging.DEBUG,
}


def log_to(target: Optional[logging.Logger]) -> None:
    """Sends the library's log to a logger, at its level and without date and thread; None to the standard output.

    What the library is to write at all is still for ``set_log_level`` to say.
    """
    if target is None:
        set_log_callback(None)
        return

    set_log_callback(functools.partial(_forward, target))


def _forward(target: logging.Logger, line: str) -> None:
    found = _LINE.search(line)
    level, text = (_LEVELS[found[1]], found[2]) if found else (logging.INFO, line)
    target.log(level, "%s", text.rstrip())


@at_end
def _return_to_the_console() -> None:
    if _receivers:
        set_log_callback(None)
        for receiver in _receivers:
            receiver.gone.wait(10)  # a line of a host's own thread may just be in it


def set_log_level(level: LogLevel) -> None:
    """How much is written. The option ``log_level`` of a player sets FFmpeg's as well."""
    lib.kelp_log_set_level(level)


def get_log_level() -> LogLevel:
    """The level that is set."""
    return LogLevel(lib.kelp_log_get_level())


def write_log(level: LogLevel, tag: str, text: str) -> None:
    """Writes a line of the host's."""
    check(lib.kelp_log_write(level, utf8(tag), utf8(text + "\n")))
