"""The command mediafiles record: real inputs in, files that independent readers judge out, and every way it can end.

    record_command_test.py --tool MEDIAFILES --media STREAMS
"""

import json
import pathlib
import resource
import signal
import struct
import subprocess
import unittest

from support import judge

GIVEN = judge.given("tool", "media")
BASE, SLICES, OTHER, REORDERED, AAC, AAC_44, HEVC, HEVC_CRA = (GIVEN.media / name for name in (
    "h264_base_640x360_25.h264", "h264_high_aud_4slices_640x360_30.h264", "ext_MPS_MW_A_176x144_30.h264",
    "ext_intel_176x96_30.h264", "aac_lc_48000_2.aac", "aac_voaac_44100_2.aac",
    "h265_aud_sei_640x360_25.h265", "h265_cra_2slices_640x360_30.h265"))
DONE, FAILED, USAGE = 0, 1, 2


class Record(judge.Test):
    def setUp(self):
        super().setUp()
        self.given = self.directory / "given"

    def start(self, *arguments, **options):
        output = [] if "-o" in arguments else ["-o", self.clip]
        return subprocess.Popen([GIVEN.tool, "record", *output, "--json", *map(str, arguments)], bufsize=0,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)

    def end(self, process, exit_code):
        """The summary, which must be all that stands on standard output, and the lines on standard error."""
        out, err = (text.decode() for text in process.communicate(timeout=20))
        self.assertEqual(process.returncode, exit_code, err)
        summary = json.loads(out) if exit_code != USAGE else None
        if exit_code == FAILED:
            self.assertIn(f"mediafiles: record: {summary['error']}\n", err)
        return summary, err

    def record(self, *arguments, exit_code=DONE, **options):
        self.clip.unlink(missing_ok=True)
        return self.end(self.start(*arguments, **options), exit_code)

    def remux(self, name, *arguments):
        path = self.directory / name
        judge.run("ffmpeg", "-v", "error", "-y", *arguments, "-c", "copy", path)
        return path

    def check_track(self, source, stream, timescale):
        """The recorded track is the elementary stream, unit by unit; the second begins with the first."""
        units = judge.units(source)
        self.assertEqual(judge.packets(self.clip, stream), [
            judge.Packet(len(judge.recorded(u, source.suffix[1:])), round(u.time_ns * timescale / 10**9) * (i > 1),
                         bool(u.key)) for i, u in enumerate(units)])
        self.assertEqual(judge.frame_checksums(self.clip, stream), judge.frame_checksums(source))

    def check_samples(self, *sources):
        """
        Every journaled sample lies in the media file, is the unit of its turn, and has the time at which the next one
        begins; gives their number by track.
        """
        media, journal, counts = self.clip.read_bytes(), self.journal.read_bytes(), [0] * len(sources)
        self.assertEqual(judge.whole_records(journal), len(journal))
        for sample in judge.samples_of(journal):
            source, n = sources[sample.track], counts[sample.track]
            units = judge.units(source)
            self.assertEqual(media[sample.begin:sample.end], judge.recorded(units[n], source.suffix[1:]))
            self.assertEqual(sample.key, units[n].key)
            self.assertLess(abs(sample.time - (n + (n > 0)) * units[1].time_ns), 30_000)  # ticks of the track
            counts[sample.track] += 1
        kinds = {record[1] for record in judge.records_of(journal)}
        self.assertEqual(kinds, {judge.USER, judge.TRACK, judge.SAMPLE, judge.SPS, judge.PPS})
        return counts

    def named(self):
        """Samples that the journal names so far."""
        return len(list(judge.samples_of(self.journal.read_bytes()))) if self.journal.exists() else 0

    def test_raw_streams(self):
        for stream, rate in ((BASE, "25"), (SLICES, "30"), (OTHER, "30")):
            with self.subTest(stream.name):
                summary, _ = self.record(stream, "--fps", rate)
                self.check_track(stream, "v", 90000)
                units = judge.units(stream)
                totals = [len(units), sum(u.key for u in units), sum(len(judge.recorded(u, "h264")) for u in units)]
                self.assertEqual([summary["tracks"][0][k] for k in ("frames", "key_frames", "bytes")], totals)
                self.assertFalse(self.journal.exists())
        _, err = self.record(BASE, AAC, "--format", "h264", "--format", "aac", "--quiet")
        self.assertEqual(err, "")
        self.check_track(BASE, "v", 90000)
        self.check_track(AAC, "a", 48000)
        self.assertEqual([judge.gstreamer_buffers(self.clip, pad) for pad in ("video_0", "audio_0")], [100, 236])
        seen = judge.mediainfo_tracks(self.clip)
        self.assertEqual((seen["Video"]["Format"], seen["Audio"]["Format"]), ("AVC", "AAC"))
        summary, _ = self.record(BASE, AAC, "--duration", "1.5")
        self.assertEqual((summary["stopped_by"], [t["frames"] for t in summary["tracks"]]), ("duration", [38, 71]))

    def test_h265(self):
        """From every container the stream is stored as it is; the journal has its parameter sets and no SEI."""
        for stream, rate in ((HEVC, "25"), (HEVC_CRA, "30")):
            mp4 = self.remux("in.mp4", "-framerate", rate, "-i", stream)
            ts = self.remux("in.ts", "-i", mp4)
            for given in (stream, mp4, ts):
                with self.subTest(given.name, stream=stream.name):
                    self.record(given, AAC, BASE, "--fps", rate, "--keep-journal", "--overwrite")
                    if given == stream:
                        self.check_track(stream, "v:0", 90000)
                    for track, source in ("v:0", stream), ("a", AAC), ("v:1", BASE):
                        self.assertEqual(judge.frame_checksums(self.clip, track), judge.frame_checksums(source))
                    kinds = [kind for _, kind, track, _ in judge.records_of(self.journal.read_bytes())
                             if track == 0 and kind != judge.USER]
                    first = kinds.index(judge.SAMPLE)
                    self.assertEqual(sorted(kinds[:first]), [judge.TRACK, judge.VPS, judge.SPS, judge.PPS])
                    self.assertEqual(kinds[first:], [judge.SAMPLE] * len(judge.units(stream)))

    def test_containers(self):
        """The demuxer's own times count, here those that ffprobe shows of the input."""
        for name in ("in.mp4", "in.ts", "in.mkv"):
            given = self.remux(name, "-framerate", "25", "-i", BASE, "-i", AAC_44)
            self.record(given)
            for stream, timescale, source in (("v", 90000, BASE), ("a", 44100, AAC_44)):
                with self.subTest(name, stream=stream):
                    shown = json.loads(judge.run("ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                                                 "packet=pts:stream=time_base", "-of", "json", given))
                    num, den = map(int, shown["streams"][0]["time_base"].split("/"))
                    times = [p["pts"] * num / den for p in shown["packets"]]
                    found = judge.packets(self.clip, stream)
                    late = [(p.ticks - found[0].ticks) / timescale - (t - times[0]) for p, t in zip(found, times)]
                    self.assertEqual([i for i, t in enumerate(late) if i != 1 and abs(t) > 0.001], [])
                    self.assertEqual([p.key for p in found], [bool(u.key) for u in judge.units(source)])
                    self.assertEqual(judge.frame_checksums(self.clip, stream), judge.frame_checksums(given, stream))
        self.record(self.directory / "in.ts", AAC)  # the first begins at 1.4 s, but both begin together
        self.assertLess(max(float(s["start_time"]) for s in judge.streams(self.clip)), 0.1)

    def test_files(self):
        """The files hold the streams once and in order; numbers go on from the highest, and the oldest files go."""
        names = {"clip.mp4": ("clip.mp4", "clip-2.mp4", "clip-3.mp4", "clip-4.mp4"),
                 "%Y/n{number:3}.mp4": ("n001.mp4", "n002.mp4", "n003.mp4", "n004.mp4")}
        for output, expected in names.items():
            with self.subTest(output):
                summary, _ = self.record(BASE, AAC, "-o", self.directory / output, "--segment", "1", "--duration", "4")
                files = [pathlib.Path(f["path"]) for f in summary["files"]]
                self.assertEqual(tuple(f.name for f in files), expected)
                self.assertEqual([f["duration"] for f in summary["files"]][:3], [1] * 3)
                self.assertEqual(sum((judge.frame_checksums(f, "v") for f in files), []), judge.frame_checksums(BASE))
                sizes = [p.size for f in files for p in judge.packets(f, "a")]
                self.assertEqual(sizes, [len(u.data) - 7 for u in judge.units(AAC)][:len(sizes)])
                self.assertEqual([t["frames"] for t in summary["tracks"]], [100, len(sizes)])
        everything = summary["bytes"]
        _, err = self.record(BASE, "-o", self.directory / "%Y/n{number:3}.mp4", "--segment-bytes", "40K", "--quota",
                             everything // 2, "--realtime")
        left = sorted(files[0].parent.iterdir())
        self.assertEqual([f.name for f in left][-1], "n008.mp4")
        self.assertEqual(err.count("deleted: "), 8 - len(left))
        self.assertTrue(everything // 4 < sum(f.stat().st_size for f in left) <= everything // 2)

    def test_which_streams(self):
        given = self.remux("in.mp4", "-i", BASE, "-i", AAC, "-i", AAC_44, "-map", "0", "-map", "1", "-map", "2")
        for options, expected in ((("--no-audio",), [0]), (("--no-video",), [1, 2]), (("--map", "a:1"), [2]),
                                  (("--map", "v", "--map", "0:1"), [0, 1])):
            with self.subTest(options):
                summary, _ = self.record(given, *options)
                self.assertEqual([t["stream"] for t in summary["tracks"]], expected)

    def test_units(self):
        """Times and sizes as people write them: each comes to the same files."""
        times = ("2", "2s", "2000ms", "0:02", "00:00:02.0")
        sizes = ("50K", "50KiB", "51.2KB", "51200B", "0.048828125M")
        for options in (times, sizes):
            found = set()
            for text in options:
                summary, _ = self.record(BASE, "--segment", text, "-y", "-t", "0:03.5", "-o", self.directory / "s.mp4")
                found.add(tuple((f["duration"], f["bytes"]) for f in summary["files"]))
                for file in summary["files"]:
                    pathlib.Path(file["path"]).unlink()
            self.assertEqual((len(found), len(found.pop()) > 1), (1, True), options)

    def test_reordered_pictures(self):
        mp4 = self.remux("b.mp4", "-framerate", "30", "-i", REORDERED)
        for given in (REORDERED, mp4, self.remux("b.ts", "-i", mp4)):
            with self.subTest(given.name):
                summary, _ = self.record(given, exit_code=FAILED)
                self.assertEqual(summary["stopped_by"], "error")
                self.assertFalse(self.clip.exists() or self.journal.exists())
        self.given.write_bytes(BASE.read_bytes() * 3 + REORDERED.read_bytes())
        summary, _ = self.record(self.given, exit_code=FAILED)
        self.assertEqual(summary["stopped_by"], "error")
        files = [pathlib.Path(f["path"]) for f in summary["files"]]  # the third picture is shown before the second
        self.assertEqual([len(judge.packets(f, "v")) for f in files], [300, 2])

    def test_frames_of_note(self):
        units = [u.data for u in judge.units(BASE)[:12]]
        sei, cut = b"\0\0\0\1\x06\x80", b"\0\0\0\1\x09\x30\0\0\0\1"
        odd = [sei * {3: 31, 5: 32, 7: 33}.get(i, 0) + unit for i, unit in enumerate(units)]
        self.given.write_bytes(b"".join(odd) + cut)
        summary, err = self.record(self.given, "--keep-journal")
        self.assertEqual([summary["tracks"][0][k] for k in ("frames", "dropped")], [12, 1])
        self.assertEqual(err.count("a NAL unit header is cut off"), 1)
        self.assertEqual([p.ticks // 3600 for p in judge.packets(self.clip, "v")], [0, 0, *range(2, 12)])
        framed = self.remux("in.nut", "-framerate", "25", "-i", BASE).read_bytes()
        self.given.write_bytes(framed.replace(units[6], b"U" * 8 + units[6][8:]))
        summary, err = self.record(self.given, "--overwrite")
        self.assertEqual((summary["tracks"][0]["dropped"], err.count("no start code")), (1, 1))
        self.given.write_bytes(self.remux("one.ts", "-framerate", "25", "-i", BASE, "-frames", "20").read_bytes() * 2)
        summary, err = self.record(self.given)
        self.assertEqual((summary["tracks"][0]["backwards"], err.count("recorded without a gap")), (0, 1))

    def test_what_stands_in_the_way(self):
        """Nothing is made, or what was read before."""
        text = self.directory / "text.ts"
        text.write_bytes(b"text")
        for arguments, exit_code in ((text,), FAILED), ((BASE, "--map", "7"), FAILED), ((BASE, "--quota", "1G"), USAGE):
            self.record(*arguments, exit_code=exit_code)
            self.assertFalse(self.clip.exists() or self.journal.exists())
        pairs = [u.data for u in judge.units(AAC)]  # ADTS frames of two raw data blocks each
        self.given.write_bytes(b"".join(a[:3] + struct.pack(">I", int.from_bytes(a[3:7], "big") + (len(b) - 7 << 13) + 1)
                                        + a[7:] + b[7:] for a, b in zip(pairs[::2], pairs[1::2])))
        summary, _ = self.record(self.given, "--format", "aac", exit_code=FAILED)
        self.assertEqual([summary["tracks"][0][k] for k in ("frames", "dropped")], [0, len(pairs) // 2])
        self.assertFalse(self.clip.exists() or self.journal.exists())

    def test_cut_inputs(self):
        """A file of which a part is missing is recorded as far as it goes, and that is reported."""
        for name, options in ("mp4", ("-movflags", "faststart")), ("mkv", ()), ("flv", ()), ("avi", ()), ("ts", ()):
            with self.subTest(name):
                whole = self.remux(f"whole.{name}", "-fflags", "+genpts", "-i", BASE, *options).read_bytes()
                self.given.write_bytes(whole[:100_000])
                summary, _ = self.record(self.given, exit_code=FAILED)
                self.assertRegex(summary["error"], "^reading stopped: ")
                self.assertEqual(len(judge.packets(self.clip, "v")), summary["tracks"][0]["frames"])

    def test_existing_files(self):
        self.given.write_bytes(BASE.read_bytes())
        self.journal.write_bytes(b"kept")
        self.record(self.given, exit_code=FAILED)
        self.assertEqual((self.journal.read_bytes(), self.clip.exists()), (b"kept", False))
        self.clip.hardlink_to(self.given)
        self.end(self.start(self.given, "--overwrite"), FAILED)
        self.assertEqual(self.given.read_bytes(), BASE.read_bytes())
        self.clip.unlink()
        self.end(self.start(self.given, "--overwrite", "--keep-journal"), DONE)
        self.assertLessEqual(judge.rounds_of(self.journal.read_bytes())[-1], self.clip.stat().st_size)
        self.assertEqual(self.check_samples(BASE), [100])

    def test_file_size_limit(self):
        """Where no more can be written or completed the media stays, and the journal names what was safe and is counted."""
        limit = 100_000
        summary, err = self.record(BASE, AAC, "--sync", "0", "--realtime", exit_code=FAILED, preexec_fn=lambda:
                                   resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        for what in "write", "complete":
            self.assertIn(f"cannot {what}: {self.clip}: File too large", err)
        self.assertEqual((summary["stopped_by"], summary["journal_kept"], self.clip.stat().st_size), ("error", True, limit))
        self.assertEqual([t["frames"] for t in summary["tracks"]], self.check_samples(BASE, AAC))
        self.assertGreater([s.end for s in judge.samples_of(self.journal.read_bytes())][-1], limit * 0.9)

    def test_signals(self):
        """SIGINT in the middle, and SIGTERM while standard input has nothing to give, finish the file."""
        for number, arguments in ((signal.SIGINT, (BASE, "--realtime")), (signal.SIGTERM, ("-", "--format", "h264"))):
            with self.subTest(number):
                process = self.start(*arguments, "--overwrite", "--sync", "0.1", stdin=subprocess.PIPE)
                process.stdin.write(BASE.read_bytes() if "-" in arguments else b"")
                judge.wait_for(lambda: self.named() > 10)
                process.send_signal(number)
                process.wait(20)
                summary, _ = self.end(process, DONE)
                self.assertEqual(summary["stopped_by"], "signal")
                self.assertEqual(len(judge.packets(self.clip, "v")), summary["tracks"][0]["frames"])
                self.assertGreater(summary["tracks"][0]["frames"], 10)


if __name__ == "__main__":
    unittest.main()
