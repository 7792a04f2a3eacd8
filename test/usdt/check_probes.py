"""check_probes.py TOOLS LIBRARY OBJECT...: the probes in the objects' notes, none in the library's."""

import pathlib
import re
import subprocess
import sys

PROBES = {"run_start": 5, "run_end": 5, "violation": 6, "timer": 4, "idle": 2}


def probes(files):
    """The number of arguments of each probe, by its name."""
    notes = subprocess.run(["readelf", "--notes", *files], check=True, capture_output=True, text=True).stdout
    return {
        name: len(arguments.split())
        for name, arguments in re.findall(r"Provider: keltask\s+Name: (\w+)\s+.*\s+Arguments: (.*)", notes)
    }


tools, library, *objects = sys.argv[1:]
assert probes(objects) == PROBES, probes(objects)
assert probes([library]) == {}, probes([library])
used = {}
for script in pathlib.Path(tools).glob("*.bt"):
    for name, body in re.findall(r"^usdt:\*:keltask:(\w+)\n\{(.*?)^\}", script.read_text(), re.M | re.S):
        used[name] = max(map(int, re.findall(r"\barg(\d)", body)))
assert used.keys() == PROBES.keys(), used
assert all(last < PROBES[name] for name, last in used.items()), used
