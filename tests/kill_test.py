"""Recorders in real time, killed at random moments: what is repaired decodes to the beginning of the streams.

    kill_test.py --tool MEDIAFILES --media STREAMS --count N [--seed S]
"""

import functools
import json
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import time

from support import judge

GIVEN = judge.given("tool", "media", count=12, seed=int.from_bytes(os.urandom(4), "little"))
SOURCES = (("h264_base_640x360_25.h264", "aac_lc_48000_2.aac"), ("h265_aud_sei_640x360_25.h265",),
           ("aac_voaac_44100_2.aac", "h264_high_aud_4slices_640x360_30.h264"))
LONGEST = 4.2  # seconds: a little more than the streams last
TOGETHER = 12

checksums = functools.cache(judge.frame_checksums)


class Victim:
    def __init__(self, rng, clip):
        self.sources, self.clip, self.moment = rng.choice(SOURCES), clip, rng.uniform(0, LONGEST)
        self.interval = rng.choice((0, 0.1, 0.5, 1))
        self.options = ["--sync", str(self.interval)]
        self.process = subprocess.Popen(
            [GIVEN.tool, "record", *(GIVEN.media / s for s in self.sources), "-o", clip, "--realtime", *self.options],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def due(self):
        """Frames that were to be recorded more than the interval of the syncs before the kill."""
        times = [unit.time_ns / 1e9 for source in self.sources for unit in judge.units(GIVEN.media / source)]
        return sum(time <= self.moment - self.interval for time in times)

    def judge(self):
        """Frames kept, bytes cut and frames due; the file holds what the journal names, and all of that."""
        journal, cut = pathlib.Path(f"{self.clip}.journal"), 0
        is_finished = self.process.wait(60) == 0
        if is_finished:
            frames = [len(judge.units(GIVEN.media / s)) for s in self.sources]
            assert not journal.exists(), "a finished recording leaves no journal"
        else:
            named = [s.track for s in judge.samples_of(journal.read_bytes())]
            frames = [named.count(track) for track in sorted(set(named))]
            done = subprocess.run([GIVEN.tool, "repair", self.clip, "--json", "--force"], capture_output=True,
                                  timeout=60, check=False)
            report = json.loads(done.stdout)["files"][0]
            assert report["result"] in (("repaired",) if named else ("empty_removed", "not_ours")), report
            assert [t["frames"] for t in report.get("tracks", [])] == frames, (report, frames)
            cut = report.get("cut_bytes", 0)
        # Tracks stand in the order in which they began: they are known by what they hold.
        kinds = [s["codec_type"] for s in judge.streams(self.clip)] if frames else []
        for number, source in enumerate(self.sources):
            kind = "audio" if source.startswith("aac") else "video"
            count = frames[number if is_finished else kinds.index(kind)] if kind in kinds else 0
            kept = judge.frame_checksums(self.clip, kinds.index(kind)) if count else []
            assert kept == checksums(GIVEN.media / source)[:count], f"{source}: frames differ"
        return sum(frames), cut, self.due()


print(f"kill_test: {GIVEN.count} kills, --seed {GIVEN.seed}", flush=True)
RNG, results = random.Random(GIVEN.seed), []
for first in range(0, GIVEN.count, TOGETHER):
    with tempfile.TemporaryDirectory() as directory:
        victims = [Victim(RNG, pathlib.Path(directory, f"{n}.mp4"))
                   for n in range(first, min(first + TOGETHER, GIVEN.count))]
        judge.wait_for(lambda: all(v.clip.exists() for v in victims))
        start = time.monotonic()
        for victim in sorted(victims, key=lambda v: v.moment):
            time.sleep(max(0, start + victim.moment - time.monotonic()))
            victim.process.kill()
        for victim in victims:
            try:
                results.append(victim.judge())
            except AssertionError as problem:
                sys.exit(f"--seed {GIVEN.seed}, {victim.clip.name}: {victim.sources} {victim.options} after "
                         f"{victim.moment:.3f} s: {problem}")
kept, cut, due = map(sum, zip(*results))
print(f"{GIVEN.count} kills: {kept} frames kept, all as they were recorded, and {due} were due; "
      f"{cut} bytes after the last sync cut off")
assert kept >= due / 2, "the syncs have not kept what they should"  # half: a busy machine records late
