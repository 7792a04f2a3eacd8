"""Compares the order of classes' virtual operations with the lists beside this file.

usage: vtable_order.py LISTS COMPILER [FLAG...]

A list stands in a file of the class's name, with dots for "::". Its lines:
    include NAME    the header that has the class
    base CLASS      the operations of that class's list come first
    NAME...         operations; the destructor is "~", an overload stands once for each
"""

import difflib
import re
import subprocess
import sys
import tempfile
from pathlib import Path


def read_list(folder: Path, cls: str) -> tuple[str, list[str]]:
    """The class's header and the operations expected of it."""
    header, operations = "", []
    for line in (folder / f"{cls.replace('::', '.')}.txt").read_text().splitlines():
        match line.split():
            case ["include", name]:
                header = name
            case ["base", base]:
                operations += read_list(folder, base)[1]
            case names:
                operations += names
    return header, operations


def dump_classes(compiler: list[str], headers: list[str]) -> str:
    """What the compiler tells about every class of the headers. A missing one leaves its classes without."""
    with tempfile.TemporaryDirectory() as folder:
        source, dump = Path(folder) / "classes.cpp", Path(folder) / "classes.txt"
        source.write_text("".join(f"#if __has_include(<{h}>)\n#include <{h}>\n#endif\n" for h in headers))
        if subprocess.run([*compiler, "-fsyntax-only", f"-fdump-lang-class={dump}", source]).returncode:
            sys.exit("the headers do not compile")
        return dump.read_text()


def operations_of(dump: str, cls: str) -> list[str]:
    """The operations of the class's primary table, a destructor's two entries as one."""
    table = re.search(rf"^Vtable for {re.escape(cls)}\n(.*?)\n\n", dump, re.MULTILINE | re.DOTALL)
    if not table:
        return []
    operations = []
    # The first three lines are the table's own name, the offset to the top and the type information.
    for line in table[1].splitlines()[3:]:
        name = re.fullmatch(r"\d+\s+\(int \(\*\)\(\.\.\.\)\)([A-Za-z_][\w:~<>, ]*)", line)
        if not name:
            break  # the table of a second base begins
        operation = name[1].rpartition("::")[2]
        if not operation.startswith("~"):
            operations.append(operation)
        elif operations[-1] != "~":
            operations.append("~")
    return operations


def main() -> None:
    folder, compiler = Path(sys.argv[1]), sys.argv[2:]
    classes = sorted(path.stem.replace(".", "::") for path in folder.glob("*.*.txt"))
    lists = {cls: read_list(folder, cls) for cls in classes}
    dump = dump_classes(compiler, sorted({header for header, _ in lists.values()}))

    wrong = 0
    for cls, (_, expected) in lists.items():
        found = operations_of(dump, cls)
        if found == expected:
            print(f"{cls}: {len(found)} operations in order")
            continue
        wrong += 1
        print(f"{cls}: the order of operations is not the expected one")
        print("\n".join(difflib.unified_diff(expected, found, "expected", "compiled", lineterm="")))
    if wrong or not lists:
        sys.exit(f"{wrong} of {len(lists)} classes differ")


main()
