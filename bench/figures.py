#!/usr/bin/env python3
"""Puts the figures of build/bench.json into docs/performance.md, with the machine they were taken on."""
import json
import os
import pathlib
import platform
import re
import subprocess

ROOT = pathlib.Path(__file__).parent.parent
DOCUMENT = ROOT / "docs/performance.md"
START, END = "<!-- bench/figures.py writes from here -->", "<!-- to here -->"


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text()).group(1)
    compiler = subprocess.run(["g++", "-dumpfullversion"], check=True, capture_output=True, text=True).stdout.strip()
    return f"Taken on {model}, {os.cpu_count()} cores, Linux {platform.release()}, g++ {compiler} -O2."


def number(value):
    return "" if value is None else f"{value:.0f}" if abs(value) >= 10_000 else f"{value:.2f}"


def peers(row):
    known = sorted((ratio, peer) for peer, ratio in row["peers"].items() if ratio is not None)
    return "; ".join(f"{peer} {ratio:.2f}" for ratio, peer in known)


def table(rows):
    yield "| | n | ours | floor | ratio | goal | |"
    yield "|---|---|---|---|---|---|---|"
    for row in rows:
        goal = f"{row['goal_of']} {number(row['goal'])}" if row["goal"] is not None else ""
        verdict = {True: "holds", False: "missed", None: ""}[row["holds"]]
        yield (f"| {row['name']} | {row['n']} | {number(row['ours'])} | {number(row['floor'])} | "
               f"{number(row['ratio'])} | {goal} | {verdict} |")


def peer_table(rows):
    yield "| | n | ours / floor | peers / floor |"
    yield "|---|---|---|---|"
    for row in rows:
        if row["peers"]:
            yield f"| {row['name']} | {row['n']} | {number(row['ratio'])} | {peers(row)} |"


def main():
    rows = json.loads((ROOT / "build/bench.json").read_text())
    goals = [row for row in rows if row["goal"] is not None]
    others = [row for row in rows if row["goal"] is None]
    lines = [START, "", machine(), "", *table(goals), "", "Peers:", "", *peer_table(rows), "",
             "Beside the goals:", "", *table(others), "", END]
    text = DOCUMENT.read_text()
    before, after = text[:text.index(START)], text[text.index(END) + len(END):]
    DOCUMENT.write_text(before + "\n".join(lines) + after)


if __name__ == "__main__":
    main()
