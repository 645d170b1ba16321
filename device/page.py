"""The file of results, and the table of the documentation that is made from it."""

import json

BEGIN, END = "<!-- device -->\n", "<!-- /device -->\n"


def read(path):
    """{(case, digest of the programs): result}; a line that was cut is left out."""
    found = {}
    for line in path.read_text().splitlines() if path.exists() else ():
        try:
            result = json.loads(line)
        except ValueError:
            continue
        found[result["case"], result["programs"]] = result
    return found

