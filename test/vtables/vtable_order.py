# vtable_order.py COMPILER [FLAG...]: compares the order of classes' virtual operations with a list. There each class
# stands with its header and its base, whose operations come first, and under it are its own: the destructor is "~",
# an overload stands once for each.

import re
import subprocess
import sys
import tempfile
from pathlib import Path


def read_lists():
    headers, expected = [], {}
    for line in Path(__file__).with_name("golden").joinpath("operations.txt").read_text().splitlines():
        if found := re.fullmatch(r"(\S+): (\S+) ?(\S*)", line):
            cls, header, base = found.groups()
            headers.append(header)
            expected[cls] = list(expected.get(base, []))
        else:
            expected[cls] += line.split()
    return headers, expected


def dump_classes(compiler, headers):
    with tempfile.TemporaryDirectory() as folder:
        source, dump = Path(folder, "classes.cpp"), Path(folder, "classes.txt")
        source.write_text("".join(f"#include <{header}>\n" for header in headers))
        subprocess.run([*compiler, "-fsyntax-only", f"-fdump-lang-class={dump}", source], check=True)
        return dump.read_text()


# Of the class's primary table, which begins after its own name, the offset to the top and the type information;
# the table of a second base may follow. A destructor has two entries.
def operations_of(dump, cls):
    table = re.search(rf"^Vtable for {cls}\n(?:.*\n){{3}}((?:\d+ +\(int \(\*\)\(\.\.\.\)\)[A-Z].*\n)*)", dump, re.M)
    names = re.findall(r"::(~?)(\w+)$", table[1], re.M)
    return re.sub("~ ~", "~", " ".join(tilde or name for tilde, name in names)).split()


headers, expected = read_lists()
dump = dump_classes(sys.argv[1:], headers)
for cls, operations in expected.items():
    found = operations_of(dump, cls)
    assert found == operations, f"{cls}: {found}, expected {operations}"
