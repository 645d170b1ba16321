#!/usr/bin/env python3
"""Makes the page one file: module, scripts and style stand in it, and its policy allows these alone.

    inline.py SOURCES MODULE VERSION PAGE NAME LICENCE...

Each NAME has its licence in the file LICENCE.
"""
import base64
import hashlib
import json
import pathlib
import re
import sys

IMPORT = re.compile(r'^import [^;]*? from "\./([\w-]+\.js)";\n', re.M | re.S)

NAME = re.compile(r"^(?:async )?(?:const|let|class|function\*?) (\w+)", re.M)


def bundle(sources, first, given):
    """The modules that one needs, each before those that import it, as one script. Their names are all different."""
    parts = {}

    def add(name):
        if name in parts:
            return
        text = given.get(name) or (sources / name).read_text()
        for needed in IMPORT.findall(text):
            add(needed)
        parts[name] = re.sub(r"^export ", "", IMPORT.sub("", text), flags=re.M)

    add(first)
    names = NAME.findall("\n".join(parts.values()))
    if len(set(names)) != len(names):
        sys.exit(f"inline: {sorted(name for name in set(names) if names.count(name) > 1)} in two modules")
    return '"use strict";\n' + "\n".join(parts.values())


def string(text):
    """A literal of JavaScript that does not end the script that it stands in."""
    return json.dumps(text).replace("</", "<\\/").replace("<!--", "<\\!--")


def digest(text):
    return "'sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() + "'"


def main():
    sources, module, page, version = *map(pathlib.Path, (sys.argv[1], sys.argv[2], sys.argv[4])), sys.argv[3]
    html = (sources / "page.html").read_text()
    licences = zip(sys.argv[5::2], sys.argv[6::2])
    inlined = {"MODULE": base64.b64encode(module.read_bytes()).decode(), "WORKER": bundle(sources, "worker.js", {}),
               "VERSION": version, "PAGE": html,
               "LICENCES": "\n\n".join(f"{name}\n\n{pathlib.Path(path).read_text()}" for name, path in licences)}
    # PAGE with its marks: the page makes its own text of it, and gives the hash of that.
    script = bundle(sources, "page.js", {
        "inlined.js": "".join(f"const {name} = {string(text)};\n" for name, text in inlined.items())})
    style = (sources / "style.css").read_text()
    policy = "; ".join(("default-src 'none'", f"script-src {digest(script)} 'wasm-unsafe-eval'", f"style-src {digest(style)}",
                        "worker-src blob:", "media-src blob:", "img-src data:", "base-uri 'none'", "form-action 'none'"))
    for mark, text in (("POLICY", policy), ("STYLE", style), ("SCRIPT", script)):
        html = html.replace(f"@{mark}@", text, 1)
    page.write_text(html)


if __name__ == "__main__":
    main()
