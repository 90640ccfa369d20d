#!/usr/bin/python3
"""An RTSP server on the loopback address for the tests; the class RtspServer starts it.

usage: rtsp_server.py [--port PORT] [--udp-only] [--file NAME=PATH]...

Prints "ready PORT" when it answers, and "teardown" for each session that its client ends. SIGUSR1 lets it hang up on
all of its clients, and serve on. It refuses TCP with --udp-only. It serves

  /h264-aac  /h264-alaw  /hevc-aac  /hevc-alaw  /h264  /hevc
             live: a picture with the machine's monotonic clock in it (see ClockPicture), 320x180, 25 a second, a key
             frame every second, and a tone of 440 Hz
  /size-change-h264  /size-change-hevc
             live, no sound: the picture changes between 320x180 and 640x360 every two seconds
  /NAME      the streams of the file PATH, again and again, in real time

Each client gets a source of its own.
"""

import argparse
import signal
import sys
import threading
import time

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstApp", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstApp, GstRtsp, GstRtspServer  # noqa: E402,F401

FPS = 25
H264 = ("x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 bitrate=800 threads=1 ! "
        "video/x-h264,profile=constrained-baseline ! queue ! rtph264pay config-interval=-1 name=pay0 pt=96")
HEVC = ("x265enc tune=zerolatency speed-preset=ultrafast key-int-max=25 bitrate=800 "
        "option-string=pools=none:frame-threads=1:log-level=none ! queue ! rtph265pay config-interval=-1 name=pay0 pt=96")
AAC = ("audiotestsrc name=tone is-live=true wave=sine freq=440 ! audio/x-raw,rate=48000,channels=2 ! "
       "voaacenc ! aacparse ! queue ! rtpmp4gpay name=pay1 pt=97")
ALAW = ("audiotestsrc name=tone is-live=true wave=sine freq=440 samplesperbuffer=160 ! audio/x-raw,rate=8000,channels=1 ! "
        "alawenc ! queue ! rtppcmapay name=pay1 pt=8")
LIVE = ("appsrc name=clock is-live=true format=time do-timestamp=true max-buffers=1 max-bytes=0 leaky-type=downstream ! "
        "queue")
LIVE_MOUNTS = {
    "h264": (H264, ""),
    "hevc": (HEVC, ""),
    "h264-aac": (H264, AAC),
    "h264-alaw": (H264, ALAW),
    "hevc-aac": (HEVC, AAC),
    "hevc-alaw": (HEVC, ALAW),
    "size-change-h264": (H264, ""),
    "size-change-hevc": (HEVC, ""),
}


class ClockPicture:
    """Grey pictures with a row of 32 black and white blocks over their middle third: the milliseconds of the monotonic
    clock at which the picture was made, the highest bit left. Above and below, a bar moves."""

    def __init__(self, width, height):
        self.width = width
        self.height = height
        self.third = height // 3
        self.block = width // 32
        self.chroma = bytes([128]) * (width * height // 2)

    def make(self, number):
        now_ms = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000000
        bits = b"".join((b"\xeb" if now_ms >> bit & 1 else b"\x10") * self.block for bit in range(31, -1, -1))
        left = number * 4 % (self.width - 16)
        moving = b"\x60" * left + b"\xc0" * 16 + b"\x60" * (self.width - 16 - left)
        rows = [moving] * self.third + [bits.ljust(self.width, b"\x60")] * self.third
        rows += [moving] * (self.height - len(rows))
        return b"".join(rows) + self.chroma

    def caps(self):
        return Gst.Caps.from_string(
            f"video/x-raw,format=I420,width={self.width},height={self.height},framerate={FPS}/1")


class LiveSource:
    """Pushes clock pictures until its media goes."""

    def __init__(self, media, sizes):
        self.source = media.get_element().get_by_name("clock")
        self.pictures = [ClockPicture(*size) for size in sizes]
        self.source.set_property("caps", self.pictures[0].caps())
        self.stopped = threading.Event()
        media.connect("unprepared", lambda _: self.stopped.set())
        tone = media.get_element().get_by_name("tone")
        if tone:
            tone.get_static_pad("src").add_probe(Gst.PadProbeType.QUERY_UPSTREAM, self.refuse_seeking)
        threading.Thread(target=self.run, daemon=True).start()

    @staticmethod
    def refuse_seeking(_, info):
        # The tone's source would say that it can seek, and a client's first PLAY would fail at the pictures.
        seeking = info.get_query().type == Gst.QueryType.SEEKING
        return Gst.PadProbeReturn.DROP if seeking else Gst.PadProbeReturn.OK

    def run(self):
        number = 0
        due = time.monotonic()
        while not self.stopped.is_set():
            # A picture that is pushed during a pause would get a time that counts the pause.
            if self.source.get_state(0).state == Gst.State.PLAYING:
                picture = self.pictures[number // (2 * FPS) % len(self.pictures)]
                sample = Gst.Sample.new(Gst.Buffer.new_wrapped(picture.make(number)), picture.caps(), None, None)
                if self.source.emit("push-sample", sample) == Gst.FlowReturn.EOS:
                    return
                number += 1
            due += 1 / FPS
            late = time.monotonic() - due
            if late > 1:  # stopped by a signal for a while
                due += late
            self.stopped.wait(max(0, -late))


class FileStream:
    """The encoded frames of one stream of a file."""

    PARSE = {
        "video/x-h264": ("h264parse", "video/x-h264,stream-format=byte-stream,alignment=au",
                         "h264parse config-interval=-1 ! rtph264pay config-interval=-1"),
        "video/x-h265": ("h265parse", "video/x-h265,stream-format=byte-stream,alignment=au",
                         "h265parse config-interval=-1 ! rtph265pay config-interval=-1"),
        "audio/mpeg": ("aacparse", "audio/mpeg,stream-format=raw", "rtpmp4gpay"),
        "audio/x-alaw": ("identity", "audio/x-alaw", "rtppcmapay"),
    }

    def __init__(self, caps_name):
        self.parser, self.filter, self.payloader = self.PARSE[caps_name]
        self.frames = []  # bytes, pts, dts, duration
        self.caps = None


class LoopedFile:
    """All frames of a file, read once; each client's media gets them with times that go on from round to round."""

    def __init__(self, path):
        self.streams = []
        pipeline = Gst.parse_launch(f'filesrc location="{path}" ! parsebin name=parse')

        def new_sample(sink, stream):
            sample = sink.emit("pull-sample")
            buffer = sample.get_buffer()
            stream.caps = sample.get_caps()
            dts = buffer.dts if buffer.dts != Gst.CLOCK_TIME_NONE else buffer.pts
            stream.frames.append((buffer.extract_dup(0, buffer.get_size()), buffer.pts, dts, buffer.duration))
            return Gst.FlowReturn.OK

        def pad_added(_, pad):
            stream = FileStream(pad.query_caps(None).get_structure(0).get_name())
            frames = Gst.parse_bin_from_description(
                "queue max-size-bytes=0 max-size-buffers=0 max-size-time=0 ! "
                f"{stream.parser} ! {stream.filter} ! appsink name=sink sync=false emit-signals=true", True)
            frames.get_by_name("sink").connect("new-sample", new_sample, stream)
            pipeline.add(frames)
            frames.sync_state_with_parent()
            pad.link(frames.get_static_pad("sink"))
            self.streams.append(stream)

        pipeline.get_by_name("parse").connect("pad-added", pad_added)
        pipeline.set_state(Gst.State.PLAYING)
        ended = pipeline.get_bus().timed_pop_filtered(30 * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR)
        if ended is None or ended.type != Gst.MessageType.EOS:
            sys.exit(f"can't read {path}")
        pipeline.set_state(Gst.State.NULL)
        self.streams.sort(key=lambda stream: stream.caps.get_structure(0).get_name().startswith("audio"))
        first = min(frame[2] for stream in self.streams for frame in stream.frames)
        self.length = max(frame[1] + frame[3] for stream in self.streams for frame in stream.frames) - first
        for stream in self.streams:
            stream.frames = [(data, pts - first, dts - first, length) for data, pts, dts, length in stream.frames]

    def launch(self):
        return " ".join(f"appsrc name=src{i} format=time max-bytes=200000 ! {stream.payloader} name=pay{i} pt={96 + i}"
                        for i, stream in enumerate(self.streams))

    def feed(self, media):
        for i, stream in enumerate(self.streams):
            self.feed_stream(media.get_element().get_by_name(f"src{i}"), stream)

    def feed_stream(self, source, stream):
        state = {"next": 0}

        def need_data(src, _):
            # Called on the source's own thread whenever it wants a frame.
            count, index = divmod(state["next"], len(stream.frames))
            state["next"] += 1
            data, pts, dts, duration = stream.frames[index]
            buffer = Gst.Buffer.new_wrapped(data)
            buffer.pts = pts + count * self.length
            buffer.dts = dts + count * self.length
            buffer.duration = duration
            src.emit("push-buffer", buffer)

        source.set_property("caps", stream.caps)
        source.connect("need-data", need_data)


def add_mount(mounts, name, launch, configure, udp_only):
    factory = GstRtspServer.RTSPMediaFactory()
    if udp_only:
        factory.set_protocols(GstRtsp.RTSPLowerTrans.UDP)
    factory.set_launch(f"( {launch} )")
    factory.connect("media-configure", lambda _, media: configure(media))
    mounts.add_factory("/" + name, factory)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", default="0")
    parser.add_argument("--udp-only", action="store_true")
    parser.add_argument("--file", action="append", default=[])
    options = parser.parse_args()

    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(options.port)
    server.connect("client-connected", lambda _, client: client.connect(
        "teardown-request", lambda *_: print("teardown", flush=True)))
    mounts = server.get_mount_points()
    for name, (video, audio) in LIVE_MOUNTS.items():
        sizes = [(320, 180), (640, 360)] if name.startswith("size-change") else [(320, 180)]
        add_mount(mounts, name, f"{LIVE} ! {video} {audio}", lambda media, sizes=sizes: LiveSource(media, sizes),
                  options.udp_only)
    for entry in options.file:
        name, _, path = entry.partition("=")
        file = LoopedFile(path)
        add_mount(mounts, name, file.launch(), file.feed, options.udp_only)
    if server.attach(None) == 0:
        sys.exit(f"can't listen on port {options.port}")

    def hang_up():
        server.client_filter(lambda *_: GstRtspServer.RTSPFilterResult.REMOVE)
        return GLib.SOURCE_CONTINUE

    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGUSR1, hang_up)
    print(f"ready {server.get_bound_port()}", flush=True)
    GLib.MainLoop().run()


main()
