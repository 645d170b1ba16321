"""A shared library exports exactly the names of its public headers; the core needs libc alone.

    symbols_test.py LIBRARY INCLUDE_DIRECTORY VERSION_SCRIPT
"""

import pathlib
import re
import subprocess
import sys


RECORDER = {"recorder.h", "recovery.h"}  # headers; the others are the core's


def declared(include, recorder):
    names = set()
    for header in pathlib.Path(include).rglob("*.h"):
        if (header.name in RECORDER) != recorder:
            continue
        text = re.sub(r"/\*.*?\*/|^\s*#.*?$", "", header.read_text(), flags=re.S | re.M)
        for declaration in re.findall(r"MEDIAFILES_API\b([^;]*);", text):
            names.add(re.match(r"[^(\[]*?(\w+)\s*[(\[]", declaration).group(1))
    return names


def exported(library):
    lines = subprocess.check_output(["nm", "-D", "--defined-only", library], text=True).splitlines()
    return {line.split()[2].split("@")[0] for line in lines if line.split()[1] != "A"}


library, include, script = sys.argv[1:]
name = pathlib.Path(library).name.split(".so")[0]
recorder = name == "libmediafiles-recorder"
names = declared(include, recorder)
dynamic = subprocess.check_output(["readelf", "-d", library], text=True)
needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
soname = re.findall(r"SONAME.*\[(.*)\]", dynamic)
faults = []
if names != exported(library):
    faults.append(f"not exported: {names - exported(library)}, not declared: {exported(library) - names}")
if names != set(re.findall(r"^    (\w+);$", pathlib.Path(script).read_text(), flags=re.M)):
    faults.append(f"{script} lists other names than the headers declare")
above = {"libmediafiles.so.0", "libstdc++.so.6", "libgcc_s.so.1"} if recorder else set()
if not {"libc.so.6"} <= set(needed) <= above | {"libc.so.6"}:
    faults.append(f"needs {needed}")
if soname != [f"{name}.so.0"]:
    faults.append(f"is called {soname}")
if len(names) < (15 if recorder else 100):
    faults.append("the headers were not understood")
sys.exit("\n".join(faults) if faults else 0)
