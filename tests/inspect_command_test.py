"""The command mediafiles inspect: what it shows against what independent readers see, and what it finds wrong.

    inspect_command_test.py --tool MEDIAFILES --media STREAMS
"""

import fcntl
import json
import os
import pathlib
import random
import re
import resource
import struct
import subprocess
import tempfile
import unittest

from support import judge

GIVEN = judge.given("tool", "media")
CLIPS = (("h264_high_aud_4slices_640x360_30.h264", "aac_voaac_44100_2.aac"), ("h265_aud_sei_640x360_25.h265",))
HEAD, FREE, STBL = b"\0\0\0\x14ftypmp42\0\0\0\0isom", b"\0\0\0\x08free", b"moov/trak/mdia/minf/stbl/"


def box(path, *parts):
    for kind in reversed(path.split(b"/")):
        parts = (struct.pack(">I4s", 8 + sum(map(len, parts)), kind), *parts)
    return b"".join(parts)


def boxes(data, begin, end, path=b""):
    """(path, offset, size) of every box, down to the tables."""
    while begin < end:
        size, kind = struct.unpack_from(">I4s", data, begin)
        yield path + kind, begin, size
        if kind in (b"moov", b"trak", b"edts", b"mdia", b"minf", b"dinf", b"stbl"):
            yield from boxes(data, begin + 8, begin + size, path + kind + b"/")
        begin += size


class Inspect(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.given = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()), "given")
        cls.beside, cls.clips = cls.given.with_name("given.journal"), []
        for sources in CLIPS:
            subprocess.run([GIVEN.tool, "record", *(GIVEN.media / s for s in sources), "-o", cls.given, "--overwrite",
                            "--keep-journal"], check=True, stderr=subprocess.DEVNULL)
            cls.clips.append((cls.given.read_bytes(), cls.beside.read_bytes()))
        cls.beside.unlink()

    def inspect(self, given, *options, exit_codes=(0,)):
        if isinstance(given, bytes):
            given = self.given.write_bytes(given) and self.given
        done = subprocess.run([GIVEN.tool, "inspect", given, *options], capture_output=True, check=False, timeout=60)
        self.assertIn(done.returncode, exit_codes, (given, done.stderr))
        return json.loads(done.stdout) if options else done.stdout.decode()

    def check(self, given, exit_code=0):
        return self.inspect(given, "--json", "--check", exit_codes=(exit_code,))

    def test_finished(self):
        """What ffprobe sees and where the boxes lie, in files of three writers."""
        other, (media, _) = self.given.with_name("other.mp4"), self.clips[0]
        given = f"filesrc location={self.given} ! qtdemux"
        gst = f"gst-launch-1.0 -q {given} ! aacparse ! mp4mux ! filesink location={other}"
        made = [f"cp {self.given} {other}", *(f"ffmpeg -v error -y -i {self.given} -c copy -movflags {more} {other}"
                for more in ("0 -c:a libmp3lame", "faststart", "frag_keyframe", "empty_moov+frag_keyframe"))]
        for media, command in [*((clip[0], command) for clip in self.clips for command in made), (media, gst)]:
            self.given.write_bytes(media)
            judge.run(*command.split())
            shown, data, whole = self.check(other), other.read_bytes(), "frag_" not in command
            self.assertEqual(shown["state"], "finished" if whole else "fragmented")
            endless = b"\0\0\0\0mdat".join(re.split(b"....mdat", data, flags=re.S))  # allowed in the last box
            self.assertTrue("faststart" not in command or self.check(endless)["sound"])
            lines = re.findall(r"^ +(\d+) +(\d+) +(.{4})$", self.inspect(other), flags=re.M)
            seen = {(str(offset), str(size), path[-4:].decode()) for path, offset, size in boxes(data, 0, len(data))}
            self.assertLessEqual(seen, set(lines))
            for track, stream in zip(shown["tracks"] * whole, judge.streams(other)):
                packets, sizes = judge.packets(other, stream["index"]), ("width", "height", "sample_rate", "channels")
                steps = [b.ticks - a.ticks for a, b in zip(packets, packets[1:])]
                codec = stream["codec_name"].replace("hevc", "h265")
                self.assertEqual([track["codec"], track["samples"], track["sync_samples"], track["bytes"]],
                                 [codec, len(packets), sum(p.key for p in packets), sum(p.size for p in packets)])
                for key in sizes:
                    self.assertEqual(track.get(key.replace("sample_", ""), 0), int(stream.get(key, 0)))
                slack = 0.05 if codec == "mp3" else 1e-4  # ffprobe takes off what its edit list skips
                self.assertAlmostEqual(track["duration_s"], float(stream["duration"]), delta=slack)
                self.assertAlmostEqual(track["longest_step_s"], max(steps) / track["timescale"], 5)

    def test_faults(self):
        media, journal = self.clips[0]
        at = {path: offset for path, offset, _ in reversed([*boxes(media, 0, len(media))])}  # of the first track
        frame = [s.begin for s in judge.samples_of(journal) if s.track == 0][7]
        for text, where, change, value in (
                ("stts times", STBL + b"stts", 16, 9), ("stsc places", STBL + b"stsc", 20, 3),
                ("stss: sample", STBL + b"stss", 20, 9999), ("stsz claims", at[STBL + b"stsz"] + 16, 0, 99999),
                ("leaves minf", STBL[:-1], 0, 99999), ("leaves the file", b"mdat", 0, 2**31), ("no box", b"moov", 4, 0),
                ("is outside mdat", 7, at[STBL + b"stco"] + 9, 7), ("not the longest track's", b"moov/mvhd", 24, 5),
                ("do not add up", frame, 0, 2**24), ("is too small", b"mdat", 0, 7), ("never finished", b"mdat", 0, 0)):
            where = at.get(where, where)
            broken = media[:where + change] + struct.pack(">I", value) + media[where + change + 4:]
            faults = self.check(broken, 1)["faults"]
            self.assertTrue(any(text in f["text"] and f["offset"] == where for f in faults), (text, faults))
            self.assertIn(f"fault at {where}: ", self.inspect(broken))
        config = media.index(b"\2\x12\x10", at[STBL + b"stsd"]) + 2  # of the audio: its length, then its two bytes
        for layout, channels in ((0, 2), (1, 1), (6, 6), (7, 8)):  # ISO/IEC 14496-3, table 1.19
            shown = self.inspect(media[:config] + bytes((layout << 3,)) + media[config + 1:], "--json")
            self.assertEqual(shown["tracks"][1]["channels"], channels)

    def test_several(self):
        """A line for each, of files and of what a directory holds."""
        folder = self.given.with_name("card")
        folder.mkdir()
        (folder / "a.mp4").write_bytes(self.clips[0][0])
        (folder / "b.mp4.journal").write_bytes(self.clips[0][1])
        (folder / "c.mp4").write_bytes(self.clips[0][0][:-9])
        (folder / "other.txt").write_bytes(b"text")
        lines = self.inspect(folder).splitlines()
        self.assertEqual([line.split(": ")[1].split(",")[0] for line in lines], ["MP4", "journal", "MP4"])
        done = subprocess.run([GIVEN.tool, "inspect", folder / "a.mp4", folder / "none.mp4", folder, "--json", "--check"],
                              capture_output=True, check=False, timeout=60)
        shown = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual(([s.get("sound") for s in shown], done.returncode), ([True, None, True, True, False], 1))

    def test_other_ways(self):
        """What QuickTime does by its own rules is no fault; where the time stands still, that is said."""
        given, movie = self.given.with_name("given.mp4"), self.given.with_name("movie.mov")
        given.write_bytes(self.clips[0][0])
        judge.run("ffmpeg", "-v", "error", "-y", "-i", given, "-c", "copy", "-timecode", "00:00:00:00", movie)
        self.assertEqual(self.check(movie)["faults"], [])
        still = movie.with_suffix(".mkv")
        judge.run("ffmpeg", "-v", "error", "-y", "-i", given, "-c", "copy", "-bsf:v", r"setts=ts=min(N\,20)*3600", still)
        subprocess.run([GIVEN.tool, "record", still, "-o", given, "-y"], check=True, stderr=subprocess.DEVNULL)
        self.assertTrue(any("the time stands still" in r["text"] for r in self.check(given)["remarks"]))

    def test_interrupted(self):
        media, journal = self.clips[0]
        moov = media[media.rfind(b"moov") - 4:]
        self.assertEqual(self.check(media[:24] + moov + media[24:-len(moov) - 1], 1)["state"], "cut")
        cut = media[:24] + bytes(4) + media[28:[*judge.samples_of(journal)][-1].end]
        for text, given, beside in (("There is no journal", cut[:32], None), ("journal stands beside it", cut, journal),
                                    ("is no journal", cut, b"x" * 99), ("is no journal", media[:-9], b"")):
            if beside is not None:
                self.beside.write_bytes(beside)
            shown = self.check(given, 1)
            self.assertEqual((shown["state"], shown["journal"] is not None), ("interrupted", beside == journal))
            self.assertIn(text, shown["advice"])
        with open(self.given, "rb") as recorder:
            fcntl.flock(recorder, fcntl.LOCK_EX)
            self.assertIn("recorded or repaired right now", self.inspect(self.given))

    def test_journals(self):
        samples = [*judge.samples_of(self.clips[1][1])]  # of one track; so few of them, and two of the same time
        few = [self.clips[1][1][:samples[n].record_end - 4] + b"\1\0\0\0" for n in (0, 1, 2)]  # keys: no zeros at the end
        few.append(few[1][:-44] + few[1][-16:-4] + few[1][-32:])
        for journal in (*few, *(clip[1] for clip in self.clips)):
            shown, samples = self.check(journal), [*judge.samples_of(journal)]
            self.assertEqual([(r["track"], r["offset"], r["size"], r["time_ns"], r["key"]) for r in shown["records"] if
                              r["kind"] == "sample"], [(*s[1:4], s.time, s.key) for s in samples])
            for track in shown["tracks"]:
                mine = [s for s in samples if s.track == track["index"]]
                keys, span = [s.time for s in mine if s.key], mine[-1].time - mine[0].time
                steps = [b - a for a, b in zip(keys, keys[1:])]
                self.assertEqual([track[k] for k in ("frames", "key_frames", "key_interval_ns", "longest_key_interval_ns",
                                                     "bytes_per_second")], [
                    len(mine), len(keys), sum(steps) // len(steps) if steps else None, max(steps, default=None),
                    round(sum(s.size for s in mine[:-1]) * 10**9 / span) if span else None])
                self.assertEqual(track["last"]["offset"], mine[-1].begin)
        journal = b"".join(journal[end - 4 - (len(p) + 3 & ~3):end] for end, kind, _, p in judge.records_of(journal) if kind)
        samples = [*judge.samples_of(journal)]  # without marks, where it may be torn
        begin, rest = journal[:samples[30].record_end], journal[samples[30].record_end:]
        for tail, ending in ((b"", "valid to its end"), *((rest[:n], "cut at") for n in (1, 3, 4, 27)),
                             (bytes(512), "torn at"), (rest[:8] + bytes(512), "torn at"), (b"\5" * 99, "torn at"),
                             (b"\5" * 5000, "damaged at"), (b"\2\0\x18\0\1" + journal * 3, "damaged at")):
            shown = self.check(begin + tail, int(ending == "damaged at"))
            self.assertEqual((shown["valid_bytes"], shown["lost_bytes"], shown["frames"]), (len(begin), len(tail), 31))
            self.assertIn(ending + f" byte {len(begin)} " * ending.endswith("at"), self.inspect(begin + tail))

    def test_hostile(self):
        """What is neither, what never ends, what claims more than there is: no crash, no wait, no memory."""
        fifo, empty = self.given.with_name("fifo"), self.given.with_name("empty")
        os.mkfifo(fifo)
        empty.touch()
        self.assertIn("8  free", self.inspect(FREE))
        for given in (FREE[:7], bytes(5000), b"text, not a movie", b"\0\0\0\1\x67" * 99, fifo, empty,
                      self.given.with_name("none"), "/dev/zero"):
            self.assertIn("cannot read: ", self.check(given, 1)["error"])
        self.inspect("--json", exit_codes=(2,))
        runs = box(STBL[10:] + b"stts", bytes(4), struct.pack(">I", 200000), bytes(1600000))
        files = [FREE * 16000 + box(b"moov", box(b"trak") * 16000), FREE * 99999, box(b"moov/trak", FREE * 30000, runs)]
        files += [box(STBL + table, bytes(4), some, bytes((255,) * 4)) for some in (b"", b"\0\0\0\1")
                  for table in (b"stsz", b"stts", b"stco", b"stsc", b"stss")]
        files += [struct.pack(">I4sQ", 1, b"mdat", size) for size in (0, 3, 2**64 - 1)]
        for data in (*files, box(b"moov/" * 9000 + b"trak")):
            self.check(HEAD + data, 1)
        chance = random.Random(4)
        for data in (self.clips[0][0], self.clips[1][1]) * 20:
            for _ in range(8):
                at = chance.randrange(max(data.rfind(b"moov"), 0), len(data) - 4)
                data = data[:at] + chance.choice((bytes(4), b"\xff" * 4, chance.randbytes(4))) + data[at + 4:]
            self.inspect(data, "--json", exit_codes=(0, 1))
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 400 << 10)  # KB


if __name__ == "__main__":
    unittest.main()
