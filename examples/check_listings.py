"""Compares the listings in the documents with the files that they show.

A fenced block that names a file behind its language ("```cpp examples/hello.cpp") has to be that file's text.

  check_listings.py ROOT DOCUMENT...      paths below the root; each document shows at least one file
"""

import difflib
import pathlib
import re
import sys


def listings(text):
    return re.findall(r"^```\w+ +(\S+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def main(root, *documents):
    wrong = 0
    for document in documents:
        found = listings((root / document).read_text())
        if not found:
            print(f"{document}: shows no file")
            wrong += 1
        for name, shown in found:
            diff = list(difflib.unified_diff((root / name).read_text().splitlines(), shown.splitlines(),
                                             name, f"{name} in {document}", lineterm=""))
            print(*diff, sep="\n", end="\n" if diff else "")
            wrong += bool(diff)
    return 1 if wrong or not documents else 0


sys.exit(main(pathlib.Path(sys.argv[1]), *sys.argv[2:]))
