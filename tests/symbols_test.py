"""The shared library exports exactly the names of the public headers and needs libc alone.

    symbols_test.py LIBRARY INCLUDE_DIRECTORY VERSION_SCRIPT
"""

import pathlib
import re
import subprocess
import sys


def declared(include):
    names = set()
    for header in pathlib.Path(include).rglob("*.h"):
        text = re.sub(r"/\*.*?\*/|^\s*#.*?$", "", header.read_text(), flags=re.S | re.M)
        for declaration in re.findall(r"MEDIAFILES_API\b([^;]*);", text):
            names.add(re.match(r"[^(\[]*?(\w+)\s*[(\[]", declaration).group(1))
    return names


def exported(library):
    lines = subprocess.check_output(["nm", "-D", "--defined-only", library], text=True).splitlines()
    return {line.split()[2].split("@")[0] for line in lines if line.split()[1] != "A"}


library, include, script = sys.argv[1:]
dynamic = subprocess.check_output(["readelf", "-d", library], text=True)
needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
soname = re.findall(r"SONAME.*\[(.*)\]", dynamic)
faults = []
if declared(include) != exported(library):
    faults.append(f"not exported: {declared(include) - exported(library)}, "
                  f"not declared: {exported(library) - declared(include)}")
if declared(include) != set(re.findall(r"^    (\w+);$", pathlib.Path(script).read_text(), flags=re.M)):
    faults.append(f"{script} lists other names than the headers declare")
if needed != ["libc.so.6"]:
    faults.append(f"needs {needed}")
if soname != ["libmediafiles.so.0"]:
    faults.append(f"is called {soname}")
if len(declared(include)) < 100:
    faults.append("the headers were not understood")
sys.exit("\n".join(faults) if faults else 0)
