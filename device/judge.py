"""What a card must hold after a power cut and recovery, from what was pushed and what the recorder had said by then.

Every file is the beginning of what the recorder put into it: bytes, times and key flags. Every frame that the recorder
had called safe is there. Every other file is as it was.
"""

import bisect
import math
import re
from collections import namedtuple

Frame = namedtuple("Frame", "digest time key")  # time: seconds; in a file from its first frame of any track
Part = namedtuple("Part", "name begin end stored")  # of the streams, for each track: indexes; frames in earlier files
Content = namedtuple("Content", "tracks faults")

SAME_TIME = 0.001  # seconds: a tick of any track, and the millisecond of an edit list
NEXT_FILE = 0.002  # a frame that begins less than that before a file is its first
RECORDINGS = ("repaired", "salvaged", "finished")  # what such a file is after recovery
REPORT = re.compile(r"(\S+): (repaired|salvaged|finished|empty, removed|not ours|refused|failed)\b")


class Expected:
    """The streams, and the part of them that each file was given, by the notes of a run."""

    def __init__(self, tracks, notes):
        self.tracks, self.parts = tracks, {}
        start = next((note["time"] for _, note in notes if note["note"] == "start"), 0)
        ends = {note["path"]: note["to"] for _, note in notes if note["note"] == "finished"}
        stored = [0] * len(tracks)
        for path, time in ((note["path"], note["from"]) for _, note in notes if note["note"] == "begun"):
            begin, end = ([self.before(track, (at - start) / 1e9) for track in tracks]
                          for at in (time, ends.get(path, math.inf)))
            self.parts[path] = Part(path, begin, end, stored)
            stored = [before + last - first for before, first, last in zip(stored, begin, end)]

    @staticmethod
    def before(track, time):
        return bisect.bisect_left(track, time - NEXT_FILE, key=lambda frame: frame.time)

    def frames(self, part, track):
        """As a file has them: the first two frames of a track begin at the same time."""
        found = self.tracks[track][part.begin[track]:part.end[track]]
        if not found:
            return []
        origin = min(self.tracks[t][part.begin[t]].time for t in range(len(self.tracks)) if part.begin[t] < part.end[t])
        times = [found[0].time, found[0].time, *(frame.time for frame in found[2:])]
        return [frame._replace(time=time - origin) for frame, time in zip(found, times)]


def said(notes, index):
    """
    What the recorder had said before that write: frames of each track that are safe, names of files that are finished.

    Third: names of files that it had deleted, or was just deleting, which it says after that.
    """
    safe, finished, deleted, later = [0, 0], set(), set(), 0
    for at, note in notes:
        if note["note"] == "deleted" and later < 2:
            deleted.add(note["path"])
        elif note["note"] == "safe" and at >= index:
            later += 1
        elif note["note"] == "safe":
            safe = note["frames"]
        elif note["note"] == "finished" and at < index:
            finished.add(note["path"])
    return safe, finished, deleted


def is_same(one, other):
    return one[::2] == other[::2] and abs(one.time - other.time) <= SAME_TIME


def alike(have, wanted):
    """How many frames are the beginning of what is wanted."""
    return next((n for n, pair in enumerate(zip(have, wanted)) if not is_same(*pair)), min(len(have), len(wanted)))


def difference(have, wanted, at):
    if at == len(wanted):
        return f"{len(have) - at} frames too many"
    return f"frame {at} is {have[at]} instead of {wanted[at]}"


def reports_of(log):
    """{name of a file: result}, by what recovery printed."""
    return {match[1].rsplit("/", 1)[-1]: match[2] for line in log if (match := REPORT.match(line))}


def acknowledged(expected, notes, index, found):
    """{name of a file: how many frames of each track have to be in it}; without files whose deletion had begun."""
    safe, finished, deleted = said(notes, index)
    return {part.name: [end - begin if part.name in finished else min(max(count - stored, 0), end - begin)
                        for count, begin, end, stored in zip(safe, part.begin, part.end, part.stored)]
            for part in expected.parts.values()
            if part.name not in deleted or (part.name in found and not found[part.name].faults)}


def judge(expected, notes, index, found, reports):
    """
    Judges the recorder's directory after a cut before that write.

    `found` has the content of each file, None for what is no MP4 file.
    Returns counts of frames, "acknowledged" and of these "lost"; lists of text: "lost_in"; files that were "refused"
    though frames of them had been acknowledged; what is "wrong" in files that pass for recordings; "left": other names.
    """
    needed = acknowledged(expected, notes, index, found)
    result = {"acknowledged": sum(map(sum, needed.values())), "lost": 0, "lost_in": [], "refused": [], "wrong": [],
              "left": []}
    for name, counts in needed.items():
        content = found.get(name) or Content([], [])
        is_recording = reports.get(name, "finished") in RECORDINGS
        lost = 0
        for track, count in enumerate(counts):
            wanted = expected.frames(expected.parts[name], track)
            have = content.tracks[track] if track < len(content.tracks) else []
            good = alike(have, wanted)
            if is_recording and good < len(have):
                result["wrong"].append(f"{name}: track {track}: {difference(have, wanted, good)}")
            lost += max(count - good, 0)
        if is_recording:
            result["wrong"] += [f"{name}: {fault}" for fault in content.faults]
        elif any(counts):
            result["refused"].append(f"{name}: {reports[name]}")
        result["lost"] += lost
        if lost:
            result["lost_in"].append(f"{name}: {lost}")
    result["left"] = [name for name in found if reports.get(name, "finished") not in RECORDINGS or name not in needed]
    return result
