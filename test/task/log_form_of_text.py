# Evaluates text forms of task statistics as Python expressions: a line of standard input each, in hexadecimal.
# Prints what it has read as log forms, in hexadecimal, for comparison with those of the writer.
import struct
import sys

PRIORITIES = ["absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"]
FLAGS = ["taskTimer", "taskTimerRunning", "taskOnRunQueue", "taskCurrentlyRunning", "taskSuspendedForTest"]


class Value:
    def __init__(self, type_name, **attributes):
        self.attributes = attributes


# A number without a name is shown with a sign.
def priority(text):
    if text in PRIORITIES:
        return PRIORITIES.index(text)
    return int(text.removeprefix("TaskPriority::PriorityEnum(").removesuffix(")")) & 0xFFFFFFFF


def status(value):
    *flags, number = value.attributes.items()
    assert flags == [(name, number[1] >> bit & 1 == 1) for bit, name in enumerate(FLAGS)], flags
    return number[1]


for line in sys.stdin:
    value = eval(bytes.fromhex(line).decode("ascii"), {"__builtins__": {}, "Value": Value, "float": float})
    name, key, of_task, *numbers, flags = value.attributes.values()
    data = name.encode("latin-1")
    rest = struct.pack(">QIIdQIIdddII", key, priority(of_task), *numbers, status(flags))
    print((struct.pack(">I", len(data)) + data + rest).hex())
