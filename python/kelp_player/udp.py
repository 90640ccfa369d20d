"""Datagrams."""

from __future__ import annotations

from typing import Any, Callable, Optional, Union

from ._lifetime import Closable, Native, callback, register
from ._native import datagram_type, lib, memory, utf8
from .errors import check


class UdpReceiver(Closable):
    """Receives the datagrams of one IPv4 port on a thread of its own. For one thread at a time."""

    _last_error = lib.kelp_udp_receiver_last_error

    def __init__(self, on_data: Callable[[bytes], Any]) -> None:
        """``on_data`` gets each datagram, of up to 2000 bytes, on the receiver's thread."""
        self._on_data = on_data
        self._number = register(self)
        handle = check(lib.kelp_udp_receiver_create(UdpReceiver._on_datagram, self._number))
        self._native = Native(self, handle, lib.kelp_udp_receiver_destroy)

    def start(self, port: int) -> None:
        """Opens a port on all interfaces. Does nothing if it runs already."""
        check(self._native.call(lib.kelp_udp_receiver_start, port))

    def stop(self) -> None:
        """Closes the port and waits for the thread; not from ``on_data``."""
        check(self._native.call(lib.kelp_udp_receiver_stop))

    @callback(datagram_type)
    def _on_datagram(self, data: Optional[int], size: int) -> None:
        self._on_data(bytes(memory(data, size)))


class UdpSender(Closable):
    """Sends datagrams to one IPv4 destination. One call at a time."""

    _last_error = lib.kelp_udp_sender_last_error

    def __init__(self) -> None:
        self._native = Native(self, check(lib.kelp_udp_sender_create()), lib.kelp_udp_sender_destroy)

    def start(self, address: str, port: int) -> None:
        """Opens a socket for an address, as dotted text, and a port; a second start ends the first."""
        check(self._native.call(lib.kelp_udp_sender_start, utf8(address), port))

    def send(self, data: Union[bytes, bytearray, memoryview]) -> int:
        """Sends one datagram, waiting for room if need be. The number of bytes sent."""
        datagram = bytes(data)
        sent = self._native.call(lib.kelp_udp_sender_send, datagram, len(datagram))
        check(sent >= 0)
        return int(sent)

    def stop(self) -> None:
        """Closes the socket."""
        check(self._native.call(lib.kelp_udp_sender_stop))
