"""Checks that no file includes upwards, nor what another folder keeps to itself.

usage: floors.py ROOT

A file includes its own folder and the floors below; folders on one floor know nothing of each other. What lies in a
folder's detail/ is for that folder's sources and detail/, not for its public headers, and for other folders' only where
EXCEPTIONS names it. README.md and docs/design.md show the same floors in the same order.
"""

import re
import sys
from fnmatch import fnmatch
from os.path import normpath
from pathlib import Path

# From the top; a floor's folders stand side by side. Documents show those that there are.
FLOORS = [
    ["kelkv", "examples", "bench"],
    ["export", "adapt", "watch"],
    ["registry"],
    ["group"],
    ["scheduler"],
    ["task"],
    ["platform/kel"],
    ["platform/mox"],
]
FLOOR = {folder: floor for floor, folders in enumerate(FLOORS) for folder in folders}

# What is included from below, as its folder, or of another folder's detail/: (what, includer, reason)
EXCEPTIONS = [
    ("scheduler", "task/*.cpp", "a task's sources know schedulers, its headers know them by forward declaration"),
    ("task/detail/TaskTrace.h", "scheduler/*.cpp", "tasks and schedulers write to one trace handle"),
    ("task/detail/Probes.h", "scheduler/*.cpp", "a run's probes stand where schedulers run tasks"),
    ("platform/mox/detail/StrepCursor.h", "*.cpp", "value types of all floors read their text with it"),
    ("platform/mox/detail/FieldText.h", "*.cpp", "the text forms of our value types, which are no public interface"),
    ("platform/mox/detail/FieldLog.h", "*.cpp", "their log forms"),
    ("platform/kel/detail/Slices.h", "*/detail/*.h", "and the classes that make them, of one source each"),
    ("platform/kel/detail/Slices.h", "*.cpp", "the coroutines that make the sliced texts of all floors"),
    ("task/detail/TaskTrace.h", "group/*.cpp", "a group's own trace stands beside those of its scheduler"),
    ("platform/mox/detail/FunctionReactor.h", "*.cpp", "the reactor within classes that take functions"),
]

INCLUDE = re.compile(r'^\s*#\s*include\s*(?:<([^>]+)>|"([^"]+)")', re.MULTILINE)


def folder_of(path):
    """The folder of the floors that the path lies in; none for what is not ours."""
    return next((folder for folder in FLOOR if path.startswith(folder + "/")), None)


def included(root, file):
    """What of ours the file includes, as paths below the root."""
    for angled, quoted in INCLUDE.findall((root / file).read_text()):
        places = [Path(normpath(Path(file).parent / quoted))] if quoted else []
        places += [Path("platform") / (angled or quoted), Path(angled or quoted)]
        found = next((place.as_posix() for place in places if (root / place).is_file()), None)
        if found:
            yield found
        elif quoted or folder_of("platform/" + angled) or folder_of(angled):
            yield angled or quoted


def allowed(file, what):
    return any(what == excepted and fnmatch(file, includer) for excepted, includer, _ in EXCEPTIONS)


def problem(file, path):
    """What is wrong with that file's including that one, if anything."""
    own, other = folder_of(file), folder_of(path)
    if own == other:
        if "/detail/" in path and file.endswith(".h") and "/detail/" not in file:
            return "a public header includes what is private"
    elif other is None:
        return "not found, or in no folder of the floors"
    elif FLOOR[other] <= FLOOR[own] and not allowed(file, other):
        return "upwards" if FLOOR[other] < FLOOR[own] else "sideways"
    elif "/detail/" in path and (own in FLOORS[0] or not allowed(file, path)):
        return f"private to {other}/"
    return None


def orders_told(root):
    """The floors as each document's first table has them: a line a floor, folders in backquotes in its first cell."""
    for document in ("README.md", "docs/design.md"):
        rows = re.search(r"^\|[ :-]*-[-| :]*\n((?:\|.*\n)+)", (root / document).read_text(), re.MULTILINE)[1]
        cells = [row.split("|")[1] for row in rows.splitlines()]
        yield document, [folder for folder in re.findall(r"`([\w/]+)/`", "".join(cells)) if folder in FLOOR]


def main(root):
    files = sorted(path.relative_to(root).as_posix() for folder in FLOOR for path in (root / folder).rglob("*")
                   if path.suffix in (".h", ".cpp"))
    includes = [(file, path) for file in files for path in included(root, file)]
    wrong = [f"{file}: includes {path}: {what}" for file, path in includes if (what := problem(file, path))]

    wrong += [f"the exception is not used: {what} for {includer}"
              for what, includer, _ in EXCEPTIONS
              if not any(fnmatch(file, includer) and what in (path, folder_of(path)) for file, path in includes)]
    expected = [folder for folder in FLOOR if (root / folder).is_dir()]
    wrong += [f"{document}: shows the floors as {told}, here they are {expected}"
              for document, told in orders_told(root) if told != expected]
    return "\n".join(wrong) or 0


sys.exit(main(Path(sys.argv[1]).resolve()))
