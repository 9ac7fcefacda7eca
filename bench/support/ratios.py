"""Prints measurements named SUBJECT/ours and SUBJECT/PEER as a table of ratios.

The ratio of a pair is taken repetition by repetition, and its median is printed: the machine's speed drifts less
within a repetition than between them. A number after the name (SUBJECT/ours/1000) belongs to the subject.
"""

import collections
import json
import statistics
import sys


def split(name):
    """SUBJECT/ours/1000/real_time -> (SUBJECT 1,000, ours)"""
    words = [w for w in name.split("/") if w not in ("real_time", "process_time", "manual_time")
             and not w.startswith(("repeats:", "iterations:", "min_time:", "threads:"))]
    arguments = []
    while words and words[-1].isdigit():
        arguments.insert(0, f"{int(words.pop()):,}")
    contender = words.pop()
    if words and words[-1].isdigit():
        words[-1] = f"{int(words[-1]):,}"
    return " ".join(words + arguments), contender


def read(paths):
    times = collections.OrderedDict()
    for path in paths:
        with open(path, encoding="utf-8") as file:
            report = json.load(file)
        for run in report["benchmarks"]:
            if run.get("error_occurred"):
                print(f"{run['name']}: {run.get('error_message')}", file=sys.stderr)
            elif run.get("run_type") != "aggregate":
                scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
                key = split(run.get("run_name", run["name"]))
                times.setdefault(key, {})[run.get("repetition_index", 0)] = run["real_time"] * scale
    return times


def human(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def main(paths):
    times = read(paths)
    print("| what | ours | beside | theirs | ratio ours : theirs |")
    print("|---|---|---|---|---|")
    for (subject, contender), ours in times.items():
        if contender != "ours":
            continue
        peers = [(c, t) for (s, c), t in times.items() if s == subject and c != "ours"]
        mine = human(statistics.median(ours.values()))
        if not peers:
            print(f"| {subject} | {mine} | | | |")
        for peer, theirs in peers:
            ratio = statistics.median(ours[i] / theirs[i] for i in ours if i in theirs)
            print(f"| {subject} | {mine} | {peer} | {human(statistics.median(theirs.values()))} | {ratio:.2f} |")


if __name__ == "__main__":
    main(sys.argv[1:])
