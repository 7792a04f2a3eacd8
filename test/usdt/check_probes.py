# check_probes.py TOOLS LIBRARY MODULE OBJECT...: the probes stand in the objects' notes, none in the library's;
# bpftrace compiles the tools for the module, which is linked from the objects.

import os
import pathlib
import re
import shutil
import subprocess
import sys

PROBES = {"run_start": 5, "run_end": 5, "violation": 6, "timer": 4, "idle": 2}


# The number of arguments of each probe, by its name.
def probes(files):
    notes = subprocess.run(["readelf", "--notes", *files], check=True, capture_output=True, text=True).stdout
    found = re.findall(r"Provider: keltask\s+Name: (\w+)\s+.*\s+Arguments: (.*)", notes)
    return {name: len(arguments.split()) for name, arguments in found}


tools, library, module, *objects = sys.argv[1:]
assert probes(objects) == PROBES, probes(objects)
assert probes([library]) == {}, probes([library])
used = {}
for script in pathlib.Path(tools).glob("*.bt"):
    for name, body in re.findall(r"^usdt:\*:keltask:(\w+)\n\{(.*?)^\}", script.read_text(), re.M | re.S):
        used[name] = max(map(int, re.findall(r"\barg(\d)", body)))
    if shutil.which("bpftrace") and os.geteuid() == 0:
        program = script.read_text().replace("usdt:*:", f"usdt:{module}:")
        subprocess.run(["bpftrace", "-d", "-e", program], check=True, stdout=subprocess.DEVNULL)
assert used.keys() == PROBES.keys(), used
assert all(last < PROBES[name] for name, last in used.items()), used
