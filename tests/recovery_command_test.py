"""The programs of recovery beside recorders and beside each other, on cards, and over files that are finished.

    recovery_command_test.py --tool MEDIAFILES --example RECORD --recover RECOVER --media STREAMS
                             [--finished N] [--seed S]
"""

import contextlib
import fcntl
import json
import os
import pathlib
import random
import re
import struct
import subprocess
import tempfile
import unittest
from collections import namedtuple

from support import judge

GIVEN = judge.given("tool", "example", "recover", "media", finished=120, seed=1)
AAC = [GIVEN.media / "aac_lc_48000_2.aac"]
AV, HEVC = [GIVEN.media / "h264_base_640x360_25.h264", *AAC], [GIVEN.media / "h265_cra_2slices_640x360_30.h265"]
DONE, FAILED, NOTHING = 0, 1, 3
OURS = b"\0\0\0\x18ftypmp42\0\0\0\0mp42isom"
EXAMPLE = AV[0], AV[0].with_suffix(".units.tsv"), 640, 360


def start(*command, calls=()):
    """Starts a program; some of its system calls are delayed, or replaced. The process is the program's own."""
    strace = ["strace", "-f", "-D", "-qq", "-o", "/dev/null", *(f"-einject={each}" for each in calls)] if calls else []
    return subprocess.Popen([*strace, *map(str, command)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})


def end(process):
    out, err = process.communicate(timeout=judge.PATIENCE)
    return process.returncode, out, err


def has_open(process, path):
    """Whether a program, which must still run, has opened a file."""
    assert process.poll() is None, process.communicate()
    for link in pathlib.Path(f"/proc/{process.pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed since
            if os.readlink(link) == str(path):
                return True
    return False


class Recovery(judge.Test):
    @classmethod
    def setUpClass(cls):
        cls.av, cls.hevc = judge.record(GIVEN.tool, *AV), judge.record(GIVEN.tool, *HEVC)

    def repair(self, *arguments, code=DONE, prefix=()):
        """The result for each file, by its path below the directory."""
        status, out, err = end(start(*prefix, GIVEN.tool, "repair", "--json", *arguments))
        self.assertEqual(status, code, err)
        return {str(pathlib.Path(f["path"]).relative_to(self.directory)): f["result"] for f in json.loads(out)["files"]}

    def test_beside_a_recorder(self):
        """The example's, slowed down, with and without its lock: whenever a repair comes, nothing is lost."""
        judge.run(GIVEN.example, self.clip, *EXAMPLE)
        undisturbed = self.clip.read_bytes()
        for calls in (("fdatasync:delay_enter=90000",), ("fdatasync:delay_enter=90000", "flock:retval=0")):
            with self.subTest(calls):
                self.clip.unlink()
                recorder, refused = start(GIVEN.example, self.clip, *EXAMPLE, calls=calls), 0
                judge.wait_for(lambda: self.journal.exists() and self.journal.stat().st_size > 0)
                while recorder.poll() is None:
                    refused += "another process is recording" in end(start(GIVEN.tool, "repair", self.directory))[2]
                self.assertEqual((end(recorder)[0], self.clip.read_bytes()), (DONE, undisturbed))
                self.assertGreater(refused, 1)

    def test_finished_meanwhile(self):
        """A recording that ends after the repair has opened it, and before that has its lock."""
        self.put("clip.mp4", self.av.open[:self.av.samples[60].end], self.av.journal[:self.av.samples[60].record_end])
        repair = start(GIVEN.tool, "repair", self.clip, calls=("flock:delay_enter=700000",))
        judge.wait_for(lambda: has_open(repair, self.clip))
        self.put("clip.mp4", self.av.file, self.av.journal)
        end(repair)
        self.assertEqual(self.files(), {"clip.mp4": self.av.file})

    def test_recorders_find_their_files(self):
        """Who has made a file and is not the first to lock it leaves it; who gets one that is gone does not record."""
        record = GIVEN.tool, "record", AV[0], "-o", self.clip, "--overwrite"
        recorder = start(*record, calls=("flock:delay_enter=500000",))
        judge.wait_for(self.clip.exists)
        with open(self.clip, "r+b") as other:
            fcntl.flock(other, fcntl.LOCK_EX)
            other.write(b"recorded")
            other.flush()
            self.assertEqual((end(recorder)[0], self.clip.read_bytes()), (FAILED, b"recorded"))
        for command in (record, (GIVEN.example, self.clip, *EXAMPLE)):
            self.put("clip.mp4", b"", b"")
            recorder = start(*command, calls=("flock:delay_enter=500000:when=1",))
            judge.wait_for(lambda: has_open(recorder, self.clip))  # pylint: disable=cell-var-from-loop
            self.clip.unlink()
            self.journal.unlink()
            self.assertEqual((end(recorder)[0], self.clip.exists()), (FAILED, False))

    def test_stopped(self):
        """A copy that is being made goes away with the program."""
        self.put("clip.mp4", self.av.open, self.av.journal)
        before, output = self.files(), self.put("output/nothing", b"").parent
        repair = start(GIVEN.tool, "repair", self.clip, "--output", output, calls=("pwrite64:delay_enter=400000",))
        judge.wait_for(lambda: len(self.files("output")) == 2)
        repair.terminate()
        self.assertEqual((end(repair)[0], self.files("output")), (FAILED, {"nothing": b""}))
        self.assertEqual(self.files(), {**before, "output/nothing": b""})

    def test_card(self):
        """What is named counts; no name writes lines of its own; what cannot be searched does not stop the others."""
        card = self.directory / "card"
        fast = remuxed(self.av.file, "mp4", "-movflags", "faststart")
        to_the_end = fast[:boxes(fast)[-1].begin] + b"\0\0\0\0mdat" + self.av.file[32:]
        for name, *given in (("a/clip.mp4", self.av.open, self.av.journal), ("b/clip.mp4", self.av.file),
                             ("other.mp4", to_the_end), ("longer.mp4", fast + b"abc", self.av.journal),
                             ("notes.journal", b"Dear diary")):
            self.put(f"card/{name}", *given)
        self.assertEqual(self.repair(*card.glob("*.*"), code=NOTHING), {
            f"card/{name}": "not_ours" for name in ("other.mp4", "longer.mp4", "notes.journal")})
        forged = self.put("card/a/x.mp4\nb.mp4: repaired\x1b[1m\x9b1m.mp4", b"")
        err = end(start(GIVEN.tool, "repair", forged, card / "no\nthing"))[2]
        self.assertIn("/x.mp4?b.mp4: repaired?[1m", err)
        self.assertTrue(all(" " <= c or c == "\n" for c in err) and err.count("\n") == 3 and "\x9b" not in err, err)
        (card / "a").chmod(0)
        drop = ("setpriv", "--bounding-set", "-dac_override,-dac_read_search") if os.getuid() == 0 else ()
        status, _, err = end(start(*drop, GIVEN.tool, "repair", card / "a", card / "b"))
        (card / "a").chmod(0o755)
        self.assertEqual((status, "1 finished properly" in err), (FAILED, True))
        self.assertIn(f"{card}/a: Permission denied", err)

    def test_finished_is_never_changed(self):
        """Files of ours and of other programs, beside journals of every kind, by both programs and all options."""
        rng = random.Random(GIVEN.seed)
        own = [judge.record(GIVEN.tool, *sources, options=("--duration", str(rng.uniform(0.3, 4))))
               for _ in range(GIVEN.finished // 129 + 1) for sources in (AV, HEVC, AAC)]
        made = list(enumerate((recorded, data) for recorded in own for data in finished_files(recorded.file, rng)))
        print(f"{len(made)} finished files, --seed {GIVEN.seed}")
        self.assertGreaterEqual(len(made), GIVEN.finished)
        for kind in ("none", "empty", "zeros", "begun", "stale", "fitting", "foreign", "damaged"):
            for number, (recorded, data) in made:
                other = rng.choice(own).journal
                journal, ends = recorded.journal, [record[0] for record in judge.records_of(recorded.journal)]
                self.put(f"card/{number}.mp4", data, {
                    "none": None, "empty": b"", "zeros": bytes(5000), "begun": journal[:ends[2]], "fitting": journal,
                    "stale": journal[:rng.choice(ends)], "foreign": other, "damaged": other[:40] + b"\5" + other[41:]}[kind])
                os.utime(self.directory / f"card/{number}.mp4", (1000, 1000))
            for command in ((GIVEN.recover,), (GIVEN.tool, "repair", "--quiet"),
                            (GIVEN.tool, "repair", "--quiet", "--salvage", "--keep-damaged", "--force", "--drop-last-frame")):
                status, _, err = end(start(*command, self.directory / "card"))
                self.assertIn(status, (DONE, NOTHING), err)
                for number, (_, data) in made:
                    path = self.directory / f"card/{number}.mp4"
                    self.assertEqual((path.read_bytes() == data, path.stat().st_mtime), (True, 1000), (kind, command, path))


Box = namedtuple("Box", "kind begin end")


def boxes(data):
    found, at = [], 0
    while at + 8 <= len(data):
        size, kind = struct.unpack_from(">I4s", data, at)
        found.append(Box(kind, at, at + size))
        at += size
    return found


def remuxed(data, container, *options):
    """By ffmpeg, or by GStreamer where the container is one of its elements."""
    with tempfile.TemporaryDirectory(dir=judge.MEMORY) as directory:
        source, made = pathlib.Path(directory, "from.mp4"), pathlib.Path(directory, "made")
        source.write_bytes(data)
        judge.run(*("gst-launch-1.0", "-q", "filesrc", f"location={source}", "!", "qtdemux", "!", container, *options, "!",
                    "filesink", f"location={made}") if container.endswith("mux") else
                  ("ffmpeg", "-v", "error", "-i", source, "-c", "copy", *options, "-strict", "-2", "-f", container, made))
        return made.read_bytes()


def with_our_head(data, wide):
    """What another program has made, as if it had written our ftyp, and mdat after it."""
    parts = {box.kind: box for box in boxes(data)}
    media, moov = parts[b"mdat"], bytearray(data[parts[b"moov"].begin:parts[b"moov"].end])
    size = media.end - media.begin
    head = OURS + (struct.pack(">I4sQ", 1, b"mdat", size + 8) if wide else struct.pack(">I4s", size, b"mdat"))
    for table in re.finditer(b"stco", moov):
        for at in range(table.end() + 8, table.end() + 8 + 4 * struct.unpack_from(">I", moov, table.end() + 4)[0], 4):
            struct.pack_into(">I", moov, at, struct.unpack_from(">I", moov, at)[0] + len(head) - media.begin - 8)
    return head + data[media.begin + 8:media.end] + moov


def finished_files(own, rng):
    """A file of ours; with what other programs add to it; and what they make of it."""
    moov, udta = boxes(own)[-1], struct.pack(">I4sQ", 16, b"udta", 0)
    yield from (own, own + rng.randbytes(rng.randrange(1, 99)), own + struct.pack(">I4s", 99, b"free") + bytes(91),
                own[:moov.begin] + struct.pack(">I", moov.end - moov.begin + 16) + own[moov.begin + 4:] + udta)
    for container, *options in (
            ("mp4",), ("mov",), ("mp4", "-movflags", "faststart"), ("mp4", "-movflags", "frag_keyframe+empty_moov"),
            ("mov", "-movflags", "frag_keyframe"), ("ismv",), ("mp4", "-fflags", "+bitexact", "-brand", "mp42"),
            ("mp4mux",), ("qtmux",), ("mp4mux", "faststart=true"), ("mp4mux", "fragment-duration=500")):
        data = remuxed(own, container, *options)
        yield from (data, data + b"abc")
        if b"moof" not in data and len([box for box in boxes(data) if box.kind == b"mdat"]) == 1:
            yield from (with_our_head(data, wide) for wide in (False, True))
        if boxes(data)[-1].kind == b"mdat":
            yield data[:boxes(data)[-1].begin] + bytes(4) + data[boxes(data)[-1].begin + 4:]


if __name__ == "__main__":
    unittest.main()
