"""Reads metrics by the rules of the text format 0.0.4 and prints the samples, labels and all, one a line."""

import json
import re
import sys

text = sys.stdin.buffer.read().decode("utf-8")
assert text.endswith("\n")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\[\\"n])*)"(,|$)')
SAMPLE = re.compile(r"([a-zA-Z_:][a-zA-Z0-9_:]*)\{(.*)\} (\S+)")
types, helped, seen, family = {}, set(), set(), None


def unescaped(value):
    return re.sub(r"\\(.)", lambda m: "\n" if m[1] == "n" else m[1], value)


def labels_of(block):
    labels, at = [], 0
    while at < len(block):
        match = LABEL.match(block, at)
        assert match, block
        labels.append((match[1], unescaped(match[2])))
        at = match.end()
    assert len(dict(labels)) == len(labels), block
    return labels


for line in text[:-1].split("\n"):
    comment = re.fullmatch(r"# (HELP|TYPE) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.+)", line)
    if comment and comment[1] == "HELP":
        assert comment[2] not in helped, line
        helped.add(comment[2])
    elif comment:
        family = comment[2]
        assert family in helped and family not in types, line
        types[family] = comment[3]
        assert comment[3] in ("counter", "gauge") and (comment[3] == "counter") == family.endswith("_total"), line
    else:
        sample = SAMPLE.fullmatch(line)
        assert sample and sample[1] == family, line
        labels = labels_of(sample[2])
        assert (family, *labels) not in seen, line
        seen.add((family, *labels))
        value = float(sample[3])
        assert types[family] != "counter" or value >= 0, line
        shown = " ".join(json.dumps(value)[1:-1] for _, value in labels)
        print(f"{family.removeprefix('keltask_')} {shown} = {value:g}")
