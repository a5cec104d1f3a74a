#!/usr/bin/env python3
"""Makes one small change after another in a copy of the tool's sources, and sees whether a test
fails.

    mutate.py [OPTION...] [FILE...]

FILE names sources to change (default: all of tier/). The changes are drawn by the seed, from each
file as many as its size asks for. A change that does not compile, or leaves the object code as it
was, does not count. Survivors that explained.txt names are as right as the code before, or cannot
be told from it, for the reason that stands there. The exit status is 0 when at least 97 % of the
changes that count are caught or explained.
"""

import argparse
import collections
import dataclasses
import json
import os
import random
import shutil
import signal
import sys
import tempfile

import mutants
import trial

HERE = os.path.dirname(os.path.abspath(__file__))
CHECKOUT = os.path.dirname(os.path.dirname(HERE))
GOAL = 0.97
COMPANION_SHARE = 0.25  # of what a file of its size would get


def sources():
    for where, _, names in os.walk(os.path.join(CHECKOUT, "tier")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                yield os.path.relpath(os.path.join(where, name), CHECKOUT)


def weight(path, text):
    return len(mutants.tokens_of(text)) * (COMPANION_SHARE if "/zu_tierctl/" in path else 1)


def draw(paths, count, seed):
    """`count` mutants: by file as the weights say, within a file evenly over the kinds."""
    rng = random.Random(seed)
    kinds, weights = {}, {}
    for path in sorted(paths):
        with open(os.path.join(CHECKOUT, path), encoding="utf-8") as file:
            text = file.read()
        found = mutants.mutants_of(path, text, rng)
        for group in found.values():
            rng.shuffle(group)
        if found:
            kinds[path], weights[path] = found, weight(path, text)
    drawn = []
    start = rng.random()
    total = sum(weights.values())
    reached = 0.0
    for path in kinds:
        before, reached = reached, reached + weights[path] / total * count
        for _ in range(int(reached + start) - int(before + start)):
            groups = [group for group in kinds[path].values() if group]
            if groups:
                drawn.append(rng.choice(groups).pop())
    rng.shuffle(drawn)
    return drawn


def survivors_of(path):
    with open(path, encoding="utf-8") as file:
        entries = json.load(file)["mutants"]
    return [mutants.Mutant(entry["path"], entry["line"], entry["kind"], tuple(entry["before"]),
                           tuple(entry["after"]))
            for entry in entries if entry["outcome"] == "survived"]


def explanations():
    """Reasons by the key of the mutant. An entry of the file is a source, the lines before ("-")
    and after the change ("+"), and the reason; an empty line ends it."""
    reasons = {}
    with open(os.path.join(HERE, "explained.txt"), encoding="utf-8") as file:
        entries = file.read().split("\n\n")
    for entry in entries:
        lines = [line for line in entry.split("\n") if line and not line.startswith("#")]
        if not lines:
            continue
        before = [line[1:] for line in lines if line.startswith("-")]
        after = [line[1:] for line in lines if line.startswith("+")]
        reason = mutants.flat(line for line in lines[1:] if line[0] not in "-+")
        if not reason:
            raise ValueError(f"explained.txt gives no reason: {entry}")
        reasons[lines[0], mutants.flat(before), mutants.flat(after)] = reason
    return reasons


def show(mutant, outcome):
    print(f"{outcome.name}: {mutant.path}:{mutant.line} ({mutant.kind})")
    for mark, lines in (("-", mutant.before), ("+", mutant.after)):
        for line in lines:
            print(f"  {mark}{line}")
    if outcome.name == "explained":
        print(f"   {outcome.cause}")


def run(copy, chosen, report):
    reasons = explanations()
    results = []
    for number, mutant in enumerate(chosen, 1):
        outcome = copy.try_mutant(mutant)
        if outcome.name == "survived" and mutant.key() in reasons:
            outcome.name, outcome.cause = "explained", reasons[mutant.key()]
        results.append((mutant, outcome))
        if outcome.name in ("survived", "explained"):
            show(mutant, outcome)
        if number % 10 == 0:
            counts = collections.Counter(outcome.name for _, outcome in results)
            print(f"{number} of {len(chosen)}:",
                  ", ".join(f"{count} {name}" for name, count in sorted(counts.items())))
        sys.stdout.flush()
        if report:
            write_report(report, results)
    return results


def write_report(path, results):
    entries = [{**dataclasses.asdict(mutant), "outcome": outcome.name, "cause": outcome.cause,
                "seconds": outcome.seconds} for mutant, outcome in results]
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump({"mutants": entries}, file, indent=1)
    os.replace(path + ".new", path)


def summarise(results):
    """Prints the totals; returns whether they are good enough."""
    columns = ["tried", "refused", "same", "gone", "caught", "explained", "survived"]
    totals = collections.defaultdict(collections.Counter)
    for mutant, outcome in results:
        for kind in (mutant.kind, "all"):
            totals[kind]["tried"] += 1
            totals[kind][outcome.name] += 1
    print(f"\n{'kind':12}", *(f"{column:>10}" for column in columns))
    for kind in sorted(totals, key=lambda kind: (kind == "all", kind)):
        print(f"{kind:12}", *(f"{totals[kind][column]:10}" for column in columns))
    count = totals["all"]
    counted = count["caught"] + count["explained"] + count["survived"]
    if counted == 0:
        print("no change counts")
        return False
    share = (count["caught"] + count["explained"]) / counted
    print(f"{counted} count; {share:.1%} of them are caught or explained (goal {GOAL:.0%})")
    return share >= GOAL


def main():
    parser = argparse.ArgumentParser(description="Which small change of the sources fails no test?")
    parser.add_argument("files", nargs="*", metavar="FILE", help="sources (default: all of tier/)")
    parser.add_argument("--count", type=int, default=100, help="how many changes are tried")
    parser.add_argument("--seed", type=int, default=1, help="another seed draws others")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--work", help="a directory for the copy, kept for the next time")
    parser.add_argument("--known-good", action="store_true",
                        help="spare the tests of the unchanged tree")
    parser.add_argument("--json", metavar="REPORT", help="write the outcome of each change")
    parser.add_argument("--only", metavar="REPORT", help="try what survived according to REPORT")
    options = parser.parse_args()
    paths = [os.path.relpath(os.path.abspath(path), CHECKOUT) for path in options.files]
    chosen = survivors_of(options.only) if options.only else \
        draw(paths or list(sources()), options.count, options.seed)

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    work = options.work or tempfile.mkdtemp(prefix="zu_tier_mutation.")
    try:
        copy = trial.Copy(CHECKOUT, os.path.abspath(work), max(options.jobs, 1))
        copy.prepare(options.known_good)
        results = run(copy, chosen, options.json)
    finally:
        if not options.work:
            shutil.rmtree(work)
    return 0 if summarise(results) else 1


if __name__ == "__main__":
    sys.exit(main())
