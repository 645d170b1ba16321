"""The system calls of mp4_fix for a long recording: the media is not read, whatever its size.

    fix_cost_test.py LIBRARY
"""

import collections
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

SAMPLES = 1_000_000
REPAIR = """import ctypes, sys
sys.exit(ctypes.CDLL(sys.argv[1]).mp4_fix(sys.argv[2].encode(), sys.argv[3].encode(), None, None))"""


def prepare(directory, size):
    """A journal of frames with that many bytes, every third one sound, beside a media file with holes for them."""
    media, journal = directory / f"{size}.mp4", directory / f"{size}.mp4.journal"
    media.touch()
    os.truncate(media, 32 + SAMPLES * size)
    head = struct.pack("<BBH4IBBH4I", 1, 0, 16, 0x101, 640, 360, 0, 1, 1, 16, 0x201, 2, 16, 48000)
    head += b"\7\0\4\0\x67\x42\xc0\x1e\10\0\4\0\x68\xce\x3c\x80"
    sample = struct.Struct("<BBHIIqIi")
    journal.write_bytes(head + b"".join(
        sample.pack(2, n % 3 == 2, 24, 32 + n * size, size, n // 50, n % 50 * 20_000_000, n % 90 == 0)
        for n in range(SAMPLES)))
    return media, journal


def calls(trace, path):
    """How often each system call named the file or had its descriptor."""
    found = re.findall(rf'^(\w+)\(.*(?:"{path}"|<{path}>)', trace.read_text(), flags=re.M)
    return dict(collections.Counter(name for name in found if name != "execve"))


library, seen = sys.argv[1], []
with tempfile.TemporaryDirectory() as name:
    directory, trace = pathlib.Path(name).resolve(), pathlib.Path(name, "trace")
    for size in (35, 3500):
        media, journal = prepare(directory, size)
        subprocess.run(["strace", "-y", "-o", trace, sys.executable, "-c", REPAIR, library, media, journal], check=True,
                       timeout=200, stdout=subprocess.DEVNULL)
        seen.append((calls(trace, media), calls(trace, journal)))
    of_media, of_journal = seen[1]
    assert seen[0] == seen[1], f"it depends on the size of the media: {seen}"
    assert {"openat", "ftruncate", "fsync", "close"} <= set(of_media) <= {
        "openat", "close", "fstat", "newfstatat", "statx", "lseek", "fadvise64", "write", "writev", "ftruncate", "fsync"}
    assert sum(of_media.values()) < 30, of_media
    assert of_journal["read"] <= journal.stat().st_size // (8192 - 28) + 2, of_journal
    print(f"media of 35 MB and of {media.stat().st_size} bytes alike: {of_media}; journal: {of_journal}")
