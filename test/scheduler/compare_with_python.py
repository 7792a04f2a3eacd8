"""Evaluates text forms as Python expressions and compares every attribute with what is expected.

Reads a file of lines: the text in hexadecimal, then the expected values, all separated by blanks. An expected
value is path=kind:value; the path walks attributes (empty for the text's own value); kinds are b (0 or 1),
d (a double's 64 bits in hexadecimal), n (None), s (a string's bytes in hexadecimal) and u (unsigned decimal).
Prints the number of texts that agreed; ends at the first that does not.
"""
import struct
import sys


class Value:
    def __init__(self, type_name, **attributes):
        self.type_name = type_name
        self.attributes = attributes


def leaves(value, path=()):
    """All plain values under the value, by path; a record's type name is the plain value at '<path>.type'."""
    if not isinstance(value, Value):
        return {".".join(path): value}
    found = {".".join(path + ("type",)): value.type_name}
    for name, attribute in value.attributes.items():
        found.update(leaves(attribute, path + (name,)))
    return found


def expected(kind, text):
    """The value as something that compares equal only to what agrees in every bit."""
    return {"b": lambda: (bool, text == "1"),
            "d": lambda: ("bits", text),
            "n": lambda: (type(None), None),
            "s": lambda: (str, bytes.fromhex(text)),
            "u": lambda: (int, int(text))}[kind]()


def evaluated(kind, value):
    if kind == "d":
        return "bits", struct.pack(">d", value).hex()
    if isinstance(value, str):
        return str, value.encode("latin-1")
    return type(value), value


def compare(line):
    text, *fields = line.split(" ")
    source = bytes.fromhex(text).decode("ascii")
    found = leaves(eval(source, {"__builtins__": {}, "Value": Value, "float": float}))
    wanted = {}
    for field in fields:
        path, _, value = field.partition("=")
        wanted[path] = value.split(":", 1)
    if found.keys() != wanted.keys():
        sys.exit(f"{source}\nattributes {sorted(found)}, expected {sorted(wanted)}")
    for path, (kind, value) in wanted.items():
        if evaluated(kind, found[path]) != expected(kind, value):
            sys.exit(f"{source}\n{path!r} is {found[path]!r}, expected {kind}:{value}")


with open(sys.argv[1], encoding="ascii") as file:
    lines = file.read().splitlines()
for line in lines:
    compare(line)
print(len(lines))
