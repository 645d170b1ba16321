"""Runs the programs that measure, and makes figures of what they say."""
import array
import json
import os
import re
import struct
import subprocess
import sys
import tempfile

from work import SET_FRAMES


def run(*command, **environment):
    done = subprocess.run([str(part) for part in command], env=dict(os.environ, **environment), capture_output=True,
                          text=True, timeout=300)
    if done.returncode != 0:
        sys.exit(f"bench: {' '.join(map(str, command))}\n{done.stderr}")
    return done


def instructions(*command):
    # Valgrind counts every byte of a `rep movsb` as an instruction: let memcpy copy with vector registers instead.
    done = run("valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command,
               GLIBC_TUNABLES="glibc.cpu.x86_rep_movsb_threshold=1000000000")
    return int(re.search(r"Collected : (\d+)", done.stderr).group(1))


def slope(count, short, long):
    """What one more costs, once warm: the difference of two lengths."""
    return (count(long) - count(short)) / (long - short)


def last_json(done):
    return json.loads(done.stdout.splitlines()[-1])  # the library may have printed lines of its own before


def heap_count(program):
    """What to preload; it is built beside the programs."""
    return os.path.join(os.path.dirname(program), "libheap-count.so")


class Program:
    """A subject in one of its variants."""

    def __init__(self, path, variant):
        self.path, self.variant = path, variant

    def _drive(self, mode, work, frames, *arguments):
        return [self.path, self.variant, mode, work.path, str(frames), *arguments]

    def instructions_per_frame(self, work, short, long):
        return slope(lambda sets: instructions(*self._drive("steady", work, sets * SET_FRAMES)),
                     short, long) / SET_FRAMES

    def heap(self, work, frames, warm):
        return last_json(run(*self._drive("heap", work, frames, str(warm)), LD_PRELOAD=heap_count(self.path)))

    def system_calls(self, work, short, long):
        """Per frame: {"writes", "bytes", "journal", "other"}; the calls by which the heap grows are not among them."""
        return {what: slope(lambda sets: self._count_calls(work, sets * SET_FRAMES)[what], short, long) / SET_FRAMES
                for what in ("writes", "bytes", "journal", "other")}

    def _count_calls(self, work, frames):
        counts = dict.fromkeys(("writes", "bytes", "journal", "other"), 0)
        with tempfile.NamedTemporaryFile("r") as log:
            run("strace", "-s", "0", "-o", log.name, *self._drive("steady", work, frames))
            media = None
            for line in log:
                call = re.match(r"(\w+)\((\d*).* = (-?\d+)", line)
                if not call or call[1] in ("brk", "mmap", "munmap", "mremap", "madvise"):
                    continue
                if "/dev/null" in line and media is None:
                    media = call[3]  # the descriptor; the journal's is opened next
                if call[1] not in ("write", "writev"):
                    counts["other"] += 1
                elif call[2] == media:
                    counts["writes"] += 1
                    counts["bytes"] += int(call[3])
                else:
                    counts["journal"] += 1
        return counts

    def time(self, work, frames, path="/dev/null"):
        return last_json(run(*self._drive("time", work, frames, path)))

    def latencies(self, work, frames):
        with tempfile.NamedTemporaryFile() as result:
            run(*self._drive("latency", work, frames, result.name))
            took = array.array("I")
            with open(result.name, "rb") as stream:
                took.fromfile(stream, frames)
            return took

    def abandon(self, work, frames, media, journal):
        run(*self._drive("abandon", work, frames, media, journal))


def moov_bytes(path):
    """Of a file of the library: ftyp of 24 bytes, mdat, moov."""
    with open(path, "rb") as file:
        file.seek(24)
        size, kind = struct.unpack(">I4s", file.read(8))
        file.seek(24 + size)
        moov, tail = struct.unpack(">I4s", file.read(8))
    assert kind == b"mdat" and tail == b"moov" and 24 + size + moov == os.path.getsize(path)
    return moov


def least(times, measure):
    return min(measure() for _ in range(times))


# ------------------------------------------------------------------- GStreamer

def gst_launch(*pipeline):
    return ["gst-launch-1.0", *pipeline]


def gst_recording(source, recovery, out, *before_audio):
    return gst_launch("filesrc", f"location={source}", "!", "qtdemux", "name=d",
                      "mp4mux", "name=m", f"moov-recovery-file={recovery}", "!", "filesink", f"location={out}",
                      "d.video_0", "!", "queue", "!", "m.video_0",
                      "d.audio_0", "!", "queue", "!", *before_audio, "m.audio_0")


def gst_reading(source):
    return gst_launch("filesrc", f"location={source}", "!", "qtdemux", "name=d",
                      "d.video_0", "!", "queue", "!", "fakesink", "d.audio_0", "!", "queue", "!", "fakesink")


def gst_recover(recovery, broken, fixed):
    return gst_launch("qtmoovrecover", f"recovery-input={recovery}", f"broken-input={broken}", f"fixed-output={fixed}")


def gst_installed():
    try:
        return all(subprocess.run(["gst-inspect-1.0", "--exists", element]).returncode == 0
                   for element in ("mp4mux", "qtmoovrecover", "qtdemux"))
    except FileNotFoundError:
        return False


def gst_abandon(source, recovery, broken, audio_frames):
    """A recording that ends by an error after a number of audio frames, so that its end is never written."""
    subprocess.run(gst_recording(source, recovery, broken, "identity", f"error-after={audio_frames}", "!"),
                   capture_output=True, timeout=120)
    if not os.path.getsize(recovery) or not os.path.getsize(broken):
        sys.exit("bench: mp4mux left nothing to recover")


def gst_recover_seconds(recovery, broken, fixed):
    """From the start of the pipeline to its end, without the start of the process."""
    done = run(*gst_recover(recovery, broken, fixed))
    hours, minutes, seconds = re.search(r"Execution ended after (\d+):(\d+):([\d.]+)", done.stdout).groups()
    return int(hours) * 3600 + int(minutes) * 60 + float(seconds)
