"""Compares the listings in the documents with the files that they show.

A fenced block that names a file behind its language ("```cpp examples/hello.cpp") has to be that file's text.

  check_listings.py ROOT DOCUMENT...      paths below the root; each document shows at least one file
  check_listings.py --renew ROOT DOCUMENT...      writes the files' text into the documents
"""

import difflib
import pathlib
import re
import sys

LISTING = re.compile(r"^(```\w+ +(\S+)\n)(.*?)^```$", re.MULTILINE | re.DOTALL)


def renew(root, document):
    text = LISTING.sub(lambda m: m[1] + (root / m[2]).read_text() + "```", (root / document).read_text())
    (root / document).write_text(text)


def differences(root, document):
    found = LISTING.findall((root / document).read_text())
    if not found:
        yield f"{document}: shows no file"
    for _, name, shown in found:
        yield from difflib.unified_diff((root / name).read_text().splitlines(), shown.splitlines(),
                                        name, f"{name} in {document}", lineterm="")


def main(arguments):
    renewing = arguments[:1] == ["--renew"]
    root, *documents = arguments[renewing:]
    wrong = False
    for document in documents:
        if renewing:
            renew(pathlib.Path(root), document)
        for line in differences(pathlib.Path(root), document):
            print(line)
            wrong = True
    return 1 if wrong or not documents else 0


sys.exit(main(sys.argv[1:]))
