"""What a player has told, for the threads of the host that wait for it."""

from __future__ import annotations

import threading
import weakref
from queue import Empty, SimpleQueue
from typing import Dict, Iterator, Optional, Type, TypeVar

from .errors import Closed, PlaybackFailed
from .events import Event, Failed

E = TypeVar("E", bound=Event)


class Board:
    """The newest event of each kind. Knows nothing of the player, whose end it is to outlive."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._seen: Dict[Type[Event], Event] = {}  # guarded by _changed, like the next two
        self._closed = False
        self._queues: "weakref.WeakSet[Events]" = weakref.WeakSet()

    def post(self, event: Event) -> None:
        with self._changed:
            self._seen[type(event)] = event
            for queue in self._queues:
                queue.put(event)
            self._changed.notify_all()

    def forget(self, *kinds: Type[Event]) -> None:
        """Forgets these kinds, or all."""
        with self._changed:
            for kind in kinds or tuple(self._seen):
                self._seen.pop(kind, None)

    def get(self, kind: Type[E]) -> Optional[E]:
        with self._changed:
            event = self._seen.get(kind)
        return event if isinstance(event, kind) else None

    def wait_for(self, kind: Type[E], timeout: Optional[float]) -> E:
        """The newest event of ``kind``, there already or to come."""
        with self._changed:
            self._changed.wait_for(lambda: self._closed or kind in self._seen or Failed in self._seen, timeout)
            event = self.get(kind)
            if event is not None:
                return event
            failed = self.get(Failed)
            if failed is not None:
                raise PlaybackFailed(failed.kind, failed.reason)
            if self._closed:
                raise Closed("the player was closed")
            raise TimeoutError(f"no {kind.__name__} within {timeout} s")

    def queue(self, timeout: Optional[float]) -> Events:
        queue = Events(timeout)
        with self._changed:
            if self._closed:
                queue.put(None)
            self._queues.add(queue)
        return queue

    def close(self) -> None:
        with self._changed:
            self._closed = True
            for queue in self._queues:
                queue.put(None)
            self._changed.notify_all()


class Events(Iterator[Event]):
    """The events from ``Player.events`` on, in order. It ends with the player."""

    def __init__(self, timeout: Optional[float]) -> None:
        self._timeout = timeout
        self._queue: "SimpleQueue[Optional[Event]]" = SimpleQueue()
        self.put = self._queue.put

    def __next__(self) -> Event:
        try:
            event = self._queue.get(timeout=self._timeout)
        except Empty:
            raise TimeoutError(f"no event within {self._timeout} s") from None
        if event is None:
            self.put(None)
            raise StopIteration
        return event

    def poll(self) -> Iterator[Event]:
        """Those that have come by now, for a host with a loop of its own."""
        while not self._queue.empty():
            event = self._queue.get()
            if event is None:
                self.put(None)
                return
            yield event
