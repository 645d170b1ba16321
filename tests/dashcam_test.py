"""The dashcams of examples/: every frame is in a file that plays alone; a kill costs the end alone, and no protection.

    dashcam_test.py --c EXAMPLE --cpp EXAMPLE --media STREAMS
"""

import hashlib
import re
import signal
import subprocess
import unittest

from support import judge

GIVEN = judge.given("c", "cpp", "media")
PROGRAMS = (GIVEN.c, GIVEN.cpp)
STREAMS = (("h264_base_640x360_25.h264", 33), ("aac_lc_48000_2.aac", 26))  # times they are repeated: 132 and 131 s
FORMAT = re.compile(r"(\d{8})_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.mp4")


class Dashcam(judge.Test):
    @classmethod
    def setUpClass(cls):
        """What is expected of each track: decoded pictures, packets of sound."""
        cls.pictures = judge.frame_checksums(GIVEN.media / STREAMS[0][0]) * STREAMS[0][1]
        sound = judge.units(GIVEN.media / STREAMS[1][0])
        cls.sounds = [hashlib.md5(judge.recorded(unit, "aac")).hexdigest() for unit in sound] * STREAMS[1][1]

    def setUp(self):
        super().setUp()
        self.card = self.directory / "card"
        self.sources = [path for stream in STREAMS for path in self.repeated(*stream)]

    def repeated(self, name, times):
        stream = self.directory / name
        data, manifest = judge.repeated(GIVEN.media / name, times)
        stream.write_bytes(data)
        stream.with_suffix(".units.tsv").write_text(manifest)
        return stream, stream.with_suffix(".units.tsv")

    def start(self, program, speed=100):
        self.card.mkdir(exist_ok=True)
        self.log = open(self.directory / "log", "w+")
        self.addCleanup(self.log.close)
        process = subprocess.Popen([program, self.card, *self.sources, str(speed)], stderr=self.log)
        self.addCleanup(process.kill)
        return process

    def end(self, process):
        """Its events: (kind, name of the file or nothing)."""
        self.assertEqual(process.wait(judge.PATIENCE), 0)
        self.log.seek(0)
        return [tuple(line.split(",")[0].split(": ", 1)) for line in self.log]

    def files(self):
        found = sorted(self.card.iterdir())
        for path in found:
            self.assertTrue(FORMAT.fullmatch(path.name), path.name)
        return found

    def check(self, files, complete):
        """The files in their order are the beginning of the sources, or all of them."""
        pictures, sounds = [], []
        for path in files:
            self.assertEqual(judge.run("ffprobe", "-v", "warning", path), "")
            lines = judge.run("ffmpeg", "-v", "warning", "-i", path, "-map", "0", "-c:a", "copy",
                              "-fpsmax", "1000", "-f", "framemd5", "-")  # else it warns of a file with one picture
            for line in lines.splitlines():
                if not line.startswith("#"):
                    (sounds if line.startswith("1") else pictures).append(line.split(",")[-1].strip())
        self.assertEqual(pictures, self.pictures[:None if complete else len(pictures)])
        self.assertEqual(sounds, self.sounds[:None if complete else len(sounds)])
        return len(pictures)

    def test_every_frame_is_in_a_file_that_plays_alone(self):
        for program in PROGRAMS:
            with self.subTest(program=program.name):
                self.setUp()
                events = self.end(self.start(program))
                files = self.files()
                self.assertEqual([name for kind, name in events if kind == "finished"], [f.name for f in files])
                self.assertEqual({kind for kind, _ in events}, {"begun", "finished"})
                self.assertEqual(len(files), 3)
                self.check(files, complete=True)

    def test_a_kill_costs_the_end_alone_and_no_protection(self):
        for program in PROGRAMS:
            with self.subTest(program=program.name):
                self.setUp()
                victim = self.start(program, 20)
                judge.wait_for(lambda: any(path.stat().st_size > 1000 for path in self.card.glob("00000002*.journal")))
                victim.send_signal(signal.SIGUSR1)
                judge.wait_for(lambda: "protected: 00000002" in (self.directory / "log").read_text())
                victim.kill()
                victim.wait()
                cut = sorted(path.name for path in self.card.glob("*.mp4"))

                process = self.start(program)
                judge.wait_for(lambda: any(self.card.glob("00000004*.mp4")))
                process.send_signal(signal.SIGTERM)
                events = self.end(process)
                files = self.files()
                self.assertIn(("recovered", cut[-1]), events)
                self.assertEqual(cut, [path.name for path in files[:2]])
                self.assertEqual([bool(path.stat().st_mode & 0o222) for path in files[1:3]], [False, True])
                for recording in files[:2], files[2:]:
                    self.assertGreater(self.check(recording, complete=False), 25 * 60)


if __name__ == "__main__":
    unittest.main()
