"""The recorder beside the two recorders that a Linux device has already, all in processes that record nothing else."""
import glob
import os
import re
import subprocess
import sys
import tempfile
import time

from measure import heap_count, instructions, last_json, least, run, slope
from work import SET_FRAMES, SET_SECONDS

BLOCK = 65536
SHORT, LONG = 2, 6      # sets, of one file of a minute; what a set costs is the difference
MANY = 16               # streams in a process
MANY_WARM, MANY_END = 1, 9  # sets of them; a file ends on the way
REPEATS = 3             # of what other work of the machine disturbs
CALLS = ("write", "writev", "pwrite64", "pwritev", "lseek", "fsync", "fdatasync")


class Directory(tempfile.TemporaryDirectory):
    """Of a recording: in memory, so that no disk takes part."""

    def __init__(self):
        super().__init__(dir="/dev/shm")


class Streams:
    """A program of streams.c."""

    def __init__(self, path, driving=None):
        self.path = path
        self.driving = driving  # the one that records nothing, whose cost does not count

    def _command(self, directory, work, count, speed, warm, end):
        return [self.path, work.path, count, speed, warm * SET_FRAMES, end * SET_FRAMES, directory]

    def _instructions(self, work, sets):
        def once():
            with Directory() as directory:
                return instructions(*self._command(directory, work, 1, 4, 0, sets))
        return least(2, once)

    def instructions_per_frame(self, work):
        found = slope(lambda sets: self._instructions(work, sets), SHORT, LONG) / SET_FRAMES
        return found - self.driving.instructions_per_frame(work) if self.driving else found

    def heap_calls_per_frame(self, work):
        with Directory() as directory:
            found = run(*self._command(directory, work, 1, 4, SHORT, LONG), LD_PRELOAD=heap_count(self.path))
        return last_json(found)["calls"] / (LONG - SHORT) / SET_FRAMES

    def many(self, work):
        """CPU seconds that a second of all streams takes, and bytes of memory."""
        def once():
            with Directory() as directory:
                return last_json(run(*self._command(directory, work, MANY, 8, MANY_WARM, MANY_END)))
        found = [once() for _ in range(REPEATS)]
        seconds = min(each["cpu_ns"] for each in found) / 1e9 / (MANY_END - MANY_WARM) / SET_SECONDS
        return seconds - self.driving.many(work)[0] if self.driving else seconds, found[-1]["memory"]

    def medium(self, work):
        def count(sets):
            with Directory() as directory:
                return medium_use(directory, self._command(directory, work, 1, 4, 0, sets))
        return per_set(count)


class Splitmuxsink:
    """GStreamer's, with mp4mux and its recovery file, out of files that hold the samples as they are to be stored."""

    def __init__(self, preload, source):
        self.preload = preload  # counts calls of the heap
        self.source = source    # makes a file of so many sets of a work

    @staticmethod
    def _pipelines(sources, sink):
        command = ["gst-launch-1.0", "-q"]
        for i, source in enumerate(sources):
            video, audio = "fakesink", "fakesink"
            if sink:
                command += ["splitmuxsink", f"name=m{i}", f"location={sink}/{i}-%05d.mp4", "max-size-time=60000000000",
                            f"muxer=mp4mux moov-recovery-file={sink}/{i}.recovery"]
                video, audio = f"m{i}.video", f"m{i}.audio_0"
            command += ["filesrc", f"location={source}", "!", "qtdemux", f"name=d{i}",
                        f"d{i}.video_0", "!", "queue", "!", video, f"d{i}.audio_0", "!", "queue", "!", audio]
        return command

    def _beyond_reading(self, work, sets, measure, count=1):
        """What recording takes, less what reading the source takes."""
        sources = [self.source(work, sets)] * count
        with Directory() as directory:
            return measure(self._pipelines(sources, directory)) - measure(self._pipelines(sources, None))

    def instructions_per_frame(self, work):
        return slope(lambda sets: self._beyond_reading(work, sets, lambda command: instructions(*command)),
                     SHORT, LONG) / SET_FRAMES

    def heap_calls_per_frame(self, work):
        def calls(command):
            with tempfile.NamedTemporaryFile("r") as counted:
                run(*command, LD_PRELOAD=self.preload, HEAP_COUNTS=counted.name)
                return int(counted.read())
        return slope(lambda sets: self._beyond_reading(work, sets, calls), SHORT, LONG) / SET_FRAMES

    def many(self, work):
        def cpu(sets):
            return self._beyond_reading(work, sets, lambda command: least(REPEATS, lambda: use(command)[0]), MANY)
        return (slope(cpu, MANY_WARM, MANY_END) / SET_SECONDS,
                self._beyond_reading(work, MANY_END, lambda command: use(command)[1], MANY))

    def medium(self, work):
        def count(sets):
            with Directory() as directory:
                return medium_use(directory, self._pipelines([self.source(work, sets)], directory))
        return per_set(count)


def use(command):
    """CPU seconds, and the most bytes of memory, of a process. What the system calls the latter counts its parent's."""
    process, memory = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL), 0
    while True:
        done, status, usage = os.wait4(process.pid, os.WNOHANG)
        if done:
            break
        with open(f"/proc/{process.pid}/status") as file:
            found = re.search(r"^VmHWM:\s*(\d+) kB", file.read(), re.M)
        memory = max(memory, int(found[1]) * 1024 if found else 0)
        time.sleep(0.001)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"bench: {' '.join(command)}: {process.returncode}")
    return usage.ru_utime + usage.ru_stime, memory


def per_set(count):
    short, long = count(SHORT), count(LONG)
    return {what: (long[what] - short[what]) / (LONG - SHORT) for what in long}


def medium_use(directory, command):
    """
    Calls that write and that sync files in a directory, bytes that are written, and blocks that become dirty: each
    counts once between two syncs of its file, and once where the file is never synced.
    """
    found = dict.fromkeys(("writes", "bytes", "blocks", "syncs"), 0)
    position, dirty = {}, {}
    for name, arguments, path, result in system_calls(directory, command):
        if result < 0:
            continue
        if name == "lseek":
            position[path] = result
        elif name.endswith("sync"):
            found["syncs"] += 1
            found["blocks"] += len(dirty.pop(path, ()))
        else:
            at = int(arguments[-1]) if name.startswith("pwrite") else position.get(path, 0)
            if not name.startswith("pwrite"):
                position[path] = at + result
            found["writes"] += 1
            found["bytes"] += result
            dirty.setdefault(path, set()).update(range(at // BLOCK, (at + result + BLOCK - 1) // BLOCK))
    found["blocks"] += sum(map(len, dirty.values()))
    return found


def system_calls(directory, command):
    """(name, arguments, path, result) of those on files in a directory, of all threads, in the order of their beginning."""
    with tempfile.TemporaryDirectory() as logs:
        run(*traced(command, logs))
        return calls_in(directory, logs)


def traced(command, logs):
    """The command, so that its calls are noted in a directory, those of each thread in a file."""
    return ["strace", "-ff", "-ttt", "-y", "-s", "0", "--seccomp-bpf", "-e", f"trace={','.join(CALLS)}",
            "-o", os.path.join(logs, "log"), *command]


def calls_in(directory, logs):
    lines = []
    for log in glob.glob(os.path.join(logs, "*")):
        with open(log) as file:
            lines += file
    form = re.compile(rf"([\d.]+) (\w+)\(\d+<({re.escape(str(directory))}/[^>]*)>(.*)\) += (-?\d+)")
    found = sorted((match for match in map(form.match, lines) if match), key=lambda match: float(match[1]))
    return [(match[2], match[4].split(", "), match[3], int(match[5])) for match in found]
