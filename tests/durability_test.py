"""The order in which a recorder's calls reach the medium: what each leaves at any moment can be repaired.

    durability_test.py CUT-OFF.so PROGRAM ARGUMENT...     {clip} in an argument is the file to make

The program runs under strace; a call counts from its beginning for what it needs and from its end for what it makes
durable. Its syncs fail one at a time, and appends to the journal come out short.
"""

import codecs
import os
import pathlib
import re
import subprocess
import sys
import tempfile
from collections import namedtuple

from support import judge

NAMING = "openat", "unlink", "unlinkat"
Call = namedtuple("Call", "thread name text result begin end")
# C: file created (c: below a descriptor of the directory), t: media cut, D: directory synced, w: media written, s: synced,
# a: journal appended to, j: synced, u: removed. Nothing is journaled before D.
ORDER = re.compile("(CC|cc)t?(w+s+w*)?D+w*(a+w*jw*)?(s+w*((a+w*)?j)?w*){4,}w+t?s+uD?")
SHIM, PROGRAM, DURABLE = sys.argv[1], sys.argv[2:], ("fsync", "fdatasync")


def calls_of(trace):
    """The calls of all threads in the order in which they end."""
    begun = {}
    for at, line in enumerate(trace.splitlines()):
        thread, text = line.split(None, 1)
        begin = at
        if text.startswith("<... "):
            begin, first = begun.pop(thread)
            text = first + text.split(" resumed>", 1)[1]
        if text.endswith("<unfinished ...>"):
            begun[thread] = begin, text[:-len("<unfinished ...>")]
        elif found := re.match(r"(\w+)\((.*)\) += (-?\d+)", text):
            yield Call(thread, found[1], found[2], int(found[3]), begin, at)


class Medium:
    """What is on the medium at any moment, judged by the calls alone."""

    def __init__(self, clip):
        self.media, self.journal, self.directory = str(clip), f"{clip}.journal", str(clip.parent)
        self.created, self.named, self.failed = set(), set(), set()
        self.position, self.writes, self.reach = 0, 0, 0
        self.written, self.durable = [(-1, 0, 0)], [(-1, 0, 0)]  # (moment, writes until then, bytes that they reach)
        self.records, self.end, self.order, self.torn = b"", 32, "", False
        self.given_up = False  # recovery completes the file, and is judged elsewhere

    def cut(self):
        """Whether the journal ends inside a record."""
        return judge.whole_records(self.records) != len(self.records)

    def see(self, call):
        subject = re.match(r'(?:\w+<(.*?)>)?(?:, )?(?:"(.*?)")?', call.text)
        named = call.name in NAMING and subject[2]
        path = os.path.join(subject[1] or "", named) if named else subject[1]
        earlier = lambda history: [entry for entry in history if entry[0] < call.begin][-1]  # noqa: E731
        if self.given_up or path not in (self.media, self.journal, self.directory):
            return
        if call.result < 0 and call.name in DURABLE:
            self.failed.add(path)
        elif call.result < 0:
            return
        elif call.name == "openat" and "O_CREAT" in call.text:
            self.created.add(path)
            self.order += "C" if call.text.startswith("AT_FDCWD") else "c"
        elif call.name == "openat" and path == self.media:
            self.given_up, self.torn = True, self.cut()
        elif call.name in DURABLE and path == self.directory:
            self.named |= self.created
            self.order += "D"
        elif call.name == "ftruncate" and path == self.media:
            self.order += "t"
        elif call.name == "lseek" and path == self.media:
            self.position = call.result
        elif call.name in ("write", "writev", "pwrite64"):
            (self.write if path == self.media else self.append)(call, earlier(self.durable)[2])
        elif call.name in DURABLE and path == self.media:
            self.torn |= self.cut()
            if path not in self.failed:  # else what was lost stays lost
                self.durable.append((call.end, *earlier(self.written)[1:]))
            self.order += "s"
        elif call.name in DURABLE:
            self.order += "j"
        elif call.name.startswith("unlink") and path == self.journal and self.writes:
            assert earlier(self.durable)[1] == self.writes, "the journal is removed before the media is durable"
            self.order += "u"

    def write(self, call, _):
        begin = int(call.text.rsplit(",", 1)[1]) if call.name == "pwrite64" else self.position
        self.position = begin + call.result
        self.reach, self.writes = max(self.reach, self.position), self.writes + 1
        self.written.append((call.end, self.writes, self.reach))
        self.order += "w"

    def append(self, call, durable):
        assert self.named >= self.created, "journaled before the directory was synced"
        assert self.journal not in self.failed, "appended after a sync of the journal had failed"
        data = codecs.decode(re.search(r'"(.*)"', call.text)[1].encode(), "unicode_escape").encode("latin1")
        self.records += data[:call.result]
        self.end = 32
        for sample in judge.samples_of(self.records):
            assert sample.begin == self.end, f"the journal names byte {sample.begin} after byte {self.end}"
            self.end = sample.end
        assert self.end <= durable, f"the journal names bytes up to {self.end}, of which {durable} are durable"
        self.order += "a"


def record(fault="", **environment):
    """Runs the program; its calls, what became of the medium, and where the media of its file ends if it ended well."""
    with tempfile.TemporaryDirectory(dir=judge.MEMORY) as directory:
        card = pathlib.Path(directory).resolve()
        clip, trace = card / environment.pop("NAME", "plain") / "clip.mp4", card / "trace"
        clip.parent.mkdir()
        done = subprocess.run(
            ["strace", "-f", "-y", "-x", "-s", "1000000", "-o", trace, "-e",
             "trace=openat,write,writev,pwrite64,ftruncate,lseek,fsync,fdatasync,unlink,unlinkat",
             *(["-e", f"inject={fault}"] if fault else []),
             *(f"-E{name}={value}".format(card=card) for name, value in environment.items()),
             *(word.format(clip=clip) for word in PROGRAM)], capture_output=True, check=False, timeout=100)
        calls, medium = list(calls_of(trace.read_text())), Medium(clip)
        for call in calls:
            try:
                medium.see(call)
            except AssertionError as problem:
                sys.exit(f"{fault} {environment}: {medium.order[-50:]}: {problem}")
        media = clip.read_bytes() if clip.exists() else b""
        return calls, medium, done.returncode == 0 and 24 + int.from_bytes(media[24:28], "big")


calls, good, ended = record()
assert ended == good.end and ORDER.fullmatch(good.order), good.order
places = {}  # of the syncs of each file: system call and number among those of the thread
for call in calls:
    if call.name in DURABLE:
        number = sum(c.thread == call.thread and c.name == call.name and c.begin <= call.begin for c in calls)
        places.setdefault(re.search("<(.*)>", call.text)[1].split("/")[-1], []).append(f"{call.name}:error=EIO:when={number}")
journal, media = places["clip.mp4.journal"], places["clip.mp4"]
faults = [next(iter(places.values()))[0], media[0], media[1], media[-2], media[-1], journal[0], journal[-2]]
for fault in faults:
    for _ in range(9):  # a run can have fewer rounds than the first one
        _, seen, ended = record(fault)
        if seen.failed:
            break
    assert seen.failed and not (seen.given_up and ended), f"{fault}: {seen.failed or 'nothing'} has failed"
    assert seen.failed == {seen.journal} or not (ended or "u" in seen.order), f"{fault}: it is not reported"


def cut_short(fault):
    """The program, whose changes to the files fail as the shim has it: each is half a write."""
    _, seen, ended = record(NAME=f"card~{fault}", LD_PRELOAD=SHIM, CASES="{card}")
    return seen, ended


changes = re.sub("[^cDtwau]", "", cut_short("bad=0")[0].order)
halves = [n + 1 for n, letter in enumerate(changes) if letter == "a"][1:-2:2]
cut = [cut_short(f"{kind}={n}") for kind in ("bad", "gap") for n in (*halves[:2], halves[-1])]
assert any(seen.torn and ended != seen.given_up for seen, ended in cut), "no append has ended inside a record"
assert all((seen.cut(), seen.end) == (False, good.end) for seen, ended in cut if ended), "records are missing"
if "record" in PROGRAM:  # the recorder: on exFAT the table, by way of the directory, before the media that has grown
    syncs = re.sub("[^Ds]", "", record(LD_PRELOAD=SHIM, EXFAT="1")[1].order)
    assert syncs.count("Ds") > 5, syncs  # without that it is twice
order = re.sub("(w+)", "w", good.order)
print(f"{len(faults)} failed syncs, {len(cut)} appends cut short; without a fault: {order[:20]}...{order[-10:]}")
