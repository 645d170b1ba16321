"""The cards: file systems as they are made for one, new or with old recordings in their free space."""

import os
import pathlib
import struct
import subprocess
from collections import namedtuple

from cut import SECTOR

MIB = 1 << 20
FILLED = 48 * MIB  # of a used card
BEGIN, NOTES = MIB, 4 * MIB  # where the file system begins on the disk; what the notes have after it

# `repair` is fsck as a device calls it at boot, `check` looks without writing.
Kind = namedtuple("Kind", "type size make options repair check")


def fat(cluster, size):
    make = ("mkfs.vfat", "-F", "32", "-s", str(cluster // SECTOR), "-S", str(SECTOR))
    return Kind("vfat", size, make, "", ("fsck.fat", "-a"), ("fsck.fat", "-n"))


KINDS = {
    "ext4": Kind("ext4", 64 * MIB, ("mkfs.ext4", "-q", "-F", "-E", "nodiscard"), "", ("e2fsck", "-p"),
                 ("e2fsck", "-f", "-n")),
    "f2fs": Kind("f2fs", 128 * MIB, ("mkfs.f2fs", "-q", "-f", "-t", "0"), "", ("fsck.f2fs", "-a"),
                 ("fsck.f2fs", "--dry-run", "-f")),
    "fat32-512": fat(512, 64 * MIB),
    "fat32-4096": fat(4096, 300 * MIB),
    "fat32-32768": fat(32768, 2200 * MIB),
    "exfat": Kind("exfat", 512 * MIB, ("mkfs.exfat",), "", ("fsck.exfat", "-p"), ("fsck.exfat", "-n")),
}
FAMILIES = {"fat32": ["fat32-512", "fat32-4096", "fat32-32768"]}


def kinds_of(name):
    """The kinds of cards, new and used, that a family has."""
    return [kind + state for kind in FAMILIES.get(name, [name]) for state in ("", "-used")]


def kind_of(name):
    return KINDS[name.removesuffix("-used")]


def make(name, path, old):
    """
    A disk with the file system and the notes' partition.

    `old` is what the free space of a used card is full of.
    Returns the offset of each sector of the disk that mkfs has written.
    """
    kind, filler = kind_of(name), b""
    system = path.with_suffix(".system")
    with open(system, "wb") as made:
        if name.endswith("-used"):
            filler = (old * (MIB // len(old) + 1))[:MIB]
            for _ in range(FILLED // MIB):
                made.write(filler)
        made.truncate(kind.size)
    subprocess.run([*kind.make, str(system)], check=True, stdout=subprocess.DEVNULL)
    with open(path, "wb") as disk:
        disk.write(partition_table((BEGIN, kind.size), (BEGIN + kind.size, NOTES)))
        disk.truncate(BEGIN + kind.size + NOTES)
    occupied = []
    with open(system, "rb") as made, open(path, "r+b") as disk:
        for begin in data_of(made):
            made.seek(begin)
            block = made.read(MIB)
            disk.seek(BEGIN + begin)
            disk.write(block)
            before = filler if filler and begin < FILLED else bytes(MIB)
            if block != before[:len(block)]:
                occupied += [BEGIN + begin + at for at in range(0, len(block), SECTOR)
                             if block[at:at + SECTOR] != before[at:at + SECTOR]]
    system.unlink()
    return occupied


def data_of(file):
    """The offset of each MiB that is not a hole alone."""
    at, end = 0, os.fstat(file.fileno()).st_size
    while at < end:
        try:
            at = os.lseek(file.fileno(), at, os.SEEK_DATA) // MIB * MIB
        except OSError:  # a hole up to the end
            return
        yield at
        at += MIB


def partition_table(*partitions):
    entries = b"".join(struct.pack("<4xB3xII", 0x83, begin // SECTOR, size // SECTOR) for begin, size in partitions)
    return bytes(446) + entries.ljust(64, b"\0") + b"\x55\xaa"


def copy_system(disk, card, size):
    """The file system of a disk, in a file of its own."""
    with open(disk, "rb") as source, open(card, "wb") as target:
        target.truncate(size)
        for begin in data_of(source):
            if BEGIN <= begin < BEGIN + size:
                source.seek(begin)
                target.seek(begin - BEGIN)
                target.write(source.read(min(MIB, BEGIN + size - begin)))


def fsck(command, card):
    """Its exit code and what it says."""
    done = subprocess.run([*command, str(card)], capture_output=True, text=True, errors="replace", check=False,
                          stdin=subprocess.DEVNULL, timeout=120)
    return done.returncode, (done.stdout + done.stderr).strip()
