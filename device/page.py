"""The file of results, and the tables of the documentation that are made from it."""

import json
import re

BEGIN, END = "<!-- device -->\n", "<!-- /device -->\n"
FAMILIES = (("ext4", "ext4"), ("f2fs", "f2fs"), ("fat32", "FAT32"), ("exfat", "exFAT"))
REORDERED = ("most", "few", "erased")


def read(path):
    """{(case, digest of what ran): result}; a line that was cut is left out."""
    found = {}
    for line in path.read_text().splitlines() if path.exists() else ():
        try:
            result = json.loads(line)
        except ValueError:
            continue
        found[result["case"], result["programs"]] = result
    return found


def current(results):
    """Those of the programs that ran last on each machine."""
    last = {result["case"].split("/")[0]: result["programs"] for result in results}
    return [result for result in results if last[result["case"].split("/")[0]] == result["programs"]]


def writes(result):
    if result["model"] == "killed":
        return "QEMU killed"
    if result["model"] in REORDERED:
        return f"any order, {result['unit']} bytes"
    return f"in order, torn in {result['unit']}" if result["model"] == "torn" else "in order"


def order(result):
    return result["order"]


def recorder(result):
    return {"dashcam": "dashcam", "events": "dashcam, events", "command": "mediafiles record"}[result["recorder"]]


def table(results, heading, of):
    """A line for each file system and each value of `of`, with the sums of what was found."""
    rows = {}
    for result in results:
        machine, kind = result["case"].split("/")[:2]
        name = next(name for begin, name in FAMILIES if kind.startswith(begin))
        rows.setdefault((machine != "x86-64", machine, [n for _, n in FAMILIES].index(name), name, of(result)),
                        []).append(result)
    lines = [f"| kernel | file system | {heading} | cuts | safe frames | lost | cuts that lose | refused | damaged |",
             "|---|---|---|---|---|---|---|---|---|"]
    for (_, machine, _, name, value), found in sorted(rows.items()):
        numbers = (len(found), sum(r["acknowledged"] for r in found), sum(r["lost"] for r in found),
                   sum(r["lost"] > 0 for r in found), sum(len(r["refused"]) for r in found),
                   sum(len(r["damaged"]) + len(r["wrong"]) for r in found))
        lines.append(f"| {machine} | {name} | {value} | " + " | ".join(map(str, numbers)) + " |")
    return "\n".join(lines) + "\n"


def text(results):
    return "\n".join((table(results, "writes of the card", writes), table(results, "at boot", order),
                      table(results, "recorded by", recorder)))


def renew(page, path):
    old = page.read_text()
    made = BEGIN + "\n" + text(current(list(read(path).values()))) + "\n" + END
    new, count = re.subn(re.escape(BEGIN) + ".*?" + re.escape(END), lambda _: made, old, flags=re.DOTALL)
    if count != 1:
        raise ValueError(f"{page} has no place for the table")
    page.write_text(new)
    return 0
