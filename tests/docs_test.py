"""The pages are right: the README's code is that of the examples, or records the recording whose bytes other pages show;
the recorder's page knows no name that its headers lack.

    docs_test.py SOURCE LIBRARY [FLAG...]
"""

import pathlib
import re
import subprocess
import sys
import tempfile

SOURCE, LIBRARY, FLAGS = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3:]

HARNESS = r"""
#include <fcntl.h>
#include <stdio.h>
#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

static const unsigned char idr[] = {%s}, slice[] = {%s};

static int encoder_next(mp4_frame *frame)
{
    static int n;
    frame->data = n ? slice : idr;
    frame->len = n ? sizeof slice : sizeof idr;
    frame->timestamp.seconds = 10;
    frame->timestamp.nanoseconds = n * 40000000;
    frame->key = !n;
    return n++ < 2;
}

%s
int main(int argc, char **argv)
{
    uint32_t count;
    mediafile_caretaker *journal = mediafile_caretaker_create();
    int fd = open(argv[argc - 2], O_RDWR | O_CREAT, 0644);
    if (!journal || fd < 0 || record_file(fd, journal) != 0) return 1;
    FILE *file = fopen(argv[argc - 1], "wb");
    const void *records = mediafile_caretaker_read(journal, &count);
    int written = fwrite(records, 1, count, file) == count && fclose(file) == 0;
    mediafile_caretaker_destroy(journal);
    return written ? 0 : 1;
}
"""


def shown_bytes(page):
    """The hex dump of a page, as {offset: byte}."""
    shown = {}
    for line in page.splitlines():
        row = re.match(r" {4}([0-9a-f]{8}): ((?:[0-9a-f]{2} )+)", line + " ")
        if row:
            for i, byte in enumerate(bytes.fromhex(row.group(2))):
                shown[int(row.group(1), 16) + i] = byte
    return shown


def c_array(line):
    return ", ".join("0x" + byte for byte in line.split())


readme = (SOURCE / "README.md").read_text()
dashcam, dashcam_cpp, code, recover = re.findall(r"```(?:c|cpp)\n(.*?)```", readme, flags=re.S)
for part, example in ((dashcam, "dashcam.c"), (dashcam_cpp, "dashcam.cpp"), (recover, "recover.c")):
    assert part in (SOURCE / "examples" / example).read_text(), f"the README shows other code than {example}"

headers = "".join((SOURCE / "include/mediafiles" / name).read_text() for name in ("recorder.h", "recovery.h", "movie.h"))
named = set(re.findall(r"`(?:<mediafiles/)?([A-Za-z]\w+)(?:\.hp*>)?`", (SOURCE / "docs/recorder.md").read_text()))
missing = {name for name in named if not re.search(rf"(?:\b|_){name}\b", headers)}
assert len(named) > 40 and not missing, f"docs/recorder.md has names that are in no header: {missing}"

layout = (SOURCE / "docs/file-layout.md").read_text()
frames = re.findall(r"^ {4}(00 00 00 01 [0-9a-f ]+)$", layout, flags=re.M)
with tempfile.TemporaryDirectory() as directory:
    work = pathlib.Path(directory)
    (work / "readme.c").write_text(HARNESS % (c_array(frames[0]), c_array(frames[1]), code))
    subprocess.run(["cc", "-std=gnu11", *FLAGS, work / "readme.c", "-o", work / "readme", f"-I{SOURCE}/include",
                    LIBRARY, f"-Wl,-rpath,{LIBRARY.parent}"], check=True)
    subprocess.run([work / "readme", work / "clip.mp4", work / "journal"], check=True)
    for page, path in ((layout, work / "clip.mp4"), ((SOURCE / "docs/journal.md").read_text(), work / "journal")):
        recorded, shown = path.read_bytes(), shown_bytes(page)
        assert len(shown) > 80, f"{path.name}: no dump in the page"
        assert all(recorded[at] == byte for at, byte in shown.items()), f"{path.name} is not as its page shows"
        assert max(shown) == len(recorded) - 1, f"{path.name} ends elsewhere than its page shows"
