"""The library's C interface, as kelp_player/kelp_player_c.h declares it, for ctypes.

Names, order and types are the header's; tests/python/test_native.py compares the two.
"""

from __future__ import annotations

import ctypes
import os
from ctypes import (
    CFUNCTYPE,
    POINTER,
    Structure,
    c_char,
    c_char_p,
    c_double,
    c_float,
    c_int,
    c_int64,
    c_size_t,
    c_ubyte,
    c_uint,
    c_uint16,
    c_void_p,
)
from typing import Any, Optional, Union

Text = Union[str, bytes, "os.PathLike[str]"]


def _load() -> ctypes.CDLL:
    name = os.environ.get("KELP_PLAYER_LIBRARY", "libkelp_player.so.0")
    try:
        return ctypes.CDLL(name)
    except OSError as error:
        raise ImportError(f"{error}; install libkelp-player0, or set KELP_PLAYER_LIBRARY to the library") from None


lib = _load()


class _Sized(Structure):
    """A struct that begins with its size."""

    def __init__(self, **fields: Any) -> None:
        super().__init__(ctypes.sizeof(self), **fields)


# ---- Callbacks ----

call_type = CFUNCTYPE(None, c_void_p)
log_type = CFUNCTYPE(None, c_void_p, c_char_p)
datagram_type = CFUNCTYPE(None, c_void_p, c_void_p, c_int)
event_type = CFUNCTYPE(None, c_void_p, c_void_p)
event_1_type = CFUNCTYPE(None, c_void_p, c_void_p, c_int)
event_2_type = CFUNCTYPE(None, c_void_p, c_void_p, c_int, c_int)
event_3_type = CFUNCTYPE(None, c_void_p, c_void_p, c_int, c_int, c_int)
size_type = CFUNCTYPE(None, c_void_p, c_int, c_int, c_int)
time_type = CFUNCTYPE(c_int64, c_void_p)
flag_type = CFUNCTYPE(c_int, c_void_p)
path_type = CFUNCTYPE(None, c_void_p, c_char_p)
path_time_type = CFUNCTYPE(None, c_void_p, c_char_p, c_int64)
count_type = CFUNCTYPE(None, c_void_p, c_int)
path_reason_type = CFUNCTYPE(None, c_void_p, c_char_p, c_char_p)


class kelp_player_events(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("on_video_size", event_3_type),
        ("on_prepared", event_2_type),
        ("on_started", event_type),
        ("on_failed", event_1_type),
        ("on_first_video_frame", event_1_type),
        ("on_first_audio_frame", event_1_type),
        ("on_completed", event_type),
        ("on_duration_updated", event_1_type),
        ("on_stalled", event_type),
        ("on_buffering", event_2_type),
        ("on_stall_ended", event_type),
    ]


class kelp_frame(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("pix_format", c_int),
        ("width", c_int),
        ("height", c_int),
        ("rotate", c_int),
        ("pts_ms", c_int64),
        ("frame_tag", c_int64),
        ("data", c_void_p * 8),
        ("line_size", c_int * 8),
    ]


frame_type = CFUNCTYPE(None, c_void_p, POINTER(kelp_frame))


class kelp_frame_sink_calls(_Sized):
    _fields_ = [("size", c_size_t), ("user", c_void_p), ("on_size", size_type), ("on_frame", frame_type)]


class kelp_track(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("number", c_int),
        ("kind", c_int),
        ("codec", c_char_p),
        ("language", c_char_p),
        ("title", c_char_p),
        ("is_default", c_int),
        ("is_attached_picture", c_int),
        ("is_playable", c_int),
        ("is_played", c_int),
        ("width", c_int),
        ("height", c_int),
        ("sample_rate", c_int),
        ("channels", c_int),
        ("frame_rate", c_double),
    ]


class kelp_statistics(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("restarts", c_int),
        ("last_failure", c_int),
        ("live_delay_ms", c_double),
        ("live_jitter_ms", c_double),
        ("packet_sink_ms", c_double),
        ("packet_sink_longest_ms", c_double),
        ("video_track", c_int),
        ("video_codec", c_char * 32),
        ("video_decoder", c_char * 32),
        ("video_is_hardware", c_int),
        ("video_packets", c_int64),
        ("video_bytes", c_int64),
        ("video_bit_rate", c_int64),
        ("video_queue_count", c_int),
        ("video_queue_ms", c_int64),
        ("video_width", c_int),
        ("video_height", c_int),
        ("video_frame_rate", c_double),
        ("video_decoded", c_int64),
        ("video_shown", c_int64),
        ("video_late", c_int64),
        ("video_repeated", c_int64),
        ("video_pictures_count", c_int),
        ("video_pictures_ms", c_int64),
        ("video_ahead_of_master_ms", c_int64),
        ("audio_track", c_int),
        ("audio_codec", c_char * 32),
        ("audio_decoder", c_char * 32),
        ("audio_is_hardware", c_int),
        ("audio_packets", c_int64),
        ("audio_bytes", c_int64),
        ("audio_bit_rate", c_int64),
        ("audio_queue_count", c_int),
        ("audio_queue_ms", c_int64),
        ("audio_sample_rate", c_int),
        ("audio_channels", c_int),
        ("audio_decoded", c_int64),
        ("audio_blocks", c_int64),
        ("audio_underruns", c_int64),
        ("audio_output", c_int),
        ("audio_sound_count", c_int),
        ("audio_sound_ms", c_int64),
        ("audio_ahead_of_master_ms", c_int64),
    ]


class kelp_packet_stream(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("track", c_int),
        ("kind", c_int),
        ("codec", c_char_p),
        ("time_base_num", c_int),
        ("time_base_den", c_int),
        ("width", c_int),
        ("height", c_int),
        ("frame_rate", c_double),
        ("sample_rate", c_int),
        ("channels", c_int),
        ("configuration", c_void_p),
        ("configuration_size", c_int),
        ("parameters", c_void_p),
    ]


class kelp_packet(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("track", c_int),
        ("kind", c_int),
        ("data", c_void_p),
        ("data_size", c_int),
        ("is_key_frame", c_int),
        ("pts", c_int64),
        ("dts", c_int64),
        ("duration", c_int64),
        ("packet", c_void_p),
    ]


streams_type = CFUNCTYPE(None, c_void_p, POINTER(POINTER(kelp_packet_stream)), c_size_t)
packet_type = CFUNCTYPE(None, c_void_p, POINTER(kelp_packet))


class kelp_packet_sink_calls(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("on_streams", streams_type),
        ("on_packet", packet_type),
        ("on_gap", call_type),
        ("on_end", call_type),
    ]


class kelp_subtitle_line(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("start_ms", c_int64),
        ("end_ms", c_int64),
        ("text", c_char_p),
        ("styled", c_char_p),
    ]


class kelp_subtitle_picture(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("x", c_int),
        ("y", c_int),
        ("width", c_int),
        ("height", c_int),
        ("pixel_width", c_int),
        ("pixel_height", c_int),
        ("pixels", c_void_p),
    ]


class kelp_subtitles(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("time_ms", c_int64),
        ("script", c_char_p),
        ("lines", POINTER(POINTER(kelp_subtitle_line))),
        ("line_count", c_size_t),
        ("pictures", POINTER(POINTER(kelp_subtitle_picture))),
        ("picture_count", c_size_t),
    ]


subtitles_type = CFUNCTYPE(None, c_void_p, POINTER(kelp_subtitles))
picture_size_type = CFUNCTYPE(None, c_void_p, POINTER(c_int), POINTER(c_int))


class kelp_subtitle_sink_calls(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("on_subtitles", subtitles_type),
        ("get_picture_size", picture_size_type),
    ]


class kelp_recorder_events(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("on_file_begun", path_type),
        ("on_file_ended", path_time_type),
        ("on_packets_lost", count_type),
        ("on_failed", path_reason_type),
    ]


class kelp_recorder_limits(_Sized):
    _fields_ = [("size", c_size_t), ("file_ms", c_int64), ("file_bytes", c_int64), ("waiting_bytes", c_int64)]


class kelp_clock_calls(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("get_time_ms", time_type),
        ("get_no_sync_threshold_ms", time_type),
        ("is_force_sync", flag_type),
    ]


class kelp_muxer_video(_Sized):
    _fields_ = [
        ("size", c_size_t),
        ("codec", c_int),
        ("width", c_int),
        ("height", c_int),
        ("pix_format", c_int),
        ("parameters", c_void_p),
    ]


# ---- Functions ----


def _declare(result: Any, **functions: Any) -> None:
    for name, arguments in functions.items():
        function = getattr(lib, "kelp_" + name)
        function.restype = result
        function.argtypes = arguments


_handle = c_void_p
_declare(
    None,
    log_set_level=[c_int],
    player_destroy=[_handle],
    frame_sink_destroy=[_handle],
    tracks_free=[_handle],
    audio_devices_free=[_handle],
    packet_sink_destroy=[_handle],
    subtitle_sink_destroy=[_handle],
    recorder_destroy=[_handle],
    clock_destroy=[_handle],
    set_sample_correction_percent_max=[c_int],
    muxer_destroy=[_handle],
    udp_receiver_destroy=[_handle],
    udp_sender_destroy=[_handle],
)
_declare(
    _handle,
    player_create=[POINTER(kelp_player_events)],
    frame_sink_create=[POINTER(kelp_frame_sink_calls)],
    player_get_tracks=[_handle],
    get_audio_devices=[],
    packet_sink_create=[POINTER(kelp_packet_sink_calls)],
    subtitle_sink_create=[POINTER(kelp_subtitle_sink_calls)],
    recorder_create=[POINTER(kelp_recorder_events)],
    recorder_get_sink=[_handle],
    clock_create=[c_int64, c_int64],
    clock_create_own=[POINTER(kelp_clock_calls)],
    muxer_create=[],
    udp_receiver_create=[datagram_type, c_void_p],
    udp_sender_create=[],
)
_declare(
    c_char_p,
    version=[],
    audio_devices_name=[_handle, c_size_t],
    last_error=[],
    player_last_error=[_handle],
    recorder_last_error=[_handle],
    muxer_last_error=[_handle],
    udp_receiver_last_error=[_handle],
    udp_sender_last_error=[_handle],
    clock_last_error=[_handle],
    tracks_last_error=[_handle],
    audio_devices_last_error=[_handle],
    packet_sink_last_error=[_handle],
)
_declare(c_int64, player_get_info=[_handle, c_int], clock_get_time_ms=[_handle])
_declare(c_size_t, tracks_count=[_handle], audio_devices_count=[_handle])
_declare(c_uint, player_add_timer=[_handle, c_uint, c_int, call_type, c_void_p, call_type])
_declare(
    c_int,
    log_set_callback=[log_type, c_void_p, call_type],
    log_get_level=[],
    log_write=[c_int, c_char_p, c_char_p],
    player_set_data_source=[_handle, c_char_p, c_int],
    player_prepare_async=[_handle],
    player_start=[_handle],
    player_pause=[_handle],
    player_resume=[_handle],
    player_seek=[_handle, c_int],
    player_stop=[_handle],
    player_reset=[_handle],
    player_get_current_time=[_handle],
    player_get_duration=[_handle],
    player_set_volume=[_handle, c_float],
    player_set_speed=[_handle, c_float],
    player_set_mute=[_handle, c_int],
    player_is_muted=[_handle],
    player_enable_hw_decoder=[_handle, c_int, c_int],
    player_set_sync_master=[_handle, c_int],
    player_set_option=[_handle, c_char_p, c_char_p],
    player_run_in_worker=[_handle, call_type, c_void_p, call_type],
    player_remove_timer=[_handle, c_uint],
    player_add_window=[_handle, c_void_p, c_int, c_int, c_int],
    player_remove_window=[_handle, c_void_p],
    player_pause_window=[_handle, c_void_p, c_int],
    player_add_frame_sink=[_handle, _handle],
    player_remove_frame_sink=[_handle, _handle],
    player_pause_frame_sink=[_handle, _handle, c_int],
    tracks_get=[_handle, c_size_t, POINTER(kelp_track)],
    player_select_track=[_handle, c_int, c_int],
    player_take_snapshot=[_handle, c_char_p],
    player_step_frame=[_handle, c_int],
    player_set_loop=[_handle, c_int, c_int],
    player_clear_loop=[_handle],
    player_get_statistics=[_handle, POINTER(kelp_statistics)],
    player_set_packet_sink=[_handle, _handle],
    player_set_subtitle_sink=[_handle, _handle],
    packet_sink_put_streams=[_handle, POINTER(POINTER(kelp_packet_stream)), c_size_t],
    packet_sink_put_packet=[_handle, POINTER(kelp_packet)],
    packet_sink_put_gap=[_handle],
    packet_sink_put_end=[_handle],
    recorder_start=[_handle, c_char_p, POINTER(kelp_recorder_limits)],
    recorder_stop=[_handle],
    recorder_is_recording=[_handle],
    clock_pause=[_handle],
    clock_resume=[_handle],
    clock_reset=[_handle, c_int64],
    clock_set_speed=[_handle, c_double],
    player_set_clock=[_handle, _handle],
    player_set_offset=[_handle, c_int],
    get_sample_correction_percent_max=[],
    muxer_set_option=[_handle, c_char_p, c_char_p],
    muxer_open=[_handle, c_char_p, POINTER(kelp_muxer_video), c_int64],
    muxer_output_frame=[_handle, c_char_p, c_uint, c_int64, c_int],
    muxer_stop=[_handle],
    muxer_close=[_handle],
    udp_receiver_start=[_handle, c_uint16],
    udp_receiver_stop=[_handle],
    udp_sender_start=[_handle, c_char_p, c_uint16],
    udp_sender_send=[_handle, c_char_p, c_int],
    udp_sender_stop=[_handle],
)

# ---- Texts and bytes ----


def encoded(path: Text) -> bytes:
    """A path or URL as the library takes it: the bytes that the system has for it."""
    return _without_zeros(os.fsencode(path))


def utf8(text: object) -> bytes:
    """Another text, in UTF-8 whatever the locale; paths among the options as above."""
    if isinstance(text, (bytes, os.PathLike)):
        return encoded(text)
    return _without_zeros(str(text).encode("utf-8", "surrogateescape"))


def _without_zeros(data: bytes) -> bytes:
    if b"\0" in data:
        raise ValueError("a text for the library holds a zero")
    return data


def decoded(text: Optional[bytes]) -> str:
    return (text or b"").decode("utf-8", "replace")


def memory(address: Optional[int], size: int) -> Any:
    """The ``size`` bytes at ``address``, which stay whose they are: memoryview() takes it."""
    return (c_ubyte * size).from_address(address) if address and size > 0 else (c_ubyte * 0)()
