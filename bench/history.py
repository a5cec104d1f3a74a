#!/usr/bin/env python3
"""Adds the rows of a benchmark to its history, and prints which have moved.

    history.py ROWS HISTORY COMMIT

ROWS is what walks.py writes with --json. HISTORY has a JSON object a line: commit, machine, and rows,
a row's numbers by its name. A row has moved when it is farther from the median of its earlier runs on
the same machine than the best and the worst of these are from each other: that is its noise. The last
ten runs count, and below five nothing is said.
"""

import json
import os
import platform
import statistics
import sys

RUNS_AT_LEAST = 5
RUNS_AT_MOST = 10


def machine():
    """What it takes to be compared: model and number of the processors."""
    with open("/proc/cpuinfo") as info:
        models = [line.split(":", 1)[1].strip() for line in info if line.startswith("model name")]
    return f"{models[0] if models else platform.machine()}, {os.cpu_count()} processors"


def read_lines(path):
    if not os.path.exists(path):
        return []
    with open(path) as history:
        return [json.loads(line) for line in history]


def verdict(row, earlier):
    """A line about a row that has moved, else None."""
    middle, noise = statistics.median(earlier), max(earlier) - min(earlier)
    now = row["ratio"]
    if abs(now - middle) <= noise:
        return None
    smaller_is_better = row["goal"].startswith("<")
    word = "better" if (now < middle) == smaller_is_better else "worse"
    return f"{row['walk']:58} {middle:8.2f} -> {now:8.2f}  {word} (noise {noise:.2f}, {len(earlier)} runs)"


def main():
    rows_path, history_path, commit = sys.argv[1:]
    with open(rows_path) as source:
        rows = json.load(source)
    here = machine()
    past = [line["rows"] for line in read_lines(history_path) if line["machine"] == here]
    print(f"\nAgainst earlier runs on this machine ({here}):")
    moved = compared = 0
    for row in rows:
        earlier = [run[row["walk"]]["ratio"] for run in past if row["walk"] in run][-RUNS_AT_MOST:]
        if len(earlier) < RUNS_AT_LEAST:
            continue
        compared += 1
        if line := verdict(row, earlier):
            moved += 1
            print(line)
    print(f"{moved} of {compared} rows have moved; "
          f"{len(rows) - compared} have fewer than {RUNS_AT_LEAST} earlier runs")
    numbers = {row["walk"]: {key: value for key, value in row.items() if key not in ("walk", "goal", "met")}
               for row in rows}
    with open(history_path, "a") as history:
        history.write(json.dumps({"commit": commit, "machine": here, "rows": numbers}) + "\n")


if __name__ == "__main__":
    main()
