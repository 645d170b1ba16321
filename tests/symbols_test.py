"""The shared library exports exactly the names of the public headers and needs libc alone.

    symbols_test.py LIBRARY INCLUDE_DIRECTORY
"""

import pathlib
import re
import subprocess
import sys


def declared(include):
    names = set()
    for header in pathlib.Path(include).rglob("*.h"):
        text = re.sub(r"/\*.*?\*/|^\s*#.*?$", "", header.read_text(), flags=re.S | re.M)
        for declaration in re.findall(r"MEDIAFILES_(?:SUPPORT_)?API\b([^;]*);", text):
            names.add(re.match(r"[^(\[]*?(\w+)\s*[(\[]", declaration).group(1))
    return names


def exported(library):
    lines = subprocess.check_output(["nm", "-D", "--defined-only", library], text=True).splitlines()
    return {line.split()[2].split("@")[0] for line in lines if line.split()[1] != "A"}


library, include = sys.argv[1:]
dynamic = subprocess.check_output(["readelf", "-d", library], text=True)
needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
soname = re.findall(r"SONAME.*\[(.*)\]", dynamic)
faults = []
if declared(include) != exported(library):
    faults.append(f"not exported: {declared(include) - exported(library)}, "
                  f"not declared: {exported(library) - declared(include)}")
if needed != ["libc.so.6"]:
    faults.append(f"needs {needed}")
if soname != ["libmediafiles.so.0"]:
    faults.append(f"is called {soname}")
if len(declared(include)) < 100:
    faults.append("the headers were not understood")
sys.exit("\n".join(faults) if faults else 0)
