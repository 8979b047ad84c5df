#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the report of scripts/bench-store.

  report.py FOLDER    reads the results of the four programs, <program>.json, in FOLDER

Figures are medians of the repetitions. Exits with 1 if a benchmark reported an error of its own or
there are no results.
"""

import json
import os
import statistics
import sys

PROGRAMS = ("StoreBench", "SharedBench", "FollowBench", "WakeBench")
SIZES = (100, 65536, 1000000)

# Contestants as they are called in the names of benchmarks and in the table.
STORE = "store"
FLAT = "flat_by_key"
CONTESTANTS = (
    (FLAT, "flat array by key"), (STORE, "store"), ("flat_by_place", "flat array by place"),
    ("sequence_copy", "copy under a counter"), ("chase", "pointer chase"),
    ("map", "`std::unordered_map`"), ("urcu", "liburcu"), ("dpdk", "DPDK"),
    ("boost", "Boost.Interprocess"), ("tkrzw", "TinyDBM"), ("lmdb", "LMDB"), ("redis", "Redis"))
OPERATIONS = (
    ("hit", "lookup, hit"), ("miss", "lookup, miss"), ("bulk", "lookup in bulk"),
    ("update", "update"), ("insert", "insert"), ("reinsert", "insert, warm"),
    ("remove", "remove"), ("iterate", "iterate"))


class Results:
    """The repetitions of each benchmark: results[program, name] is a list of JSON objects."""

    def __init__(self, folder):
        self.runs, self.errors = {}, []
        for program in PROGRAMS:
            path = os.path.join(folder, program + ".json")
            with open(path, encoding="utf-8") as file:
                for run in json.load(file)["benchmarks"]:
                    name = "/".join(part for part in run["run_name"].split("/")
                                    if part not in ("real_time", "manual_time")
                                    and not part.startswith(("iterations:", "repeats:")))
                    if run.get("error_occurred"):
                        self.errors.append(f"{program} {name}: {run['error_message']}")
                    elif run["run_type"] == "iteration":
                        self.runs.setdefault((program, name), []).append(run)

    def values(self, program, name, counter="ns"):
        return [run[counter] for run in self.runs.get((program, name), ()) if counter in run]

    def median(self, program, name, counter="ns"):
        values = self.values(program, name, counter)
        return statistics.median(values) if values else None

    def least(self, program, name, counter="ns"):
        return min(self.values(program, name, counter), default=None)

    def milliseconds(self, program, name):
        runs = self.runs.get((program, name))
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}
        return statistics.median(r["real_time"] * scale[r["time_unit"]] for r in runs) if runs else None

    def built(self, contestant):
        return any(name.split("/")[1] == contestant for _, name in self.runs)

    def repetitions(self):
        return max(len(runs) for runs in self.runs.values())


def number(value):
    if value is None:
        return ""
    if value >= 9999.5:
        return f"{value:,.0f}"
    return f"{value:.0f}" if value >= 99.95 else f"{value:.1f}"


def table(head, rows):
    print("| " + " | ".join(head) + " |")
    print("|" + "|".join("---" if i == 0 else "---:" for i in range(len(head))) + "|")
    for row in rows:
        print("| " + " | ".join(row) + " |")
    print()


def ratio(value, base):
    return "" if value is None or not base else f" ({value / base:.1f})"


def print_contestants(results):
    print("Nanoseconds a record in one process (of the processor; for Redis of the clock), and in "
          "brackets how many times the flat array by key; "
          f"medians of {results.repetitions()} repetitions, the store's least of them after `>=`.\n")
    rows = []
    for operation, title in OPERATIONS:
        for size in SIZES:
            base = results.median("StoreBench", f"{operation}/{FLAT}/{size}")
            row = [title, f"{size:,}"]
            for contestant, _ in CONTESTANTS:
                name = f"{operation}/{contestant}/{size}"
                value = results.median("StoreBench", name)
                if not results.built(contestant):
                    row.append("not built")
                elif contestant == FLAT:
                    row.append(number(value))
                elif contestant == STORE and value is not None:
                    least = results.least("StoreBench", name)
                    row.append(f"**{number(value)}**{ratio(value, base)} >= {number(least)}")
                else:
                    row.append(number(value) + ratio(value, base))
            if any(row[2:]):
                rows.append(row)
    for operation, title in (("hit", "bytes an entry"), ("update", "bytes, after updates")):
        for size in SIZES:
            row = [title, f"{size:,}"]
            for contestant, _ in CONTESTANTS:
                name = f"{operation}/{contestant}/{size}"
                row.append(number(results.median("StoreBench", name, "bytes")))
            if any(row[2:]):
                rows.append(row)
    table(["", "records"] + [title for _, title in CONTESTANTS], rows)


def print_shared(results):
    print("Between processes, the store alone; nanoseconds a record, of the processor of the one that "
          "is measured, in brackets how many times the "
          "flat array by key of the same run. Least after `>=`.\n")
    rows = []
    for program, operation, contestant, title in (
            ("SharedBench", "hit", "store_idle", "lookup, writer idle"),
            ("SharedBench", "hit", "store_busy", "lookup, writer busy"),
            ("FollowBench", "update", "store_0", "update, no shadow"),
            ("FollowBench", "update", "store_1", "update, 1 shadow follows"),
            ("FollowBench", "update", "store_8", "update, 8 shadows follow"),
            ("FollowBench", "insert", "store_0", "insert, no shadow"),
            ("FollowBench", "insert", "store_1", "insert, 1 shadow follows"),
            ("FollowBench", "insert", "store_8", "insert, 8 shadows follow"),
            ("FollowBench", "attach", "store", "writer attaches, validation included"),
            ("FollowBench", "shadow", "store", "a shadow's first copy"),
            ("FollowBench", "resync", "store", "resync, nothing changed")):
        row = [title]
        for size in SIZES:
            name = f"{operation}/{contestant}/{size}"
            value = results.median(program, name)
            base = results.median(program, f"{operation}/{FLAT}/{size}")
            least = results.least(program, name)
            row.append("" if value is None else
                       f"{number(value)}{ratio(value, base)} >= {number(least)}")
        rows.append(row)
    table([""] + [f"{size:,} records" for size in SIZES], rows)

    clock = [results.median("SharedBench", f"latency/store_idle/{size}", "clock") for size in SIZES]
    print("Single lookups, nanoseconds; the cost of reading the clock twice ("
          + ", ".join(number(value) for value in clock if value is not None) + ") is subtracted.\n")
    rows = []
    for contestant, title in (("store_idle", "writer idle"), ("store_busy", "writer busy")):
        for size in SIZES:
            name = f"latency/{contestant}/{size}"
            if results.median("SharedBench", name, "p50") is None:
                continue
            rows.append([title, f"{size:,}"] + [
                number(results.median("SharedBench", name, c)) for c in ("p50", "p99", "p999")
            ] + [f"{results.median('SharedBench', name, 'below400'):.3f} %"])
    table(["", "records", "p50", "p99", "p99.9", "below 400 ns"], rows)

    print("From a change to a process that sleeps, nanoseconds, in brackets how many times a Unix "
          "socket's.\n")
    rows = []
    for contestant, title in (("store", "write to notification"), ("socket", "Unix socket"),
                              ("eventfd", "eventfd"), ("futex", "futex")):
        row = [title]
        for counter in ("p50", "p99"):
            value = results.median("WakeBench", f"wake/{contestant}", counter)
            base = results.median("WakeBench", "wake/socket", counter)
            row.append(number(value) + ratio(value, base))
        rows.append(row)
    table(["", "p50", "p99"], rows)


def aims(results):
    """(text, measured or None, limit, unit) of each; measured must not exceed the limit."""

    def times_flat(program, operation, contestant, size):
        value = results.median(program, f"{operation}/{contestant}/{size}")
        base = results.median(program, f"{operation}/{FLAT}/{size}")
        return None if value is None or not base else value / base

    def in_flat(operation, title, limits):
        for size, limit in limits:
            yield (f"{title}, {size:,} records, times the flat array by key",
                   times_flat("StoreBench", operation, STORE, size), limit, "x")

    def unchanged(operation, size):
        """How many times slower with 8 shadows, and the noise that is granted: a tenth, or what
        the repetitions without any differ by."""
        alone = results.values("FollowBench", f"{operation}/store_0/{size}")
        followed = results.median("FollowBench", f"{operation}/store_8/{size}")
        if not alone or followed is None:
            return None, 1.1
        middle = statistics.median(alone)
        return followed / middle, 1 + max(0.1, (middle - min(alone)) / middle)

    yield from in_flat("hit", "lookup hit", ((65536, 1.6), (1000000, 2.2)))
    many = results.median("StoreBench", f"bulk/{STORE}/1000000")
    dpdk = results.median("StoreBench", "bulk/dpdk/1000000")
    beside = "" if dpdk is None else f" (DPDK's bulk: {dpdk:.1f} ns)"
    yield f"lookup in bulk, 1,000,000 records{beside}", many, 25, " ns"
    for size in (65536, 1000000):
        yield (f"lookup beside a busy writer, {size:,} records, times the flat array by key",
               times_flat("SharedBench", "hit", "store_busy", size), 4.5, "x")
        below = results.median("SharedBench", f"latency/store_busy/{size}", "below400")
        yield (f"lookups of 400 ns and more beside a busy writer, {size:,} records",
               None if below is None else 100 - below, 0.1, " %")
    yield from in_flat("update", "update with its notification", ((65536, 3.5), (1000000, 3.5)))
    yield from in_flat("insert", "insert", ((65536, 4), (1000000, 4)))
    for operation in ("update", "insert"):
        for size in (65536, 1000000):
            measured, limit = unchanged(operation, size)
            yield (f"{operation} with 8 shadows that follow, {size:,} records, times without any",
                   measured, limit, "x")
    yield from in_flat("iterate", "iteration", ((65536, 2), (1000000, 2)))
    wake = results.median("WakeBench", "wake/store", "p50")
    bare = results.median("WakeBench", "wake/socket", "p50")
    yield ("write to notification of a sleeping reader, times a bare Unix socket",
           None if wake is None or not bare else wake / bare, 1.5, "x")
    yield ("attach with full validation, 1,000,000 records",
           results.milliseconds("FollowBench", "attach/store/1000000"), 100, " ms")
    for size in (65536, 1000000):
        sizes = [results.median("StoreBench", f"{operation}/{STORE}/{size}", "bytes")
                 for operation in ("hit", "update")]
        yield (f"an entry, {size:,} records, queue included, also after updates",
               None if None in sizes else max(sizes), 64, " bytes")


def print_aims(results):
    rows = []
    for text, measured, limit, unit in aims(results):
        if measured is None:
            verdict = "not measured"
        elif measured <= limit:
            verdict = "met"
        else:
            verdict = f"missed by {measured / limit:.2f}x"
        rows.append([text, "" if measured is None else f"{measured:.3g}{unit}",
                     f"{limit:.3g}{unit}", verdict])
    table(["aim", "measured", "at most", ""], rows)


def main():
    results = Results(sys.argv[1])
    if not results.runs:
        sys.exit("report.py: no results")
    print_contestants(results)
    print_shared(results)
    print_aims(results)
    for error in sorted(set(results.errors)):
        print("report.py: " + error, file=sys.stderr)
    return 1 if results.errors else 0


if __name__ == "__main__":
    sys.exit(main())
