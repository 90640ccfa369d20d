#!/usr/bin/python3
"""Records one H.264 stream that is published to it by RTSP, as start-coded frames, with GStreamer's server.

usage: rtsp_recorder.py FILE. Prints the port on a line of its own as soon as it listens on the loopback address; the
path is /live. Ends when the publisher has gone and the file is complete.
"""
import ctypes
import signal
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

PR_SET_PDEATHSIG = 1


def main():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    Gst.init(None)
    loop = GLib.MainLoop()

    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_transport_mode(GstRtspServer.RTSPTransportMode.RECORD)
    # What is still on its way to the file when the publisher goes is written.
    factory.set_eos_shutdown(True)
    factory.set_launch(
        "( rtph264depay name=depay0 ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
        f" ! filesink location={sys.argv[1]} sync=false async=false )"
    )
    factory.connect("media-configure", lambda _, media: media.connect("unprepared", lambda _: loop.quit()))

    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service("0")
    server.get_mount_points().add_factory("/live", factory)
    server.attach(None)
    # A publisher that goes without a word is seen by its connection, or by its session's end.
    GLib.timeout_add_seconds(1, lambda: server.get_session_pool().cleanup() is not None)
    print(server.get_bound_port(), flush=True)
    loop.run()


main()
