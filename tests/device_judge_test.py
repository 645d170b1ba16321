"""The judge of the rig of whole systems: it sees each fault that a card can have, and no other; and the cuts themselves.

    device_judge_test.py --device FOLDER
"""

import json
import struct
import sys
import tempfile
import unittest

from support import judge as readers

GIVEN = readers.given("device")
sys.path.append(str(GIVEN.device))

import cut  # noqa: E402
import judge  # noqa: E402

PICTURES = [judge.Frame(f"p{n}", n * 0.04, n % 25 == 0) for n in range(100)]
SOUNDS = [judge.Frame(f"s{n}", n * 0.02, True) for n in range(200)]
NOTES = [(10, {"note": "start", "time": 5_000_000_000}),
         (11, {"note": "begun", "path": "1.mp4", "from": 5_000_000_000}),
         (20, {"note": "safe", "frames": [10, 20]}),
         (30, {"note": "finished", "path": "1.mp4", "from": 5_000_000_000, "to": 7_000_000_000}),
         (31, {"note": "begun", "path": "2.mp4", "from": 7_000_000_000}),
         (40, {"note": "safe", "frames": [60, 120]}),
         (41, {"note": "safe", "frames": [60, 120]}),
         (50, {"note": "deleted", "path": "1.mp4"}),
         (60, {"note": "finished", "path": "2.mp4", "from": 7_000_000_000, "to": 9_000_000_000})]
EXPECTED = judge.Expected([PICTURES, SOUNDS], NOTES)


def whole(name):
    return judge.Content([EXPECTED.frames(EXPECTED.parts[name], track) for track in (0, 1)], [])


def changed(name, track, index, **fields):
    content = whole(name)
    content.tracks[track][index] = content.tracks[track][index]._replace(**fields)
    return content


def short(name, pictures, sounds):
    content = whole(name)
    return judge.Content([content.tracks[0][:pictures], content.tracks[1][:sounds]], [])


class Judge(unittest.TestCase):
    def test_faults_are_seen(self):
        one, two = whole("1.mp4"), whole("2.mp4")
        long = judge.Content([two.tracks[0] + two.tracks[0][:1], two.tracks[1]], [])
        noisy = judge.Content(two.tracks, ["ffmpeg: a fault"])
        cases = (  # what, before which write, what is found, acknowledged, lost, faults of content, files left
            ("all is there", 45, {"1.mp4": one, "2.mp4": two}, 180, 0, 0, 0),
            ("just what was safe is there", 45, {"1.mp4": one, "2.mp4": short("2.mp4", 10, 20)}, 180, 0, 0, 0),
            ("a picture less", 45, {"1.mp4": one, "2.mp4": short("2.mp4", 9, 20)}, 180, 1, 0, 0),
            ("a sound less", 45, {"1.mp4": one, "2.mp4": short("2.mp4", 10, 19)}, 180, 1, 0, 0),
            ("nothing was said yet", 15, {}, 0, 0, 0, 0),
            ("the note itself is not there", 20, {}, 0, 0, 0, 0),
            ("lost before the file is finished", 25, {"1.mp4": short("1.mp4", 8, 20)}, 30, 2, 0, 0),
            ("a finished file is short", 35, {"1.mp4": short("1.mp4", 49, 100)}, 150, 1, 0, 0),
            ("a file is not there", 35, {}, 150, 150, 0, 0),
            ("a broken file was being deleted", 45, {"1.mp4": noisy, "2.mp4": two}, 30, 0, 0, 1),
            ("it was about to be deleted", 45, {"2.mp4": two}, 30, 0, 0, 0),
            ("it was deleted", 55, {"2.mp4": two}, 30, 0, 0, 0),
            ("other bytes", 45, {"1.mp4": changed("1.mp4", 0, 40, digest="x"), "2.mp4": two}, 180, 10, 1, 0),
            ("another key flag", 45, {"1.mp4": changed("1.mp4", 0, 0, key=False), "2.mp4": two}, 180, 50, 1, 0),
            ("another time", 45, {"1.mp4": changed("1.mp4", 1, 99, time=1.982), "2.mp4": two}, 180, 1, 1, 0),
            ("wrong where nothing was safe", 25, {"1.mp4": changed("1.mp4", 0, 49, digest="x")}, 30, 0, 1, 0),
            ("a frame of the next file", 45, {"1.mp4": one, "2.mp4": long}, 180, 0, 1, 0),
            ("a reader complains", 45, {"1.mp4": one, "2.mp4": noisy}, 180, 0, 1, 0),
            ("a journal is left", 45, {"1.mp4": one, "2.mp4": two, "2.mp4.journal": None}, 180, 0, 0, 1),
        )
        for what, index, found, acknowledged, lost, wrong, left in cases:
            with self.subTest(what):
                result = judge.judge(EXPECTED, NOTES, index, found, {})
                self.assertEqual([result["acknowledged"], result["lost"], len(result["wrong"]), len(result["left"])],
                                 [acknowledged, lost, wrong, left], result)

    def test_files_of_events_have_gaps_between_them(self):
        notes = [*NOTES[:4], (32, {"note": "begun", "path": "3.mp4", "from": 8_000_000_000}),
                 (33, {"note": "safe", "frames": [60, 110]})]
        expected = judge.Expected([PICTURES, SOUNDS], notes)
        self.assertEqual(expected.parts["3.mp4"][1:], ([75, 150], [100, 200], [50, 100]))
        self.assertEqual(judge.acknowledged(expected, notes, 40, {})["3.mp4"], [10, 10])

    def test_what_is_no_recording_is_not_judged_as_one(self):
        reports = judge.reports_of(["/card/1.mp4: repaired", "/card/2.mp4: refused: damaged (EIO)", "cp: 3.mp4: failed"])
        self.assertEqual(reports, {"1.mp4": "repaired", "2.mp4": "refused"})
        found = {"1.mp4": whole("1.mp4"), "2.mp4": judge.Content([], ["no moov"]), "2.mp4.journal": None}
        left = ["2.mp4", "2.mp4.journal"]
        for index, refused, lost in ((45, ["2.mp4: refused"], 30), (35, [], 0)):
            result = judge.judge(EXPECTED, NOTES, index, found, reports)
            self.assertEqual([result[name] for name in ("refused", "lost", "wrong", "left")], [refused, lost, [], left])

    def test_the_first_two_frames_begin_together(self):
        times = [frame.time for frame in whole("2.mp4").tracks[0][:4]]
        for time, wanted in zip(times, (0, 0, 0.08, 0.12)):
            self.assertAlmostEqual(time, wanted)


class Cut(unittest.TestCase):
    def test_models(self):
        """A letter for each kilobyte of the card; the first write is safe, the last two are not."""
        a, b, c = (letter * 2048 for letter in (b"a", b"b", b"c"))
        writes = [cut.Write(0, a, False), cut.Write(0, b"", True), cut.Write(1024, b, False), cut.Write(3072, c, False)]
        cases = (  # model, unit, writes, what can be on the card
            ("none", 512, 4, {"aa..."}),
            ("all", 512, 4, {"abbcc"}),
            ("all", 512, 3, {"abb.."}),
            ("all", 512, 1, {"aa..."}),
            ("torn", 1024, 4, {"abb..", "abbc.", "abb.c", "abbcc"}),
            ("torn", 4096, 4, {"abb..", "abbc.", "abb.c", "abbcc"}),
            ("erased", 1024, 3, {"aa\xff..", "ab\xff..", "aab..", "abb.."}),
            ("erased", 4096, 3, {"aa...", "abb.."}),
        )
        for model, unit, index, possible in cases:
            with self.subTest(model=model, unit=unit, index=index):
                found = set()
                for seed in range(100):
                    with tempfile.NamedTemporaryFile(dir=readers.MEMORY) as card:
                        card.write(b"." * 5120)
                        card.flush()
                        cut.Cut(writes, index, model, unit, seed, ()).build(card.name, 0, 5120)
                        card.seek(0)
                        found.add(card.read()[::1024].decode("latin-1"))
                self.assertEqual(found, possible)

    def test_a_log_is_read_as_it_was_written(self):
        note = json.dumps({"note": "safe", "frames": [1, 2]}).encode().ljust(512, b"\0")
        log = struct.pack("<QQQI", 0x6A736677736872, 1, 3, 512).ljust(512, b"\0")
        for sector, count, flags, data in ((7, 1, 0, note), (0, 0, 1, b""), (9, 2, 0, b"x" * 1024)):
            log += struct.pack("<QQQQ", sector, count, flags, 0).ljust(512, b"\0") + data
        with tempfile.NamedTemporaryFile(dir=readers.MEMORY) as file:
            file.write(log + b"what QEMU has not counted yet")
            file.flush()
            writes = cut.read_log(file.name)
        self.assertEqual(writes, [(3584, note, False), (0, b"", True), (4608, b"x" * 1024, False)])
        self.assertEqual(cut.notes_of(writes, 3584, 512), [(0, {"note": "safe", "frames": [1, 2]})])


if __name__ == "__main__":
    unittest.main()
