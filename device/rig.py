"""Recordings on a card under a guest, and power cuts in them: built, recovered by another guest, and judged."""

import functools
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import tarfile
import time

import cards
import content
import cut
import judge
from guest import Disk, GuestError
from support import judge as readers

CUTS_OF_RECORDING = 64
CARDS_OF_BOOT = 64  # at most
ROOM_FOR_RESULT = 512 << 20
UNIMPORTANT = ("mounted", "+++++")  # lines of a guest
MOST_LINES = 16
FAULTS = ("lost_in", "refused", "wrong", "damaged")
ORDERS = ("recover", "fsck, recover", "recover, fsck", "recover, cut, recover")  # at boot
STREAMS = (("h264_base_640x360_25.h264", "h264", 6), ("aac_lc_48000_2.aac", "aac", 5))  # of 4 and 5 seconds
CLIPS = 4
PATIENCE_TO_RECORD, LONGEST_RUN = 300, 20  # seconds: until it does, and after that
RECORDERS = ("dashcam", "dashcam", "events", "command", "dashcam", "events", "command")  # by the seed


class Recording:
    """A run of the recorder with its log of writes. It is kept: another run would have other writes."""

    def __init__(self, guests, kind, seed, testdata):
        self.kind, self.seed, self.system = kind, seed, cards.kind_of(kind)
        self.directory = guests.work / guests.digest / kind / str(seed)
        self.disk, self.log = self.directory / "disk", self.directory / "log"
        self.recorder = self.choose_recorder(guests)
        streams = [self.directory / name for name, *_ in STREAMS]
        self.clips = {f"clips/clip{n}.mp4": hashlib.sha256(b"%d" % n).digest() * (1000 * n)
                      for n in range(1, CLIPS + 1)}
        if not (self.directory / "whole").exists():
            shutil.rmtree(self.directory, ignore_errors=True)
            self.directory.mkdir(parents=True)
            for path, (name, _, times) in zip(streams, STREAMS):
                data, manifest = readers.repeated(testdata / name, times)
                path.write_bytes(data)
                path.with_suffix(".units.tsv").write_text(manifest)
            occupied = cards.make(kind, self.disk, b"".join(path.read_bytes() for path in streams))
            (self.directory / "occupied").write_text(json.dumps(occupied))
            self.record(guests, streams)
            (self.directory / "whole").touch()
        self.occupied = json.loads((self.directory / "occupied").read_text())
        self.notes = self.read()
        if not self.is_whole():
            (self.directory / "whole").unlink()
            raise GuestError(f"{self.directory}: the recorder did not finish its files")
        tracks = [content.frames_of(path, codec) for path, (_, codec, _) in zip(streams, STREAMS)]
        self.expected = judge.Expected(tracks, self.notes)

    def choose_recorder(self, guests):
        chosen = RECORDERS[self.seed % len(RECORDERS)]
        return "dashcam" if chosen == "command" and (guests.name != "x86-64" or guests.fault) else chosen

    def read(self):
        """The notes; the log."""
        self.writes = cut.read_log(self.log)
        self.digest = hashlib.sha256(self.log.read_bytes()).hexdigest()[:12]
        return cut.notes_of(self.writes, cards.BEGIN + self.system.size, cards.NOTES)

    def files(self, event):
        return {note["path"] for _, note in self.notes if note["note"] == event}

    def is_whole(self):
        return self.files("finished") and self.files("begun") == self.files("finished")

    def record(self, guests, streams):
        chance = random.Random(f"{self.kind}/{self.seed}")
        files = dict(self.clips)
        if self.recorder == "command":
            files |= guests.command()
        for number, path in enumerate(part for path in streams for part in (path, path.with_suffix(".units.tsv"))):
            files[f"stream/{number}"] = path.read_bytes()
        used, console = self.directory / "used", self.directory / "console"
        shutil.copyfile(self.disk, used)
        initramfs = guests.initramfs(self.system.type, files, self.directory / "initramfs")
        self.run(guests, used, initramfs, console, TYPE=self.system.type, OPTIONS=self.system.options,
                 PROGRAM="with_command" if self.recorder == "command" else "with_dashcam", SPEED=1,
                 SEGMENT_NS=3 * 10**9, EVENT_NS=2 * 10**9 if self.recorder == "events" else 0,
                 SYNC_NS=chance.choice((100, 250, 1000)) * 10**6, QUOTA_BYTES=chance.choice((0, 900_000)))
        initramfs.unlink()

    def run(self, guests, used, initramfs, console, **variables):
        self.log.touch()
        guests.run("record", [Disk(used, "card", self.log)], initramfs, console, **variables)
        used.unlink()

    def cut(self, number):
        """The power cut with that number."""
        chance = random.Random(f"{self.kind}/{self.seed}/{number}")
        index = chance.randrange(self.notes[0][0], len(self.writes) + 1)
        return cut.Cut(self.writes, index, cut.MODELS[number % len(cut.MODELS)],
                       cut.UNITS[number // len(cut.MODELS) % len(cut.UNITS)], chance.random(), self.occupied)


class Killed(Recording):
    """A run in which QEMU is killed. What it had written is on the disk, at whatever moment that was."""

    digest = None

    def choose_recorder(self, _):
        return "dashcam"

    def run(self, guests, used, initramfs, console, **variables):
        process = guests.start("record", [Disk(used, "card")], initramfs, console, **variables)
        try:
            until = time.monotonic() + PATIENCE_TO_RECORD
            while time.monotonic() < until and not self.notes_on(used):
                time.sleep(0.1)
            time.sleep(random.Random(f"{self.kind}/{self.seed}/kill").uniform(0, LONGEST_RUN))
        finally:
            process.kill()
            process.wait()
        used.replace(self.disk)

    def read(self):
        return list(enumerate(self.notes_on(self.disk)))

    def notes_on(self, disk):
        with open(disk, "rb") as file:
            file.seek(cards.BEGIN + self.system.size)
            sectors = file.read(cards.NOTES)
        texts = (sectors[at:at + cut.SECTOR].split(b"\0")[0] for at in range(0, len(sectors), cut.SECTOR))
        return [json.loads(text) for text in texts if text]

    def is_whole(self):
        return bool(self.notes)

    def cut(self, number):
        whole = cut.Cut([], 0, "killed", cut.UNITS[0], f"{self.kind}/{self.seed}/{number}", self.occupied)
        whole.index = len(self.notes)
        return whole


class Case:
    """One cut: its card, and what was done with it at boot."""

    def __init__(self, recording, number, card):
        self.recording, self.number, self.card = recording, number, card
        self.cut, self.system = recording.cut(number), recording.system
        each = 1 if self.cut.model == "killed" else len(cut.MODELS) * len(cut.UNITS)
        self.order = ORDERS[number // each % len(ORDERS)]
        self.log = card.with_suffix(".log") if self.order == "recover, cut, recover" else None
        self.fsck = None

    def build(self):
        cards.copy_system(self.recording.disk, self.card, self.system.size)
        self.cut.build(self.card, cards.BEGIN, self.system.size)
        if self.order == "fsck, recover":
            self.repair()

    def cut_recovery(self):
        """Takes the card back to where it was, and then up to a moment of a recovery."""
        self.build()
        writes = cut.read_log(self.log)
        chance = random.Random(f"{self.cut.seed}/recovery")
        again = cut.Cut(writes, chance.randrange(len(writes) + 1), self.cut.model, self.cut.unit, chance.random(), None)
        again.build(self.card, 0, self.system.size)

    def repair(self):
        self.fsck = cards.fsck(self.system.repair, self.card)

    def verdict(self, found, log, reader):
        log = (log / "log").read_text(errors="replace").splitlines()
        files = {path.relative_to(found / "files").as_posix(): path.read_bytes()
                 for path in (found / "files").rglob("*") if path.is_file()}
        recorded = {name.removeprefix("dashcam/"): reader.read(data) if name.endswith(".mp4") else None
                    for name, data in files.items() if name.startswith("dashcam/")}
        said = {"cut": self.cut.index, "model": self.cut.model, "unit": self.cut.unit, "order": self.order}
        said |= judge.judge(self.recording.expected, self.recording.notes, self.cut.index, recorded,
                            judge.reports_of(log))
        said["damaged"] = [name for name, data in self.recording.clips.items() if files.get(name) != data]
        if any(said[name] for name in FAULTS):
            texts = (re.sub(r"\[ *[0-9.]+\] ", "", text)[:160] for text in log if not text.startswith(UNIMPORTANT))
            said["said"] = list(dict.fromkeys(texts))[:MOST_LINES]
        said["fsck"] = self.fsck and self.fsck[0]
        said["check"] = cards.fsck(self.system.check, self.card)[0]
        return said


class Rig:
    """Judges cuts, as many at a time as a guest has cards."""

    def __init__(self, guests, tool, testdata):
        self.guests, self.testdata = guests, testdata
        self.reader = content.Reader(tool)
        self.work = pathlib.Path(readers.MEMORY or guests.work) / f"device-{os.getpid()}"
        self.recording = functools.lru_cache(1)(self.recording)

    def recording(self, kind, seed):
        kind_of_run = Killed if str(seed).startswith("killed-") else Recording
        return kind_of_run(self.guests, kind, seed, self.testdata)

    def run(self, kind, seed, numbers):
        """A line for each of these cases, which share a recording."""
        recording = self.recording(kind, seed)
        self.clear()
        self.work.mkdir(parents=True)
        cases = [Case(recording, number, self.work / str(place)) for place, number in enumerate(numbers, 1)]
        for case in cases:
            case.build()
        first = self.boot([("recover", case, case.log) for case in cases], "first")
        again = []
        for case in cases:
            if case.order == "recover, fsck":
                case.repair()
                again.append(("show", case, None))
            elif case.log:
                case.cut_recovery()
                again.append(("recover", case, None))
        second = again and self.boot(again, "second")
        shown = [case for _, case, _ in again]
        for case in cases:
            found = (second if case in shown else first) / case.card.name
            log = (second if case.log else first) / case.card.name
            yield {"case": f"{self.guests.name}/{kind}/{seed}/{case.number}", "programs": self.guests.digest,
                   "log": recording.digest, "recorder": recording.recorder} | case.verdict(found, log, self.reader)

    def clear(self):
        shutil.rmtree(self.work, ignore_errors=True)

    def boot(self, tasks, name):
        """Does with each card what its task says: (task, case, log). Returns the folder of what was found on them."""
        result, found = self.work / "result", self.work / name
        with open(result, "wb") as file:
            file.truncate(ROOM_FOR_RESULT)
        disks = [Disk(case.card, task + case.card.name, log) for task, case, log in tasks]
        for _, _, log in tasks:
            if log:
                log.touch()
        system = tasks[0][1].system
        initramfs = self.guests.initramfs(system.type, {}, self.work / "initramfs")
        self.guests.run("boot", [*disks, Disk(result, "result")], initramfs, self.work / "console", TYPE=system.type,
                        OPTIONS=system.options)
        with tarfile.open(result) as archive:
            archive.extractall(found, filter="fully_trusted")
        if not all((found / case.card.name / "log").exists() for _, case, _ in tasks):
            raise GuestError(f"{name}: " + (self.work / "console").read_text(errors="replace")[-1000:])
        return found
