"""What a power cut leaves, repaired by the command and by the device's example; and that repair, cut off in its turn.

    power_cut_command_test.py --tool MEDIAFILES --recover EXAMPLE --cases POWER_CUT_TEST --streams TESTDATA
                              --shim CUT-OFF.so --check CHECK-MP4 [--every N] [--page CRASH-SAFETY.md]

The cases are those of the library's proof: media, journal, and the samples that they may not cost. The page shows what
is printed here.
"""

import json
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
from collections import Counter, defaultdict, namedtuple

from support import judge

GIVEN = judge.given("tool", "recover", "cases", "streams", "shim", "check", every=40, page="")
Want = namedtuple("Want", "track begin size key")
Case = namedtuple("Case", "media journal open samples kept")  # kept: how many of the samples no repair may lose
NAMES = "clip.mp4", "clip.mp4.journal"
PLAYED = re.compile("(avc|hevc|aac|hevc-aac-large|avc-aac-large)-[a-z]+-[0-9]")  # they begin where their streams do
EXAMPLE = "by the example"  # instead of the command and its options
ON_EXFAT = "on exFAT"  # as it is done there
MADE = "repaired", "salvaged"
AGE = 10**18  # the time of the recordings, in nanoseconds


def samples_of(paths):
    """(track, offset, size, key) of each sample of files, in the order of the file, and the faults of the files."""
    done = subprocess.run([GIVEN.check, *paths], capture_output=True, text=True, timeout=100, check=False)
    found, faults = {str(path): [] for path in paths}, defaultdict(list)
    for path, line in (line.split("\t") for line in done.stdout.splitlines()):
        found[path].append(tuple(map(int, line.split())))
    for line in done.stderr.splitlines():
        faults[line.split(": ")[0]].append(line)
    return {path: (sorted(samples, key=lambda s: s[1]), faults[path]) for path, samples in found.items()}


def cases_of_the_proof():
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run([GIVEN.cases, GIVEN.streams, f"--dump={GIVEN.every}", directory], check=True, timeout=100,
                       stdout=subprocess.DEVNULL)
        for want in sorted(pathlib.Path(directory).glob("*.want")):
            rows = [[int(n) for n in line.split()] for line in want.read_text().splitlines()]
            media = want.with_suffix(".mp4")
            yield want.stem, Case(media.read_bytes(), pathlib.Path(f"{media}.journal").read_bytes(),
                                  want.with_suffix(".open").read_bytes(), [Want(*r[:3], r[3] != 0) for r in rows],
                                  sum(r[4] for r in rows))


class PowerCut(judge.Test):
    @classmethod
    def setUpClass(cls):
        cls.cases = dict(cases_of_the_proof())

    def setUp(self):
        super().setUp()
        self.card, self.snapshots, self.copies = (self.directory / name for name in ("card", "snapshots", "copies"))

    def put(self, cases):
        for path in (self.card, self.snapshots, self.copies):
            shutil.rmtree(path, ignore_errors=True)
            path.mkdir()
        for name, (media, journal, *_) in cases.items():
            (self.card / name).mkdir()
            (self.card / name / NAMES[0]).write_bytes(media)
            (self.card / name / NAMES[1]).write_bytes(journal)
            os.utime(self.card / name / NAMES[0], ns=(AGE, AGE))

    def files(self, root=None):
        return {d.name: {p.name: p.read_bytes() for p in d.iterdir()} for d in (root or self.card).iterdir()}

    def same(self, found, wanted, *what):
        self.assertEqual([n for n in {**found, **wanted} if found.get(n) != wanted.get(n)], [], what)

    def repair(self, *options, root=None, shim=None, prefix=()):
        """
        The command's report by the name of the case; what the example prints. The shim counts changes below a directory.
        Without it a dry run must have said the same, a copy must be what is made in place and cost nothing on the card,
        and the time must stay.
        """
        env = dict(os.environ, SNAPSHOTS=str(self.snapshots), ASAN_OPTIONS="verify_asan_link_order=0",
                   **({"LD_PRELOAD": str(GIVEN.shim)} if shim or ON_EXFAT in options else {}),
                   **({"CASES": str(shim)} if shim else {}), **({"EXFAT": "1"} if ON_EXFAT in options else {}))
        options = [option for option in options if option != ON_EXFAT]

        def run(*more):
            line = (*prefix, GIVEN.tool, "repair", root or self.card, "--json", *options, *more)
            done = subprocess.run((GIVEN.recover, self.card) if EXAMPLE in options else line, env=env,
                                  capture_output=True, text=True, timeout=300, check=False)
            self.assertIn(done.returncode, (0, 1, 3), done.stderr)
            return done.stdout.replace('"dry_run": true', '"dry_run": false')

        if EXAMPLE in options:
            return run()
        if checked := not shim and self.copies not in options:
            before, copy = self.files(), ("--output", self.copies)
            foretold = run(*copy, "--dry-run"), run("--dry-run")
            copied = run(*copy)
            self.same(self.files(), before, "dry runs and copies")
        done = run()
        reports = {pathlib.Path(report["path"]).parent.name: report for report in json.loads(done)["files"]}
        if checked:
            self.assertEqual((copied, done), foretold)
            made, copies = [n for n, report in reports.items() if report["result"] in MADE], self.files(self.copies)
            self.assertEqual([n for n in made if copies[n] != {NAMES[0]: (self.card / n / NAMES[0]).read_bytes()}], [])
            times = [(root / n / NAMES[0]).stat().st_mtime_ns for n in made for root in (self.card, self.copies)]
            self.assertLessEqual(set(times), {AGE})
        return reports

    def publish(self, line):
        print(line)
        if GIVEN.page:
            self.assertIn(f"    {line}\n", pathlib.Path(GIVEN.page).read_text())

    def judge(self, case, path, found, faults):
        """Every sample is one that was recorded, in its place. Gives whether all are whole."""
        data, wants = path.read_bytes(), case.samples
        self.assertEqual(found, wants[:len(found)], path)
        self.assertGreaterEqual(len(found), case.kept, path)
        places = [(w, slice(w.begin, w.begin + w.size)) for w in wants[:len(found)]]
        torn = [want for want, place in places if data[place] != case.open[place]]
        for want in torn:  # the end of the media has cut it: zeros follow
            self.assertIs(want, wants[len(found) - 1], path)
            there = case.media[want.begin:].ljust(want.size, b"\0")
            self.assertEqual(data[want.begin:want.begin + want.size], there, path)
        self.assertTrue(torn or not faults, faults)
        return not torn

    def test_every_promise_is_kept(self):
        self.put(self.cases)
        self.repair(EXAMPLE)
        by_example, done, whole, results = self.files(), [], [], Counter()
        self.put(self.cases)
        reports, after = self.repair(), self.files()
        self.same(by_example, after, "example")
        for name, case in self.cases.items():
            result = reports[name]["result"]
            results[result] += 1
            if result in (*MADE, "finished"):
                done.append(self.card / name / NAMES[0])
            else:
                self.assertEqual(case.kept, 0, reports[name])
                self.assertEqual(after[name], {} if result == "empty_removed" else dict(zip(NAMES, case)), name)
        for path, (found, faults) in samples_of(done).items():
            path = pathlib.Path(path)
            if self.judge(self.cases[path.parent.name], path, found, faults):
                whole.append((path, found))
        played = [(path, found) for path, found in whole if PLAYED.match(path.parent.name)][::17]
        for path, found in played:
            for track in {sample[0] for sample in found}:
                mine = [sample[2:] for sample in found if sample[0] == track]
                self.assertEqual([(p.size, p.key) for p in judge.packets(path, track)], mine, path)
                if len(mine) > 1:  # the first lasts no time: alone it is not shown
                    self.assertEqual(len(judge.frame_checksums(path, track)), len(mine), path)
        counts = ", ".join(f"{n} {what}" for what, n in sorted(results.items()))
        self.publish(f"repair and example: {len(self.cases)} power cuts: {counts}; {len(played)} played")
        self.assertGreater(len(done), len(self.cases) * 0.9)

    def test_repair_cut_off(self):
        """At each change, and within each write, it is cut off; in place, power also fails with unsynced changes."""
        rng, cases = random.Random(5), dict(list(self.cases.items())[::23])
        for name, case in list(cases.items())[::3]:  # damaged by the medium
            at = len(case.media) // 2
            cases[name] = case._replace(media=case.media[:at] + bytes(64) + case.media[at + 64:])
        for options in (("--salvage",), ("--keep-damaged", "--drop-last-frame"), ("--salvage", "--keep-journal"),
                        (EXAMPLE,), ("--salvage", ON_EXFAT), ("--output", self.copies)):
            made = self.copies if self.copies in options else self.card
            self.put(cases)
            self.repair(*options)
            whole = self.files(made)
            self.put(cases)
            self.repair(*options, shim=made)
            self.same(self.files(made), whole)
            moments = self.snapshots.rename(self.directory / "moments")
            cuts = self.files(moments)
            again = {cut: cases[cut.split("@")[0]] for cut in cuts if made == self.copies}
            for name, final in whole.items():
                steps = [cuts[f"{name}@{n}"].get(NAMES[1]) for n in range(1, 50) if f"{name}@{n}" in cuts]
                if ON_EXFAT in options:  # there it becomes ready in steps
                    steps.reverse()
                ready = next((journal for journal in steps if journal not in (cases[name].journal, None)), None)
                for n in range(6 if ready else 0):  # the new journal is durable, of the media's changes only some are
                    old, new = cases[name].media, final[NAMES[0]]
                    end = 24 + struct.unpack_from(">I", new, 24)[0]
                    tail = b"".join(rng.choice((new[i:i + 512], bytes(512))) for i in range(end, len(new), 512))
                    body = rng.choice((old[28:], new[28:end] + tail[:rng.randrange(len(new) - end + 1)]))
                    again[f"{name}@mix{n}"] = rng.choice((old, new, old[:24] + bytes(4)))[:28] + body, ready
            self.put(again)
            for name in again:  # the journal has the media's time
                os.utime(self.card / name / NAMES[0])
                os.utime(self.card / name / NAMES[1], ns=(AGE, AGE))
            for moment in moments.iterdir():
                moment.rename(made / moment.name)
            moments.rmdir()
            self.repair(*options)
            after = self.files(made)
            self.same(after, {cut: whole[cut.split("@")[0]] for cut in after}, options)
            self.publish(f"repair {' '.join(str(o) for o in options if o != made)}: {len(whole)} repairs cut off at "
                         f"{len(after)} moments")

    def test_medium_fails(self):
        """Full or broken from any change on: the command reports it, and the next repair gives what this would have."""
        cut = (c for c in self.cases.values() if c.kept and sum(c.samples[c.kept - 1][1:3]) < len(c.media))
        case = max(cut, key=lambda c: c.kept)
        self.put({"whole": case})
        self.repair()
        whole = self.files()["whole"]
        self.put({f"card~{how}={n}": case for how in ("full", "bad") for n in range(1, 22)})
        reports = self.repair(shim=self.card)
        failed = [name for name, report in reports.items() if report["result"] == "failed"]
        self.assertEqual(len(failed), 18 + 15, failed)  # what is left of three writes that one failure cuts is repeated
        for name in failed:
            self.assertIn("No space left" if "full" in name else "Input/output error", reports[name]["error"])
        self.repair()
        for name, files in self.files().items():
            self.assertEqual(files, whole, name)
        for n in range(1, 8):  # of a copy nothing is left
            self.put({"from": case})
            copy = self.card / f"copy~full={n}"
            copy.mkdir()
            report = self.repair("--output", copy, root=self.card / "from", shim=self.card)["from"]
            self.assertIn("No space left", report["error"])
            self.assertEqual(self.files(), {"from": dict(zip(NAMES, case)), copy.name: {}})

    def test_not_to_be_written(self):
        case = max(self.cases.values(), key=lambda c: c.kept)
        drop = ("setpriv", "--bounding-set", "-dac_override,-dac_read_search") if os.getuid() == 0 else ()
        for path, mode in (("clip.mp4", 0o444), (".", 0o555)):
            self.put({"a": case})
            (self.card / "a" / path).chmod(mode)
            report = self.repair(prefix=drop)["a"]
            (self.card / "a" / path).chmod(0o755)
            self.assertIn("clip.mp4: Permission denied", report["error"])
            self.assertEqual(self.files()["a"], dict(zip(NAMES, case)))


if __name__ == "__main__":
    unittest.main()
