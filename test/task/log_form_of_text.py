"""Evaluates text forms as Python expressions and writes each value's log form, for comparison with the C++ one.

Reads lines: a type's name and a text of it in hexadecimal, separated by a blank. Prints the log form of each
value in hexadecimal, a line each.
"""
import struct
import sys

PRIORITIES = ["absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"]
FLAGS = ["taskTimer", "taskTimerRunning", "taskOnRunQueue", "taskCurrentlyRunning", "taskSuspendedForTest"]
FIELDS = {
    "Kel::TaskStat": "taskName:string taskKey:Q taskPriority:priority taskRun:I taskTotalRunTime:d taskWorkCount:Q "
                     "taskQuantumViolation500:I taskQuantumViolation200:I taskRunTimeHighWaterMark:d "
                     "taskLastSchedulingLatency:d taskSchedulingLatencyHighWaterMark:d taskDeadCount:I "
                     "taskStatus:Kel::TaskStat::TaskStatus",
    "Kel::TaskSchedulerPriorityStats": "taskPriority:priority runnableTasks:I idleTasks:I deadTasks:I totalRunCount:Q",
}


class Value:
    def __init__(self, type_name, **attributes):
        self.type_name = type_name
        self.attributes = attributes


def priority(text):
    if text in PRIORITIES:
        return PRIORITIES.index(text)
    prefix = "TaskPriority::PriorityEnum("
    assert text.startswith(prefix) and text.endswith(")"), text
    return int(text[len(prefix):-1]) & 0xFFFFFFFF  # which the text shows with a sign


def status(attributes):
    value = attributes.pop("value")
    assert list(attributes) == FLAGS, attributes
    assert value == sum(1 << bit for bit, name in enumerate(FLAGS) if attributes[name] is True), attributes
    return struct.pack(">I", value)


def log_form(kind, value):
    if kind == "string":
        data = value.encode("latin-1")
        return struct.pack(">I", len(data)) + data
    if kind == "priority":
        return struct.pack(">I", priority(value))
    if not isinstance(value, Value):
        return struct.pack(">" + kind, value)
    assert value.type_name == kind, value.type_name
    if kind not in FIELDS:
        return status(value.attributes)
    fields = [field.split(":", 1) for field in FIELDS[kind].split()]
    assert list(value.attributes) == [name for name, _ in fields], value.attributes
    return b"".join(log_form(type_name, value.attributes[name]) for name, type_name in fields)


for line in sys.stdin.read().splitlines():
    type_name, text = line.split()
    source = bytes.fromhex(text).decode("ascii")
    result = eval(source, {"__builtins__": {}, "Value": Value, "float": float})
    print(log_form(type_name, result).hex())
