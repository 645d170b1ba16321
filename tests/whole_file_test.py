"""Records elementary streams, frame by frame, through the C interface and lets independent readers judge.

    whole_file_test.py --example EXAMPLE --check CHECK-MP4 --media STREAMS
"""

import itertools
import re
import subprocess
import unittest

from support import judge

GIVEN = judge.given("example", "check", "media")
# Pictures that are reordered: their files would play wrongly.
REORDERED = ("ext_intel", "ext_test25", "h265_tsa", "ext_bear", "ext_cars")
FORMATS = {".h264": "AVC", ".h265": "HEVC"}


def video_streams():
    return [v for v in sorted(GIVEN.media.glob("*.h26[45]")) if not v.name.startswith(REORDERED)]


def picture_size(video):
    return re.search(r"_(\d+)x(\d+)_", video.name).groups()


def audio_format(audio):
    rate, channels = re.search(r"_(\d+)_(\d+)\.aac$", audio.name).groups()
    return channels, rate


class WholeFile(judge.Test):
    def until(self, audio, last_ns):
        """The beginning of a stream, with its manifest: players pass over a track much shorter than another."""
        header, *rows = audio.with_suffix(".units.tsv").read_text().splitlines()
        rows = [r for r in rows if int(r.split("\t")[3]) <= last_ns]
        offset, length = map(int, rows[-1].split("\t")[1:3])
        beginning = self.directory / audio.name
        beginning.write_bytes(audio.read_bytes()[:offset + length])
        beginning.with_suffix(".units.tsv").write_text("\n".join([header, *rows]) + "\n")
        return beginning

    def record(self, video, audio=None):
        command = [GIVEN.example, self.clip, video, video.with_suffix(".units.tsv"), *picture_size(video)]
        if audio:
            command += [audio, audio.with_suffix(".units.tsv"), *audio_format(audio)]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def check(self, source, stream, pad, timescale):
        units, packets = judge.units(source), judge.packets(self.clip, stream)
        times = [u.time_ns for u in units]  # the first sample lasts 0, each next the time since the one before, half up
        steps = (((b - a) * timescale + 500_000_000) // 1_000_000_000 for a, b in zip(times, times[1:]))
        self.assertEqual([(p.ticks, p.key) for p in packets],
                         list(zip((0, 0, *itertools.accumulate(steps)), (bool(u.key) for u in units))))
        self.assertEqual(judge.frame_checksums(self.clip, stream), judge.frame_checksums(source))
        self.assertEqual(judge.gstreamer_buffers(self.clip, pad), len(units))

    def test_every_stream(self):
        videos, audios = video_streams(), sorted(GIVEN.media.glob("*.aac"))
        self.assertGreater(len(videos), 2)
        for i, video in enumerate(videos):
            audio = audios[i % len(audios)] if i % 3 != 2 else None
            with self.subTest(video=video.name, audio=audio and audio.name):
                if audio:
                    audio = self.until(audio, judge.units(video)[-1].time_ns)
                self.record(video, audio)
                judge.run(GIVEN.check, self.clip)
                self.check(video, "v", "video_0", 90000)
                seen = judge.mediainfo_tracks(self.clip)
                self.assertEqual((seen["Video"]["Format"], seen["Video"]["Width"]), (FORMATS[video.suffix], picture_size(video)[0]))
                if audio:
                    channels, rate = audio_format(audio)
                    self.check(audio, "a", "audio_0", int(rate))
                    self.assertEqual((seen["Audio"]["Format"], seen["Audio"]["Channels"]), ("AAC", channels))


if __name__ == "__main__":
    unittest.main()
