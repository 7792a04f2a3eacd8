# Reads lines, each with what a tree says of itself, the trace of it, and metrics by the number of names told apart.
# Models make both outputs of what the tree says; what differs is printed.

import codecs
import json
import math
import re
import sys
from itertools import zip_longest

SCHEDULE, UNSCHEDULE, START, END = range(4)
INSTANTS = {
    4: "timer started", 5: "timer stopped", 6: "suspended", 7: "resumed", 8: "scheduled while suspended",
    9: "forced to yield", 10: "no longer forced to yield", 15: "scheduler suspended", 16: "scheduler resumed",
    17: "run ignored while suspended",
}  # fmt: skip
PRIORITIES = ["absolute", "high", "normal", "low", "scavenge"]
codecs.register_error("each", lambda error: ("\ufffd", error.start + 1))


def shown(name):
    return name.encode("latin-1").decode("utf-8", "each")


def us(ns):
    return f"{'-' if ns < 0 else ''}{abs(ns) // 1000}.{abs(ns) % 1000:03}"


def trace_of(root, now, events, tasks, schedulers):
    begin = events[0][1] if events else now
    lane_of = [(scheduler != root, scheduler.encode("latin-1"), priority) for _, scheduler, priority, _, _ in tasks]
    lanes = sorted(set(lane_of))
    tid = {lane: n for n, lane in enumerate(lanes, 1)}
    title = {lane: f"{shown(lane[1].decode('latin-1'))} {PRIORITIES[lane[2]]}" for lane in lanes}
    events_of = [[] for _ in tasks]
    for at, (kind, stamp, task) in enumerate(events):
        if task >= 0:
            events_of[task].append((at, kind, stamp))

    def event(phase, name, **members):
        return {"ph": phase, "pid": 1, "name": name, **members}

    def instant(task, at, name):
        args = {"task": shown(tasks[task][0])}
        return event("i", name, s="t", tid=tid[lane_of[task]], ts=us(at - begin), cat="task", args=args)

    def slices_of(task, start, end, latency, cut):
        name, _, _, quantum, alive = tasks[task]
        length = max(end - start, 0)  # a clock may have gone back
        args = {} if latency is None else {"latency_us": us(latency)}
        if cut:
            args["cut"] = cut
        elif quantum:
            args["quantum_percent"] = 100 * length / quantum
        if not cut and not alive:
            args["about"] = True
        dur = us(length)
        yield event("X", shown(name), tid=tid[lane_of[task]], ts=us(start - begin), dur=dur, cat="run", args=args)
        limit = 0 if cut else 500 if length >= 5 * quantum else 200 if length >= 2 * quantum else 0
        if limit:
            yield instant(task, end, f"{'' if alive else 'about '}{limit}% violation")

    def runs():
        begun_before, end_of = [], {}
        for of_task in events_of:
            open_runs = []
            for at, kind, _ in of_task:
                if kind == START:
                    open_runs.append(at)
                elif kind == END and open_runs:
                    end_of[open_runs.pop()] = at
                elif kind == END:
                    begun_before.append(at)
        for at in sorted(begun_before, reverse=True):
            yield from slices_of(events[at][2], begin, events[at][1], None, "beginning")
        for at, (kind, start, task) in enumerate(events):
            if kind != START:
                continue
            earlier = [(k, stamp) for e, k, stamp in events_of[task] if e < at and k <= START]
            latency = start - earlier[-1][1] if earlier and earlier[-1][0] == SCHEDULE else None
            if at in end_of:
                yield from slices_of(task, start, events[end_of[at]][1], latency, "")
            else:
                around = min((end for begun, end in end_of.items() if begun < at < end), default=None)
                yield from slices_of(task, start, now if around is None else events[around][1], latency, "end")

    def lengths(lane):
        length, waiting, seen, changes = 0, [], set(), []
        for kind, stamp, task in events:
            if task < 0 or lane_of[task] != lane or kind > START:
                continue
            if kind == SCHEDULE:
                waiting.append(task)
                changes.append((stamp, 1))
            elif task in waiting:
                while kind == START and waiting[0] != task and not tasks[waiting[0]][4]:
                    changes.append((stamp, -1))
                    del waiting[0]
                waiting.remove(task)
                changes.append((stamp, -1))
            elif task not in seen:
                length += 1
                changes.append((stamp, -1))
            seen.add(task)
        living = [counts[lane[2]][0] for name, _, counts, *_ in schedulers if name.encode("latin-1") == lane[1]]
        there = sum(living) if living else sum(tasks[task][4] for task in waiting)
        length += max(there - len(waiting), 0)
        if there < len(waiting):
            changes.append((now, there - len(waiting)))
        for at, change in [(begin, 0), *changes]:
            length += change
            yield event("C", "run queue of " + title[lane], tid=tid[lane], ts=us(at - begin), args={"tasks": length})

    yield event("M", "process_name", args={"name": shown(root)})
    for lane in lanes:
        yield event("M", "thread_name", tid=tid[lane], args={"name": title[lane]})
        yield event("M", "thread_sort_index", tid=tid[lane], args={"sort_index": tid[lane]})
    yield from runs()
    for kind, stamp, task in events:
        if kind in INSTANTS and task < 0:
            yield event("i", INSTANTS[kind], s="p", tid=1, ts=us(stamp - begin), cat="scheduler")
        elif kind in INSTANTS:
            yield instant(task, stamp, INSTANTS[kind])
    for lane in lanes:
        yield from lengths(lane)


def check_trace(facts, text):
    trace = json.loads(text.encode("latin-1").decode("utf-8"), parse_float=str)
    assert trace.keys() == {"traceEvents", "displayTimeUnit"} and trace["displayTimeUnit"] == "ns"
    for got, want in zip_longest(trace["traceEvents"], trace_of(*facts)):
        percent = want["args"].get("quantum_percent") if want and "args" in want else None
        if got and percent is not None and re.fullmatch(r"\d+\.\d", text := got["args"].get("quantum_percent", "")):
            if abs(float(text) - percent) <= 0.05 + 1e-9 * percent:
                got["args"]["quantum_percent"] = percent
        if got != want:
            return print(f"trace: {got}, expected {want}")


def label(text):
    return '"' + shown(text).replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n") + '"'


MERGED = [lambda pair: sum(pair) % 2**32, sum] + 2 * [lambda pair: sum(pair) % 2**32] + 4 * [max]


SERIES = [
    "task_runs_total{%s}", "task_run_seconds_total{%s}", 'task_quantum_violations_total{%s,limit="200"}',
    'task_quantum_violations_total{%s,limit="500"}', "task_max_latency_seconds{%s}",
]  # fmt: skip


def metrics_of(schedulers, names_max):
    samples, series = {}, {}

    def add(into, key, values, rules):
        into[key] = [rule(pair) for rule, *pair in zip(rules, into.get(key, [0] * len(values)), values)]

    for name, slip, counts, living, dead in schedulers:
        scheduler = f"scheduler={label(name)}"
        add(samples, f"scheduler_max_slip_seconds{{{scheduler}}}", [slip], [max])
        for priority, (runnable, registered, died) in zip(PRIORITIES, counts):
            of_queue = {"runnable_tasks": runnable, "idle_tasks": registered - runnable, "dead_tasks_total": died}
            for family, value in of_queue.items():
                add(samples, f'{family}{{{scheduler},priority="{priority}"}}', [value], [sum])
        for alive, stat in [(1, stat) for stat in living] + [(0, stat) for stat in dead]:
            if stat["taskPriority"] in PRIORITIES:
                latency = stat["taskLastSchedulingLatency"]
                values = [stat["taskRun"], stat["taskTotalRunTime"], stat["taskQuantumViolation200"],
                          stat["taskQuantumViolation500"], stat["taskSchedulingLatencyHighWaterMark"],
                          latency if alive else 0, 0 if alive else latency, alive]  # fmt: skip
                key = label(name).encode(), PRIORITIES.index(stat["taskPriority"]), label(stat["taskName"]).encode()
                add(series, key, values, MERGED)
    ranking = sorted(sorted(series), key=lambda key: -math.inf if math.isnan(series[key][1]) else series[key][1], reverse=True)
    others = {}
    for key in ranking[names_max:]:
        add(others, (*key[:2], b'"other"'), series.pop(key), MERGED)
    for key, values in others.items():
        add(series, key, values, MERGED)
    for (scheduler, priority, task), values in series.items():
        labels = f'scheduler={scheduler.decode()},priority="{PRIORITIES[priority]}",task={task.decode()}'
        for sample, value in zip(SERIES, values):
            samples[sample % labels] = [value]
        samples["task_last_latency_seconds{%s}" % labels] = [values[5] if values[7] else values[6]]
    return samples


def samples_of(text):
    text = text.encode("latin-1").decode("utf-8")
    family = r"# HELP keltask_([a-z_]+) [^\\\n]+\n# TYPE keltask_\1 (counter|gauge)\n((?:keltask_\1\{[^\n]*\n)*)"
    assert re.sub(family, "", text) == "", text
    samples = {}
    for name, kind, lines in re.findall(family, text):
        assert (kind == "counter") == name.endswith("_total"), name
        for labels, value in re.findall(r"(\{.*\}) (NaN|[+-]Inf|-?\d+(?:\.\d+)?(?:e[+-]\d+)?)\n", lines):
            assert name + labels not in samples, labels
            samples[name + labels] = float(value)
    return samples


def check_metrics(schedulers, names_max, text):
    got, want = samples_of(text), metrics_of(schedulers, names_max)
    for key in got.keys() | want.keys():
        have, due = got.get(key), want.get(key, [None])[0]
        same = have == due or None not in (have, due) and (have != have and due != due or math.isclose(have, due))
        if not same:
            return print(f"{names_max} names: {key} {have}, expected {due}")


for line in sys.stdin:
    (*facts, schedulers), trace, metrics = eval(line, {"Value": lambda _, **fields: fields})
    schedulers = [scheduler for scheduler in schedulers if scheduler]
    check_trace((*facts, schedulers), trace)
    for names_max, text in metrics.items():
        check_metrics(schedulers, names_max, text)
