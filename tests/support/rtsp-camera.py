#!/usr/bin/python3
"""A camera for tests: an RTSP server that sends raw streams in real time, again and again.

    rtsp-camera.py PORT VIDEO.h264 [SOUND.aac]

The access units and their times are those of the manifest beside each stream; those of sound end with the video. It
prints a line when it listens. Stopped and killed it behaves as a camera does that froze or lost its power; the times of
each session begin anew.
"""

import csv
import pathlib
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402  (the versions come first)

PATHS = {".h264": ("video/x-h264,stream-format=byte-stream,alignment=au", "h264parse ! rtph264pay config-interval=-1"),
         ".h265": ("video/x-h265,stream-format=byte-stream,alignment=au", "h265parse ! rtph265pay config-interval=-1"),
         ".aac": ("audio/mpeg,mpegversion=4,stream-format=adts", "aacparse ! rtpmp4gpay")}
FRAMES_AHEAD = 10


class Stream:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        data = self.path.read_bytes()
        with open(self.path.with_suffix(".units.tsv"), newline="") as manifest:
            rows = [[int(row[k]) for k in ("offset", "length", "time_ns")]
                    for row in csv.DictReader(manifest, delimiter="\t")]
        self.units = [(data[offset:offset + length], time) for offset, length, time in rows]
        self.length = self.units[-1][1] + self.units[1][1]

    def launch(self, number):
        caps, path = PATHS[self.path.suffix]
        return f'appsrc name=src{number} is-live=true format=time caps="{caps}" ! {path} name=pay{number} pt={96 + number}'

    def feed(self, source, length):
        """Hands out a unit for each that is wanted."""
        units = [unit for unit in self.units if unit[1] < length]
        count = 0

        def push(*_):
            nonlocal count
            for _ in range(FRAMES_AHEAD):
                unit, time = units[count % len(units)]
                buffer = Gst.Buffer.new_wrapped(unit)
                buffer.pts = buffer.dts = time + count // len(units) * length
                count += 1
                source.emit("push-buffer", buffer)
        source.connect("need-data", push)


Gst.init(None)
port, *paths = sys.argv[1:]
streams = [Stream(path) for path in paths]


def configure(_, media):
    media.set_reusable(False)
    for number, stream in enumerate(streams):
        stream.feed(media.get_element().get_by_name_recurse_up(f"src{number}"), streams[0].length)


server = GstRtspServer.RTSPServer(service=port, address="127.0.0.1")
factory = GstRtspServer.RTSPMediaFactory()
factory.set_shared(False)
factory.set_launch("( " + " ".join(stream.launch(i) for i, stream in enumerate(streams)) + " )")
factory.connect("media-configure", configure)
server.get_mount_points().add_factory("/cam", factory)
server.attach(None)
print("listening", flush=True)
GLib.MainLoop().run()
