"""What the host has a player's worker call."""

from __future__ import annotations

from typing import Any, Callable, Dict

from ._lifetime import callback, register
from ._native import call_type


class WorkerCall:
    """A callable for the player's worker."""

    def __init__(self, calls: Dict[int, WorkerCall], function: Callable[[], Any]) -> None:
        self._calls = calls
        self._function = function
        self.number = register(self)
        calls[self.number] = self

    @callback(call_type)
    def on_call(self) -> None:
        self._function()

    @callback(call_type)
    def on_gone(self) -> None:
        self._calls.pop(self.number, None)
