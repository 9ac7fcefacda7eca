"""Prints measurements named SUBJECT/ours and SUBJECT/PEER as a table of ratios.

Each file is one repetition of a program. The ratio of a pair is taken repetition by repetition, and its median is
printed: the machine's speed drifts less within a repetition than between them. Where the processor time of all threads
was measured too, its ratio follows. A number after the name (SUBJECT/ours/1000) belongs to the subject. A measurement
with a counter "bytes" is one of memory: the counter stands for the time.
"""

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


class Measurement:
    def __init__(self):
        self.real = []
        self.processor = []
        self.peak = None
        self.is_bytes = False


def read(paths):
    measurements = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            report = json.load(file)
        for run in report["benchmarks"]:
            if run.get("error_occurred"):
                print(f"{run['name']}: {run.get('error_message')}", file=sys.stderr)
                continue
            scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
            measurement = measurements.setdefault(split(run["name"]), Measurement())
            measurement.is_bytes = "bytes" in run
            measurement.real.append(run["bytes"] if measurement.is_bytes else run["real_time"] * scale)
            if "/process_time" in run["name"]:
                measurement.processor.append(run["cpu_time"] * scale)
            measurement.peak = run.get("peak_MiB", measurement.peak)
    return measurements


def human(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def shown(measurement):
    value = statistics.median(measurement.real)
    return f"{value:.4g} B" if measurement.is_bytes else human(value)


def ratio(ours, theirs):
    value = statistics.median(a / b for a, b in zip(ours, theirs))
    return f"{value:,.0f}" if value >= 10 else f"{value:.2g}"


def main(paths):
    measurements = read(paths)
    print("| what | ours | beside | theirs | ratio ours : theirs |")
    print("|---|---|---|---|---|")
    for (subject, contender), ours in measurements.items():
        if contender != "ours":
            continue
        peers = [(c, m) for (s, c), m in measurements.items() if s == subject and c != "ours"]
        mine = shown(ours)
        if not peers:
            peak = f"peak {ours.peak:.0f} MiB" if ours.peak else ""
            print(f"| {subject} | {mine} | | | {peak} |")
        for peer, theirs in peers:
            ratios = ratio(ours.real, theirs.real)
            if ours.processor and theirs.processor:
                ratios += f" (processor time {ratio(ours.processor, theirs.processor)})"
            print(f"| {subject} | {mine} | {peer} | {shown(theirs)} | {ratios} |")


if __name__ == "__main__":
    main(sys.argv[1:])
