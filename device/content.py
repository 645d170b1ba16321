"""What independent readers make of a file: ffprobe its frames, the strict reader and ffmpeg its faults."""

import hashlib
import json
import pathlib
import subprocess
import tempfile

from judge import Content, Frame
from support import judge as readers


def frames_of(path, codec):
    """The frames of an elementary stream as a file has to have them."""
    return [Frame(hashlib.md5(readers.recorded(unit, codec)).hexdigest(), unit.time_ns / 1e9, bool(unit.key))
            for unit in readers.units(path)]


def run(*command):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, errors="replace",
                          check=False, timeout=120)


class Reader:
    """Reads a file once, however many cards have it."""

    def __init__(self, tool):
        self.tool, self.found = tool, {}

    def read(self, data):
        digest = hashlib.sha256(data).digest()
        if digest not in self.found:
            self.found[digest] = self.read_anew(data)
        return self.found[digest]

    def read_anew(self, data):
        with tempfile.NamedTemporaryFile(suffix=".mp4", dir=readers.MEMORY) as file:
            file.write(data)
            file.flush()
            faults = []
            for command in ((self.tool, "inspect", "--check", file.name),
                            ("ffmpeg", "-v", "error", "-i", file.name, "-f", "framemd5", "-")):
                done = run(*command)
                if done.returncode != 0 or done.stderr:
                    faults.append(f"{pathlib.Path(command[0]).name}: {done.stderr.strip()[:200] or done.returncode}")
            return Content(self.tracks(file.name, faults), faults)

    @staticmethod
    def tracks(path, faults):
        done = run("ffprobe", "-v", "warning", "-show_data_hash", "MD5", "-show_entries",
                   "packet=stream_index,dts_time,flags,data_hash", "-of", "json", path)
        if done.returncode != 0 or done.stderr:
            faults.append(f"ffprobe: {done.stderr.strip()[:200] or done.returncode}")
        tracks = {}
        for packet in json.loads(done.stdout or "{}").get("packets", []):
            tracks.setdefault(packet["stream_index"], []).append(
                Frame(packet["data_hash"].removeprefix("MD5:"), float(packet["dts_time"]), "K" in packet["flags"]))
        return [tracks[index] for index in sorted(tracks)]
