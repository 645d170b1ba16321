"""What the recorder stores, judged by readers that share nothing with it: ffprobe, ffmpeg, strace.

    recorder_judges_test.py --drive RECORDER-DRIVE --media STREAMS [--week SECONDS] [--growth KIB]

A driver pushes frames by a plan; see support/recorder-drive.cpp. Where a stream that is needed has no file, ffmpeg
makes it.
"""

import collections
import functools
import heapq
import itertools
import json
import pathlib
import random
import re
import subprocess
import tempfile
import unittest

from support import judge

GIVEN = judge.given("drive", "media", week=6 * 3600, growth=1024)
SECOND, MILLISECOND = 10**9, 10**6
FRAME = 1024 * SECOND // 48000
ANY_START, JOIN_STEPS = 1, 4
(BEGUN, FINISHED, RECOVERED, NOT_RECOVERED, DELETED, STALLED, DROPPED, REFUSED, FULL, NO_MEDIUM, WRITE_ERROR, GOES_ON,
 CLOCK, KEY_WANTED, LOST) = range(1, 16)

# codec and measure (width, or sampling rate) are what a reader knows a track by.
Source = collections.namedtuple("Source", "track codec measure frames")
Stored = collections.namedtuple("Stored", "data time key")  # time: nanoseconds from the beginning of the file
File = collections.namedtuple("File", "path duration tracks indices")


# ---- Sources


def video(name, frames=None):
    stream = next(GIVEN.media.glob(name + "*.h26[45]"))
    codec = {".h264": "h264", ".h265": "hevc"}[stream.suffix]
    return Source(stream.suffix[1:], codec, int(re.search(r"_(\d+)x", stream.name)[1]), frames or judge.units(stream))


def sound(name="aac_lc_48000"):
    stream = next(GIVEN.media.glob(name + "*.aac"))
    rate, channels = map(int, re.search(r"_(\d+)_(\d+)\.aac$", stream.name).groups())
    return Source(f"aac:{channels}:{rate}", "aac", rate, judge.units(stream))


@functools.cache
def encoded(parameters, *options, rate=25, seconds=2, size="320x180"):
    """An H.264 stream, as x264 makes it with these parameters."""
    with tempfile.NamedTemporaryFile(suffix=".h264") as stream:
        judge.run("ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"testsrc2=size={size}:rate={rate}:d={seconds}",
                  "-pix_fmt", "yuv420p", "-c:v", "libx264", "-threads", 1, "-bf", 0, *options, "-x264-params",
                  f"scenecut=0:{parameters}", "-f", "h264", stream.name)
        shown = json.loads(judge.run("ffprobe", "-v", "error", "-show_entries", "packet=pos,size,flags", "-of", "json",
                                     stream.name))["packets"]
        data = pathlib.Path(stream.name).read_bytes()
    frames = [judge.Unit(data[int(p["pos"]):int(p["pos"]) + int(p["size"])], i * SECOND // rate, "K" in p["flags"])
              for i, p in enumerate(shown)]
    assert b"".join(f.data for f in frames) == data
    return Source("h264", "h264", int(size.split("x")[0]), frames)


def retimed(source, times):
    """As many frames as there are times: the stream again and again."""
    return source._replace(frames=[source.frames[i % len(source.frames)]._replace(time_ns=int(t))
                                   for i, t in enumerate(times)])


def paced(source, rate, count, begin=0):
    return retimed(source, (begin + i * SECOND / rate for i in range(count)))


def cut_short(source, lengths):
    """Groups of pictures of these lengths: nothing refers to what is left out."""
    groups, step = [], source.frames[1].time_ns
    for unit in source.frames:
        if unit.key:
            groups.append([])
        groups[-1].append(unit)
    frames = [f for i, n in enumerate(lengths) for f in groups[i % len(groups)][:n]]
    return source._replace(frames=[f._replace(time_ns=i * step) for i, f in enumerate(frames)])


def until(source, time):
    return source._replace(frames=[f for f in source.frames if f.time_ns < time])


def further_sets(source):
    """As a sample has them, those beside the first one of H.264's first frame."""
    return [] if source.codec != "h264" else [len(unit).to_bytes(4, "big") + unit for unit in
                                              judge.nal_units(source.frames[0].data) if unit[0] & 31 == 8][1:]


# ---- Readers


def read(path):
    """A file as ffprobe reads it without a warning."""
    shown = json.loads(judge.run("ffprobe", "-v", "warning", "-show_entries",
                                 "packet=stream_index,pts,size,pos,flags:format=duration:"
                                 "stream=codec_name,width,sample_rate,time_base", "-of", "json", path))
    data, tracks, keys = path.read_bytes(), {}, []
    for stream in shown["streams"]:
        keys.append((stream["codec_name"], int(stream.get("width") or stream["sample_rate"])))
        tracks[keys[-1]] = []
    units = [int(stream["time_base"].split("/")[1]) for stream in shown["streams"]]
    for p in shown["packets"]:
        at, size, index = int(p["pos"]), int(p["size"]), p["stream_index"]
        tracks[keys[index]].append(
            Stored(data[at:at + size], p["pts"] * SECOND / units[index], "K" in p["flags"]))
    return File(path, round(float(shown["format"]["duration"]) * 1000), tracks, {key: i for i, key in enumerate(keys)})


def decoded(streams):
    """The checksums of all frames, each path with its index of a stream decoded alone, without a warning."""
    with tempfile.TemporaryDirectory(dir=judge.MEMORY) as directory:
        inputs, outputs, sums = [], [], []
        for i, (path, stream) in enumerate(streams):
            inputs += ["-i", path]
            outputs += ["-map", f"{i}:{stream}", "-fps_mode", "passthrough", "-f", "framemd5", f"{directory}/{i}"]
        judge.run("ffmpeg", "-v", "warning", "-xerror", "-threads", 1, *inputs, *outputs)
        for i in range(len(streams)):
            lines = pathlib.Path(directory, str(i)).read_text().splitlines()
            sums += [line.split(",")[-1].strip() for line in lines if not line.startswith("#")]
    return sums


def decoded_source(source):
    with tempfile.NamedTemporaryFile(suffix={"hevc": ".h265", "h264": ".h264", "aac": ".aac"}[source.codec]) as file:
        file.write(b"".join(f.data for f in source.frames))
        file.flush()
        return decoded([(file.name, 0)])


def traced(path):
    """Every NAL unit, field by field, as ffmpeg's parser of headers finds them in the packets."""
    done = subprocess.run(["ffmpeg", "-hide_banner", "-i", path, "-map", "0:v:0", "-c", "copy", "-bsf:v", "trace_headers",
                           "-f", "null", "-"], capture_output=True, text=True, check=True, timeout=judge.PATIENCE)
    lines = [line.partition("] ")[2] for line in done.stderr.splitlines() if line.startswith("[trace_headers")]
    first = next(i for i, line in enumerate(lines) if line.startswith("Packet:"))
    return [line for line in lines[first:] if not line.startswith("Packet:")]


# ---- Recordings


class Recording:
    """What a driver has made of a plan: its files, events and counts."""

    def __init__(self, directory, tracks, steps, under=(), **options):
        self.directory = pathlib.Path(directory, "card")
        self.directory.mkdir(exist_ok=True)
        places, lines, media = {}, [], []
        size = 0
        for step in steps:
            if not isinstance(step, str):
                track, data, time, flags = step
                if data not in places:
                    places[data] = size
                    media.append(data)
                    size += len(data)
                step = f"{track} {places[data]} {len(data)} {time} {flags}"
            lines.append(step)
        pathlib.Path(directory, "media").write_bytes(b"".join(media))
        pathlib.Path(directory, "plan").write_text("\n".join(lines))
        done = subprocess.run([*under, GIVEN.drive, self.directory, f"{directory}/media", f"{directory}/plan", *tracks,
                               *(f"{name}={value}" for name, value in options.items())],
                              check=False, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                              timeout=judge.PATIENCE + GIVEN.week // 600)
        self.status = done.returncode
        self.said = [json.loads(line) for line in done.stderr.splitlines()]
        self.looks = [line for line in self.said if "look" in line]
        self.end = self.looks[-1] if self.looks else None
        self.paths = sorted(self.directory.glob("*.mp4"))

    def events(self, kind):
        return [line for line in self.said if line.get("event") == kind]

    @functools.cached_property
    def files(self):
        return [read(path) for path in self.paths]

    def begins(self):
        """Capture times, whole milliseconds."""
        return [(e["from"] + MILLISECOND // 2) // MILLISECOND * MILLISECOND for e in self.events(BEGUN)]


def frames_of(sources, steps=()):
    """In the order of their times, with other steps at theirs."""
    all_frames = [[(f.time_ns, i, f.data) for f in source.frames] for i, source in enumerate(sources)]
    for time, i, data in heapq.merge(*all_frames, [(t, -1, s) for t, s in steps], key=lambda f: f[0]):
        yield (i, data, time, 0) if i >= 0 else data


class RecorderTest(judge.Test):
    def record(self, sources, steps=(), **options):
        directory = tempfile.mkdtemp(dir=self.directory)
        tracks = [s.track for s in sources]
        made = Recording(directory, tracks, frames_of(sources, steps), **options)
        self.assertEqual(made.status, 0)
        return made

    def check_samples(self, made, source):
        """All of the source's frames, each once, in their order."""
        tracks = [f.tracks.get((source.codec, source.measure), []) for f in made.files]
        stored = [s.data for track in tracks for s in track]
        expected = [judge.recorded(f, source.codec) for f in source.frames]
        # A header has one PPS: where key frames come without the others, the first sample of a file gets them.
        begins = itertools.accumulate(len(track) for track in tracks[:-1])
        for i, rest in itertools.product(begins, further_sets(source)):
            if rest not in expected[i]:
                expected[i] = rest + expected[i]
        self.assertEqual(len(stored), len(expected))
        different = [i for i, (a, b) in enumerate(zip(stored, expected)) if a != b]
        self.assertEqual(different, [])

    def check_times(self, made, source, begins=(), slack=1):
        """Each sample but the second of a file begins when it was captured; one at the seam may wait for it."""
        expected, wrong = iter(source.frames), []
        for begin, file in zip(begins or made.begins(), made.files, strict=True):
            for i, stored in enumerate(file.tracks.get((source.codec, source.measure), [])):
                late = (begin + stored.time - next(expected).time_ns) / MILLISECOND
                if i != 1 and not -slack <= late <= (2 if i == 0 else slack):
                    wrong.append((file.path.name, i, late))
        self.assertEqual(wrong, [])

    def check_played(self, made, source):
        """Every file that has the track begins it with a key frame and plays alone."""
        key = source.codec, source.measure
        files = [f for f in made.files if key in f.tracks]
        self.assertTrue(all(f.tracks[key][0].key for f in files))
        self.assertEqual(decoded([(f.path, f.indices[key]) for f in files]), decoded_source(source))

    # ---- Nothing is lost at a seam

    def test_every_stream_in_files_of_a_group(self):
        for stream in sorted(GIVEN.media.glob("*.h26[45]")):
            source = video(stream.stem)
            with self.subTest(stream=stream.name):
                if judge.streams(stream)[0]["has_b_frames"]:
                    continue  # reordered pictures would play wrongly
                audio = until(sound(), source.frames[-1].time_ns)
                made = self.record([source, audio], segment_ns=1)
                self.assertEqual(len(made.files), sum(f.key for f in source.frames))
                self.check_samples(made, source)
                self.check_samples(made, audio)
                self.check_played(made, source)
                for each in source, audio:
                    self.check_times(made, each)

    def test_seams(self):
        """Sixty files of odd lengths; cameras with groups of other lengths; sound alone; no key frame but the first."""
        odd = random.Random(7)
        ntsc, slow = encoded("keyint=30", rate=30, seconds=1), encoded("keyint=175", seconds=14)
        base = video("h264_base")
        lengths = [odd.randrange(3, 25) for _ in range(60)]
        film = cut_short(base, lengths)
        film = retimed(film, (5_000_300_000 + i * SECOND * 1001 / 30000 for i in range(len(film.frames))))
        long_sound = retimed(sound(), (5_000_000_000 + i * 1024 * SECOND / 48000 for i in range(2300)))
        long_sound = until(long_sound, film.frames[-1].time_ns)
        refresh = encoded("intra-refresh=1:keyint=20", seconds=4)
        cases = (
            ("sixty odd lengths", [film, long_sound], {"segment_ns": 1}, 60),
            ("odd lengths of sound", [paced(sound(), 48000 / 1024, 2300)], {"segment_ns": 777_777_777}, 64),
            ("two cameras", [paced(base, 25, 350), slow, paced(sound(), 48000 / 1024, 600)],
             {"segment_ns": 2 * SECOND}, 7),
            ("intra refresh", [refresh], {"segment_ns": SECOND, "flags": ANY_START}, 3),
        )
        for what, sources, options, count in cases:
            with self.subTest(what):
                made = self.record(sources, **options)
                self.assertEqual((len(made.files), made.end["dropped"], made.end["refused"]), (count, 0, 0))
                for source in sources:
                    self.check_samples(made, source)
                    self.check_times(made, source)
                if what == "intra refresh":
                    judge.run("ffmpeg", "-v", "error", "-i", made.paths[1], "-f", "null", "-")
                    continue
                for source in sources:
                    if source.codec != "aac":
                        self.check_played(made, source)

    # ---- Units

    def test_units(self):
        """Each NAL unit has a length of its own, however frames are cut; in a file that was repaired, too."""
        filler = ("-b:v", "1M", "-maxrate", "1M", "-bufsize", "1M")
        long_sei = b"\0\0\0\1\x06\x05" + b"\xff" * 11 + b"\xc3" + b"\x55" * 3000 + b"\x80"
        plain = encoded("keyint=10:aud=1")
        cases = {
            "four slices": encoded("keyint=10:slices=4"),
            "80 slices": encoded("keyint=10:slice-max-mbs=3", seconds=1),
            "MBAFF": encoded("keyint=10:tff=1", "-flags", "+ildct+ilme"),
            "intra refresh": encoded("intra-refresh=1:keyint=20"),
            "filler": encoded("keyint=10:nal-hrd=cbr", *filler),
            "delimiters": plain,
            "long SEI": plain._replace(frames=[f._replace(data=f.data[:6] + long_sei + f.data[6:]) for f in plain.frames]),
            "H.265": video("h265_aud_sei"),
        }
        for what, source in cases.items():
            for in_parts in (False, True):
                with self.subTest(what, in_parts=in_parts):
                    frames = [[(0, part, f.time_ns, 0) for part in
                               (re.split(b"(?=\0\0\0\1|(?<!\0)\0\0\1)", f.data)[1:] if in_parts else [f.data])]
                              for f in source.frames]
                    directory = tempfile.mkdtemp(dir=self.directory)
                    killed = Recording(directory, [source.track], [*itertools.chain(*frames[:len(frames) // 2]),
                                                                   "safe 0 10", "kill"], sync_ns=200 * MILLISECOND)
                    self.assertEqual(killed.status, -9)
                    made = Recording(directory, [source.track], itertools.chain(*frames))
                    self.assertEqual([e["path"] for e in made.events(RECOVERED)], ["00000001.mp4"])
                    repaired, finished = made.files
                    stored = [f.data for f in finished.tracks[source.codec, source.measure]]
                    self.assertEqual(stored, [judge.recorded(f, source.codec) for f in source.frames])
                    kept = [f.data for f in repaired.tracks[source.codec, source.measure]]
                    self.assertGreaterEqual(len(kept), 10)
                    self.assertEqual(kept, stored[:len(kept)])
                    for file, count in (finished, len(stored)), (repaired, len(kept)):
                        stream = self.directory / ("source." + source.track)
                        stream.write_bytes(b"".join(f.data for f in source.frames[:count]))
                        self.assertEqual(traced(file.path), traced(stream))

    # ---- A card that stalls

    def test_system_calls(self):
        """Pushing wakes a thread and signals an event, while the medium writes, syncs and stalls."""
        film, beep = video("h264_base"), until(sound(), 4 * SECOND)
        frames = list(frames_of([film, beep], [(SECOND, f"stall writes {SECOND}"), (SECOND, f"stall syncs {SECOND}")]))
        frames[90:90] = ["look", "mark", (1, b"\xff\xf1", frames[89][2], 0)]
        frames[50:50] = ["safe 0 5"]  # before the stalls
        log, traced = self.directory / "calls", ("env", "ASAN_OPTIONS=detect_leaks=0", "strace")  # no leaks under ptrace
        made = Recording(self.directory, [film.track, beep.track], [*frames, "mark"], queue_bytes=64 << 10, speed=2,
                         under=(*traced, "-f", "-y", "-o", log))
        self.assertEqual((made.status, made.end["refused"]), (0, 1))
        stalls = [made.end[what] for what in ("dropped", "worst_write", "worst_sync")]
        self.assertTrue(all(stalls), stalls)
        calls = [line.split(maxsplit=1) for line in log.read_text().splitlines()]
        mine = [call for thread, call in calls if thread == calls[0][0] and not call.startswith(("<...", "clock_nanosleep"))]
        begin, end = (i for i, call in enumerate(mine) if call.startswith("getppid"))
        kinds = (r"futex\(\w+, FUTEX_WAKE", r"write\(\d+<anon_inode:\[eventfd\]>")
        seen = {kind: sum(bool(re.match(kind, call)) for call in mine) for kind in kinds}
        self.assertTrue(any(seen.values()), seen)  # which ones depends on what the threads do meanwhile
        short_wait = r"futex\(\w+, FUTEX_WAIT(_BITSET)?_PRIVATE, 2, NULL"  # for a lock that is taken, which no stall may hold
        others = [call for call in mine[begin + 1:end] if not re.match("|".join((*kinds, short_wait)), call)]
        self.assertEqual((others, made.end["worst_push"] < SECOND // 4), ([], True))

    # ---- The clock

    def test_clock(self):
        """A step begins a file at the next key frame, or is joined on; times within the files are as if there was none."""
        film, beep = video("h264_base"), sound()
        beep = until(beep, 4 * SECOND)
        cases = {"a second back": -SECOND, "100 seconds back": -100 * SECOND, "54 years on": 54 * 365 * 86400 * SECOND,
                 "from zero again": None, "11 seconds on": 11 * SECOND}
        begin = 90_000 * SECOND + 250_000
        for (what, step), lead, flags in itertools.product(cases.items(), (-60, 0, 60), (0, JOIN_STEPS)):
            with self.subTest(what, lead=lead, flags=flags):
                at = 2500 * MILLISECOND  # in the middle of a group, and of sound
                steps = []
                for track, source, delay in (0, film, 0), (1, beep, lead * MILLISECOND):
                    for f in source.frames:
                        new = f.time_ns >= at + delay
                        time = begin + f.time_ns + (0 if not new else step if step is not None else -begin - at)
                        steps.append((f.time_ns, (track, f.data, time, 0)))
                steps.sort(key=lambda s: s[0])
                made = Recording(tempfile.mkdtemp(dir=self.directory), [film.track, beep.track], [s[1] for s in steps],
                                 flags=flags)
                self.assertEqual((made.status, len(made.files), made.end["dropped"], made.end["refused"]),
                                 (0, 1 if flags else 2, 0, 0))
                self.assertEqual(len(made.events(CLOCK)), 2)
                self.assertLess(abs(sum(f.duration for f in made.files) - 4000), 50)
                for source in film, beep:
                    self.check_samples(made, source)
                    self.check_times(made, source, (0, 3 * SECOND)[:len(made.files)], 2)

    def test_sound_that_pauses(self):
        """The next key frame begins a file, where it is in time again."""
        film = paced(encoded("keyint=5", seconds=1, size="64x64"), 5, 200)
        beep = [f for f in paced(sound(), 48000 / 1024, 1800).frames if not 5 * SECOND < f.time_ns < 17 * SECOND]
        beep = sound()._replace(frames=beep)
        made = self.record([film, beep])
        self.assertEqual((len(made.files), len(made.events(CLOCK)), made.end["dropped"]), (2, 1, 0))
        for source in film, beep:
            self.check_samples(made, source)
        self.check_times(made, film)
        last = made.files[1].tracks["aac", 48000]
        for stored, frame in zip(last[2:], beep.frames[2 - len(last):]):
            self.assertLess(abs(made.begins()[1] + stored.time - frame.time_ns), MILLISECOND)

    # ---- A long time

    def test_week(self):
        """Memory and descriptors stay as they are, numbers go on, the quota is kept to a file."""
        film = encoded("keyint=5", seconds=1, size="64x64")
        count, quota = GIVEN.week, 1 << 20
        film, beep = paced(film, 1, count), paced(sound(), 1, count)
        steps = [(minute * 60 * SECOND, step) for minute in range(1, count // 60)
                 for step in [f"safe 0 {minute * 60 - 5}", "look"][:1 if minute % 10 else 2]]
        made = self.record([film, beep], steps, segment_ns=60 * SECOND, quota_bytes=quota, sync_ns=10 * MILLISECOND)
        self.assertEqual([e["number"] for e in made.events(BEGUN)], list(range(1, count // 60 + 1)))
        seen = {name: [look[name] for look in made.looks] for name in ("rss", "descriptors", "bytes", "files")}
        print("simulated", count // 3600, "hours:", {name: (min(all_), max(all_)) for name, all_ in seen.items()})
        self.assertLessEqual(max(seen["rss"]), seen["rss"][len(seen["rss"]) // 4] + GIVEN.growth)
        self.assertLessEqual(max(seen["descriptors"]), 16)
        self.assertLessEqual(max(seen["bytes"]), quota + max(e["count"] for e in made.events(FINISHED)))
        self.assertEqual((made.end["dropped"], made.end["refused"]), (0, 0))
        kept = [int(path.stem) for path in made.paths]
        self.assertEqual(kept, list(range(kept[0], count // 60 + 1)))
        more = Recording(made.directory.parent, [film.track, beep.track], frames_of([film._replace(frames=film.frames[:9])]))
        self.assertEqual([e["number"] for e in more.events(BEGUN)], [count // 60 + 1])


if __name__ == "__main__":
    unittest.main()
