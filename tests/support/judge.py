"""What independent readers make of a file, what the streams say they should, and what the tests of programs share.

ffprobe, ffmpeg, GStreamer and mediainfo read what was recorded; the expected packets come from a stream's manifest
and from the stream's own bytes.
"""

import argparse
import csv
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib
from collections import namedtuple

Unit = namedtuple("Unit", "data time_ns key")
Packet = namedtuple("Packet", "size ticks key")
Sample = namedtuple("Sample", "record_end track begin size end time key")
Recorded = namedtuple("Recorded", "file open journal samples")
PATIENCE = 60  # seconds
MEMORY = os.environ.get("TEST_TMPDIR") or ("/dev/shm" if os.access("/dev/shm", os.W_OK) else None)  # a sync costs nothing
USER, TRACK, SAMPLE, VPS, SPS, PPS, SEI = 0, 1, 2, 6, 7, 8, 9  # journal records


def run(*command):
    """Standard output of a command that must succeed and print nothing on standard error."""
    done = subprocess.run([str(c) for c in command], capture_output=True, text=True, check=False, timeout=PATIENCE)
    if done.returncode != 0 or done.stderr:
        raise AssertionError(f"{command}: exit {done.returncode}: {done.stderr}")
    return done.stdout


def given(*paths, **numbers):
    """The options of a test: paths that must be given, and numbers; what follows is unittest's."""
    line = argparse.ArgumentParser()
    for name in paths:
        line.add_argument("--" + name, type=pathlib.Path, required=True)
    for name, value in numbers.items():
        line.add_argument("--" + name, type=type(value), default=value)
    options, sys.argv[1:] = line.parse_known_args()
    return options


def wait_for(condition):
    """Looks again and again, until it holds."""
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("it never came to that")
        time.sleep(0.01)


class Test(unittest.TestCase):
    """Has a directory, with the names of a recording and of its journal in it."""

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(dir=MEMORY)).resolve()
        self.addCleanup(shutil.rmtree, self.directory)
        self.clip, self.journal = self.directory / "clip.mp4", self.directory / "clip.mp4.journal"

    def put(self, name, media, journal=None):
        """The files of a recording in the directory; None: it is not there."""
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        for file, data in ((path, media), (path.with_name(path.name + ".journal"), journal)):
            file.unlink(missing_ok=True) if data is None else file.write_bytes(data)
        return path

    def files(self, under="."):
        root = self.directory / under
        return {str(p.relative_to(root)): p.read_bytes() for p in root.rglob("*") if p.is_file()}


def record(tool, *sources, options=()):
    """A finished file, the same before it was finished, its journal (a round a frame), its samples."""
    with tempfile.TemporaryDirectory(dir=MEMORY) as directory:
        clip = pathlib.Path(directory, "clip.mp4")
        subprocess.run([tool, "record", *sources, "-o", clip, "--keep-journal", "--sync", "0", *options], check=True,
                       capture_output=True, timeout=PATIENCE)
        data, journal = clip.read_bytes(), pathlib.Path(f"{clip}.journal").read_bytes()
    samples = list(samples_of(journal))
    return Recorded(data, data[:24] + bytes(4) + data[28:samples[-1].end], journal, samples)


def units(stream):
    """The access units of an elementary stream, by the manifest beside it."""
    stream = pathlib.Path(stream)
    data = stream.read_bytes()
    with open(stream.with_suffix(".units.tsv"), newline="") as manifest:
        rows = list(csv.DictReader(manifest, delimiter="\t"))
    return [Unit(data[int(r["offset"]):int(r["offset"]) + int(r["length"])], int(r["time_ns"]), int(r["key"]))
            for r in rows]


def repeated(stream, times):
    """An elementary stream several times over: its bytes, and its manifest."""
    data, (header, *rows) = stream.read_bytes(), stream.with_suffix(".units.tsv").read_text().splitlines()
    rows = [row.split("\t") for row in rows]
    length = 2 * int(rows[-1][3]) - int(rows[-2][3])
    return data * times, "\n".join([header, *(
        "\t".join((row[0], str(int(row[1]) + n * len(data)), row[2], str(int(row[3]) + n * length), *row[4:]))
        for n in range(times) for row in rows)]) + "\n"


def nal_units(data):
    """Every NAL unit of an access unit, without the zeros after it."""
    return [nal.rstrip(b"\0") for nal in data.split(b"\0\0\1")[1:]]


def recorded(unit, codec):
    """A unit's bytes as the recorder stores them: each NAL unit has a length of its own."""
    if codec == "aac":
        return unit.data[7:]
    return b"".join(struct.pack(">I", len(nal)) + nal for nal in nal_units(unit.data))


def records_of(journal):
    """(end, kind, track, payload) of each record that is there in full."""
    at = 0
    while at + 4 <= len(journal):
        kind, track, length = struct.unpack_from("<BBH", journal, at)
        end = at + 4 + (length + 3 & ~3)
        if end > len(journal):
            return
        yield end, kind, track, journal[at + 4:at + 4 + length]
        at = end


def whole_records(journal):
    """Where the last whole record ends."""
    return max((record[0] for record in records_of(journal)), default=0)


def rounds_of(journal):
    """Bytes of media that each round of syncs in it made safe, by its mark; every record belongs to a round."""
    begin, safe = 0, []
    for end, kind, _, payload in records_of(journal):
        if kind == USER:
            mark = re.fullmatch(rb"mediafiles round (\d{10}) of (\d{12}) bytes ([0-9a-f]{8})\.\.", payload)
            assert int(mark[1]) == len(safe) + 1 and int(mark[3], 16) == zlib.crc32(journal[begin:end - 64]), mark
            begin = end
            safe.append(int(mark[2]))
    assert begin == whole_records(journal), "records without a mark"
    return safe


def samples_of(journal):
    """The samples that a journal names."""
    for end, kind, track, payload in records_of(journal):
        if kind == SAMPLE:
            begin, size, seconds, nanoseconds, key = struct.unpack("<IIqIi", payload)
            yield Sample(end, track, begin, size, begin + size, seconds * 10**9 + nanoseconds, key != 0)


def packets(path, stream):
    shown = json.loads(run("ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                           "packet=dts,size,flags", "-of", "json", path))
    return [Packet(int(p["size"]), int(p["dts"]), "K" in p["flags"]) for p in shown["packets"]]


def streams(path):
    return json.loads(run("ffprobe", "-v", "error", "-show_streams", "-of", "json", path))["streams"]


def frame_checksums(path, stream="0"):
    lines = run("ffmpeg", "-v", "error", "-i", path, "-map", f"0:{stream}", "-f", "framemd5", "-").splitlines()
    return [line.split(",")[-1].strip() for line in lines if not line.startswith("#")]


def gstreamer_buffers(path, pad):
    """Buffers that qtdemux hands out for a track, until the end of the stream."""
    done = subprocess.run(["gst-launch-1.0", "-v", "filesrc", f"location={path}", "!", "qtdemux", "name=d",
                           f"d.{pad}", "!", "fakesink", "silent=false", "sync=false"],
                          capture_output=True, text=True, check=False, timeout=PATIENCE)
    if done.returncode != 0 or "ERROR" in done.stdout + done.stderr:
        raise AssertionError(done.stdout[-2000:] + done.stderr)
    return done.stdout.count("chain   *******")


def mediainfo_tracks(path):
    tracks = json.loads(run("mediainfo", "--Output=JSON", path))["media"]["track"]
    return {t["@type"]: t for t in tracks}
