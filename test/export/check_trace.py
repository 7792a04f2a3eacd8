"""Reads a trace, checks it as a viewer would, and prints what it shows, an event a line."""

import json
import re
import sys

US = re.compile(r"-?\d+\.\d{3}")


class Number(str):
    pass


trace = json.loads(sys.stdin.buffer.read().decode("utf-8"), parse_float=Number)
lanes, shown = {}, []


def text(value):
    return json.dumps(value, ensure_ascii=True)


for event in trace["traceEvents"]:
    phase, name = event["ph"], event["name"]
    assert event["pid"] == 1, event
    if phase == "M":
        if name == "process_name":
            shown.append(f"process {text(event['args']['name'])}")
        elif name == "thread_name":
            assert event["tid"] == len(lanes) + 1, event
            lanes[event["tid"]] = event["args"]["name"]
        else:
            assert name == "thread_sort_index" and event["args"]["sort_index"] == event["tid"], event
        continue
    assert isinstance(event["ts"], Number) and US.fullmatch(event["ts"]), event
    lane = lanes[event["tid"]] if event.get("s") != "p" else "all"
    where = f"{event['ts']} {text(lane)[1:-1]}"
    arguments = " ".join(f"{key}={value}" for key, value in event.get("args", {}).items() if key != "task")
    if phase == "X":
        assert US.fullmatch(event["dur"]) and float(event["dur"]) >= 0, event
        shown.append(f"{where}: {text(name)} for {event['dur']} {arguments}".rstrip())
    elif phase == "i":
        task = f" {text(event['args']['task'])}" if "args" in event else ""
        shown.append(f"{where}: {name}{task}")
    else:
        assert phase == "C" and event["args"]["tasks"] >= 0 and name == "run queue of " + lane, event
        shown.append(f"{where}: {event['args']['tasks']} queued")

print("\n".join(shown))
