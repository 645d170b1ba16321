"""The log of a disk's writes, and what a power cut leaves of them.

QEMU's blklogwrites keeps the log as the kernel's dm-log-writes does: a sector that describes the log; then for each
write a sector that describes it, and its bytes.
"""

import functools
import json
import random
import struct
from collections import namedtuple

SECTOR = 512
FLUSH, DISCARD = 1, 4
Write = namedtuple("Write", "offset data is_flush")
MODELS = ("none", "all", "most", "few", "torn", "erased")
UNITS = (512, 4096)


def read_log(path):
    """Every write in its order."""
    writes = []
    with open(path, "rb") as log:
        head = log.read(28)
        if not head:  # nothing was written, and nothing synced
            return []
        magic, version, entries, size = struct.unpack("<QQQI", head)
        if (magic, version, size) != (0x6A736677736872, 1, SECTOR):
            raise ValueError(f"{path} is no log of writes")
        log.seek(SECTOR)
        for _ in range(entries):
            sector, count, flags = struct.unpack_from("<QQQ", log.read(SECTOR))
            if flags & DISCARD:
                raise ValueError(f"{path} has discards")
            writes.append(Write(sector * SECTOR, log.read(count * SECTOR), bool(flags & FLUSH)))
    return writes


def notes_of(writes, begin, size):
    """(index of the write, note) of each that stands in that partition."""
    return [(index, json.loads(write.data.split(b"\0")[0])) for index, write in enumerate(writes)
            if write.data and begin <= write.offset < begin + size]


class Cut:
    """A power cut after the first `index` writes of a log, where the medium is written in units.

    Everything up to the last flush is there. Of the later writes the model says which units are.
    """

    def __init__(self, writes, index, model, unit, seed, occupied):
        """`occupied` has the offset of each sector that held something before the log began; None: all of them."""
        self.writes, self.index, self.model, self.unit, self.occupied = writes, index, model, unit, occupied
        self.seed = seed
        self.safe = max((i + 1 for i in range(index) if writes[i].is_flush), default=0)

    def pieces(self):
        """(offset, bytes) in the order in which they are put on the card."""
        chance = random.Random(self.seed)
        for write in self.writes[:self.safe]:
            yield write.offset, write.data
        for i in range(self.safe, self.index):
            offset, data, _ = self.writes[i]
            for begin, end in self.cut_in_units(offset, len(data)):
                if self.is_kept(chance.random(), is_last=i == self.index - 1):
                    yield begin, data[begin - offset:end - offset]
                elif self.model == "erased" and self.occupied is not None and begin // self.unit not in self.written:
                    yield begin, b"\xff" * (end - begin)

    def cut_in_units(self, offset, length):
        """(begin, end) of each unit's part of a write."""
        end = offset + length
        while offset < end:
            until = min(end, (offset // self.unit + 1) * self.unit)
            yield offset, until
            offset = until

    @functools.cached_property
    def written(self):
        """The units of the medium that hold something which a flush made safe, or that was there before."""
        found = {unit for write in self.writes[:self.safe] if write.data
                 for unit in range(write.offset // self.unit, (write.offset + len(write.data) - 1) // self.unit + 1)}
        return found | {place // self.unit for place in self.occupied}

    def is_kept(self, chance, is_last):
        return {"none": False, "all": True, "killed": True, "most": chance < 0.9, "few": chance < 0.1,
                "torn": not is_last or chance < 0.5, "erased": chance < 0.5}[self.model]

    def build(self, card, begin, size):
        """Puts a partition of the disk on the card, which holds what was there before the log began."""
        with open(card, "r+b") as file:
            for offset, data in self.pieces():
                if begin <= offset and offset + len(data) <= begin + size:
                    file.seek(offset - begin)
                    file.write(data)
