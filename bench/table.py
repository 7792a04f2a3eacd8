#!/usr/bin/env python3
"""Makes the table of what the benchmarks measured, with the verdicts on the goals of goals.json.

    table.py [--quick] [--json FILE] < rows

The rows come as JSON objects, one a line: {"name", "n", "ours", "floor", "spread", "peers": {name: figure}}. Of rows
of the same name and n the last counts: it has the peers beside it. {"failed": program} reports a benchmark that did
not run. Ends with 1 if there is one, or if a goal's row is missing; a goal that is missed is a result as any other.
"""
import argparse
import json
import pathlib
import sys

GOALS = json.loads((pathlib.Path(__file__).parent / "goals.json").read_text())


def ratio(figure, floor):
    return figure / floor if figure is not None and floor else None


def limits(goal):
    """What the goal limits, and how: ("ratio", "at most"). What is "above" is ours without the floor."""
    return next((field, goal[field]) for field in ("ratio", "ours", "above") if field in goal)


class Row:
    """A row as measured, judged by its goal, if it has one."""

    def __init__(self, measured, goal=None):
        self.name, self.n = measured["name"], measured["n"]
        self.ours, self.floor = measured["ours"], measured.get("floor")
        self.ratio = ratio(self.ours, self.floor)
        self.above = self.ours - self.floor if self.floor is not None else None
        self.peers = {peer: ratio(figure, self.floor) for peer, figure in measured.get("peers", {}).items()}
        self.spread = measured.get("spread")
        self.limited, self.goal, self.holds, self.verdict = None, None, None, ""
        if goal:
            self.judge(goal)

    def judge(self, goal):
        self.limited, how = limits(goal)
        value = getattr(self, self.limited)
        if how == "below every peer":
            self.goal = min((peer for peer in self.peers.values() if peer is not None), default=None)
        else:
            self.goal = goal["goal"]
        if value is None or self.goal is None:
            self.verdict = "not measured"
            return
        self.holds = {"at most": value <= self.goal, "at least": value >= self.goal,
                      "below every peer": value < self.goal}[how]
        self.verdict = "holds" if self.holds else self.missed_by(value)

    def missed_by(self, value):
        if self.goal == 0:
            return f"missed by {value:g}"
        return f"missed by {100 * abs(value / self.goal - 1):.0f} %"

    def record(self):
        return {"name": self.name, "n": self.n, "ours": self.ours, "floor": self.floor, "ratio": self.ratio,
                "goal": self.goal, "goal_of": self.limited, "holds": self.holds, "peers": self.peers}


def number(value, digits=2):
    if value is None:
        return ""
    return f"{value:.0f}" if abs(value) >= 10_000 else f"{value:.{digits}f}"


def print_rows(title, rows, width):
    if not rows:
        return
    print(f"\n{title:{width}} {'n':>8} {'ours':>9} {'floor':>9} {'ratio':>7} {'spread':>7} {'goal':>11}  verdict")
    for row in rows:
        goal = f"{row.limited} {number(row.goal)}" if row.goal is not None else ""
        print(f"{row.name:{width}} {row.n:>8} {number(row.ours):>9} {number(row.floor):>9} {number(row.ratio):>7} "
              f"{number(row.spread):>7} {goal:>11}  {row.verdict}".rstrip())
        for peer, figure in sorted(row.peers.items(), key=lambda item: item[1] or 0):
            print(f"  {peer:{width + 27}} {number(figure):>7}")


def read(lines):
    measured, failed, left_out = {}, [], {}
    for line in lines:
        try:
            row = json.loads(line)
        except ValueError:
            failed.append("a line that is no JSON: " + line.rstrip())
            continue
        if "failed" in row:
            failed.append(row["failed"])
        elif "left out" in row:
            left_out[row["left out"]] = row["why"]
        else:
            measured[row["name"], row["n"]] = row
    return measured, failed, left_out


def main():
    parser = argparse.ArgumentParser(description="makes a table of benchmark rows")
    parser.add_argument("--quick", action="store_true", help="expect the library's own rows alone")
    parser.add_argument("--json", metavar="FILE", help="also write the rows there")
    options = parser.parse_args()

    measured, failed, left_out = read(sys.stdin)
    goals = {(goal["name"], n): goal for goal in GOALS if not (options.quick and goal.get("full")) for n in goal["n"]
             if not any(words in goal["name"] for words in left_out)}
    judged = [Row(measured[key], goal) for key, goal in goals.items() if key in measured]
    others = [Row(row) for key, row in measured.items() if key not in goals]

    width = max([len(row.name) for row in judged + others], default=4)
    print_rows("Goals", judged, width)
    print_rows("Beside them", others, width)
    print("\nRatios are ours to the floor, and, under a row, a peer's to the same floor.")
    if options.json:
        pathlib.Path(options.json).write_text(
            "[\n  " + ",\n  ".join(json.dumps(row.record()) for row in judged + others) + "\n]\n")

    missing = [f"{name} ({n})" for name, n in goals if (name, n) not in measured]
    missed = sum(row.holds is False for row in judged)
    print(f"{sum(row.holds is True for row in judged)} goals hold, {missed} are missed.")
    for words, why in left_out.items():
        print(f"LEFT OUT, all of {words}: {why}")
    for problem in failed:
        print("FAILED:", problem)
    for problem in missing:
        print("NOT MEASURED:", problem)
    return 1 if failed or missing or any(row.holds is None for row in judged) else 0


if __name__ == "__main__":
    sys.exit(main())
