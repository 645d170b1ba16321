"""The command mediafiles repair: recordings cut and damaged, judged by what independent readers make of them.

    repair_command_test.py --tool MEDIAFILES --example EXAMPLE --media STREAMS
"""

import fcntl
import hashlib
import json
import os
import pathlib
import struct
import subprocess
import tempfile
import unittest

from support import judge

GIVEN = judge.given("tool", "example", "media")
SOURCES = {"av": ("h264_base_640x360_25.h264", "aac_lc_48000_2.aac"), "hevc": ("h265_aud_sei_640x360_25.h265",)}
DONE, FAILED, USAGE, NOTHING = 0, 1, 2, 3


class Repair(judge.Test):
    @classmethod
    def setUpClass(cls):
        cls.whole = {name: judge.record(GIVEN.tool, *(GIVEN.media / s for s in sources))
                     for name, sources in SOURCES.items()}

    def run_repair(self, *arguments, exit_code=DONE):
        done = subprocess.run((GIVEN.tool, "repair", "--json", *arguments), text=True, capture_output=True, check=False,
                              timeout=judge.PATIENCE)
        self.assertEqual(done.returncode, exit_code, done.stderr)
        return (json.loads(done.stdout) if exit_code != USAGE else None), done.stderr

    def repair(self, *options, exit_code=DONE):
        return self.run_repair(self.clip, *options, exit_code=exit_code)[0]["files"][0]

    def refused(self, *options):
        before = self.files()
        report, err = self.run_repair(self.clip, *options, exit_code=FAILED)
        self.assertEqual((report["files"][0]["result"], self.files()), ("refused", before))
        self.assertIn(f"mediafiles: repair: {report['files'][0]['error']}\n", err)

    def check(self, count):
        """The file holds the journal's first samples, byte for byte, and a decoder takes them all."""
        _, media, _, samples = self.whole["av"]
        kept = samples[:count]
        self.assertEqual(self.clip.read_bytes()[32:kept[-1].end], media[32:kept[-1].end])
        for track in (0, 1):
            mine = [(s.size, s.key) for s in kept if s.track == track]
            self.assertEqual([(p.size, p.key) for p in judge.packets(self.clip, track)], mine)
            self.assertEqual(len(judge.frame_checksums(self.clip, track)), len(mine))

    def test_last_frame(self):
        """A frame that the cut has hit is kept with zeros or, on request, dropped."""
        _, media, journal, samples = self.whole["av"]
        last = max((s for s in samples[:60] if s.track == 0), key=lambda s: s.begin)
        cut = media[:last.begin + 7]
        self.put("clip.mp4", cut, journal)
        with tempfile.TemporaryDirectory() as other:
            copy = pathlib.Path(self.repair("--output", other)["output"])
            self.assertEqual(os.listdir(other), ["clip.mp4"])
            self.assertEqual(copy.read_bytes()[32:last.end], cut[32:] + bytes(last.size - 7))
            self.refused("--output", other)
        count = next(i for i, s in enumerate(samples) if s.time == last.time)
        self.assertEqual(self.repair("--drop-last-frame")["cut_bytes"], len(cut) - samples[count - 1].end)
        self.check(count)

    def test_refused(self):
        _, media, journal, samples = self.whole["av"]
        frame = next(s for s in samples[30:] if s.track == 0)
        at = frame.record_end - 24
        gap = journal[:at] + struct.pack("<I", frame.begin + 4) + journal[at + 4:]
        bad = media[:frame.begin] + bytes(frame.size) + media[frame.end:]
        for what, given, records, options in (
                ("no journal", media, None, ()), ("no record", media, b"\0\0\xff\xff", ()), ("a gap", media, gap, ()),
                ("damaged", bad, journal, ()), ("another's", media, self.whole["hevc"][2], ()),
                ("no frame", media[:32], journal, ()), ("one frame", media[:40], journal, ("--drop-last-frame",))):
            with self.subTest(what):
                self.put("clip.mp4", given, records)
                self.refused(*options)

    def test_damage(self):
        """Before the end it costs what lies after it, or is kept, on request."""
        _, media, journal, samples = self.whole["av"]
        frame = next(s for s in samples[60:] if s.track == 0)
        bad = media[:frame.begin] + bytes(frame.size) + media[frame.end:]
        self.put("clip.mp4", bad, journal)
        self.assertEqual([[frame.begin, samples[-1].end]], self.repair("--salvage")["bad_ranges"])
        self.check(samples.index(frame))
        self.put("clip.mp4", bad, journal)
        one = self.repair("--keep-damaged", "--hash", "--keep-journal")
        self.assertEqual(([[frame.begin, frame.end]], "salvaged"), (one["bad_ranges"], one["result"]))
        self.assertEqual(bad[28:], self.clip.read_bytes()[28:len(bad)])
        self.assertEqual([one["sha256_read"], one["sha256_made"]],
                         [hashlib.sha256(data).hexdigest() for data in (bad, self.clip.read_bytes())])
        before = self.files()
        self.assertEqual(("finished", before), (self.repair(exit_code=NOTHING)["result"], self.files()))

    def test_directory(self):
        data, media, journal, _ = self.whole["av"]
        rows = (  # newest first: what is given, what is reported of it, and what is printed
            ("alone.mp4", (media,), ("refused", False, False, False), "there is no journal"),
            ("locked.mp4", (media, journal), ("refused", False, False, False), "another process is recording"),
            ("damaged.mp4", (media, b"\5" + journal), ("refused", True, True, False), "damaged from the start"),
            ("cut.mp4", (media, journal), ("repaired", True, False, True),
             "cut.mp4: repaired: 5.035 s, h264 100 frames 4.000 s, aac 236 frames 5.035 s; 0 bytes cut"),
            ("sub/closed.mp4", (data, journal), ("finished", True, False, False), "finished properly, left"),
            ("sub/whole.mp4", (data,), ("finished", False, False, False), "finished properly, left"))
        for n, (name, given, *_) in enumerate(rows):
            os.utime(self.put(name, *given), (1000 - n, 1000 - n))
        with open(self.directory / "locked.mp4", "rb") as other:
            fcntl.flock(other, fcntl.LOCK_EX)
            report, err = self.run_repair(self.directory, exit_code=FAILED)
        for (name, _, seen, printed), f, line in zip(rows, report["files"], err.splitlines()):
            self.assertEqual((f["path"], f["result"], f["journal"] is not None, f["journal_kept"], f["output"] is not None),
                             (str(self.directory / name), *seen))
            self.assertIn(printed, line)
            self.assertIn(f["error"] or f["path"], line)
        self.assertIn("6 files: 1 repaired, 2 finished properly, 3 not repaired", err)
        self.assertEqual([report[k] for k in ("repaired", "finished", "refused", "failed")], [1, 2, 3, 0])
        self.assertEqual((self.directory / "sub/closed.mp4").read_bytes(), data)
        self.run_repair(self.directory / "sub", exit_code=NOTHING)
        self.run_repair(self.directory, "--journal", self.journal, exit_code=USAGE)


if __name__ == "__main__":
    unittest.main()
