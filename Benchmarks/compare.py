#!/usr/bin/env python3
"""Compares the library with the raw sqlite3 baseline in a run of notificationdb_benchmarks.

Reads the Google Benchmark JSON output (written by --benchmark_out=FILE
--benchmark_out_format=json, or printed by --benchmark_format=json) from the file named on the
command line or from standard input, and prints one row per case:

    case | library median | baseline median | ratio (library/baseline) | target | within target

The median is the "median" aggregate of real_time when the run had repetitions, else the median
of the single runs. Beside the verdict the table shows the kind of case, the same ratio for CPU
time (informative: it leaves out waiting for the disk and for the processor on a busy machine)
and the coefficient of variation of the repetitions of each side. The target is 1.10 for cases that write and 1.20 for cases that only read
(the label each case reports). A last section compares the peak heap use of the largest fetch
(counter peak_bytes). With --strict the exit status is 1 when a case misses its target.
"""

import argparse
import json
import statistics
import sys

TARGETS = {"write": 1.10, "read": 1.20}
SIDES = ("Library", "Baseline")
MEMORY_CASE = "fetch_all/10000"
TO_NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def case_of(run_name):
    """('Library', 'fetch_all/100') for 'Library/fetch_all/100/real_time', else None."""
    side, _, rest = run_name.partition("/")
    if side not in SIDES or not rest:
        return None
    for suffix in ("/real_time", "/manual_time"):
        if rest.endswith(suffix):
            rest = rest[: -len(suffix)]
    return side, rest


def access_of(case, label):
    """'write' or 'read': the label the case reported, else a guess from its name."""
    if label in TARGETS:
        return label
    if case.startswith(("fetch", "count", "contains", "cleanup_nothing")):
        return "read"
    return "write"


def collect(benchmarks):
    """{case: {side: {...}}} with the median real time in ns, the cv, counters and errors."""
    runs = {}
    for entry in benchmarks:
        parsed = case_of(entry.get("run_name") or entry.get("name", ""))
        if parsed is None:
            continue
        side, case = parsed
        slot = runs.setdefault(case, {}).setdefault(
            side, {"iterations": [], "median": None, "cv": None, "label": None, "error": None}
        )
        order = entry.get("family_index", len(runs))
        runs[case]["order"] = min(runs[case].get("order", order), order)
        if entry.get("error_occurred"):
            slot["error"] = entry.get("error_message") or "error"
            continue
        if entry.get("label"):
            slot["label"] = entry["label"]
        scale = TO_NANOSECONDS.get(entry.get("time_unit", "ns"), 1.0)
        if entry.get("run_type") == "aggregate":
            name = entry.get("aggregate_name")
            if name == "median":
                slot["median"] = entry["real_time"] * scale
                slot["cpu_median"] = entry["cpu_time"] * scale
                slot["median_entry"] = entry
            elif name == "cv":
                # The cv of the time is a fraction, reported without a time unit.
                slot["cv"] = entry["real_time"]
        else:
            slot["iterations"].append((entry["real_time"] * scale, entry["cpu_time"] * scale, entry))

    for sides in runs.values():
        for side, slot in sides.items():
            if side not in SIDES:
                continue
            if slot["median"] is None and slot["iterations"]:
                slot["median"] = statistics.median(real for real, _, _ in slot["iterations"])
                slot["cpu_median"] = statistics.median(cpu for _, cpu, _ in slot["iterations"])
            entries = [entry for _, _, entry in slot["iterations"]]
            if slot.get("median_entry") is not None:
                entries = [slot["median_entry"]]
            peaks = [entry["peak_bytes"] for entry in entries if "peak_bytes" in entry]
            slot["peak_bytes"] = statistics.median(peaks) if peaks else None
    return runs


def format_time(nanoseconds):
    if nanoseconds is None:
        return "-"
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= scale:
            value = nanoseconds / scale
            return ("%.3g %s" if value < 100 else "%.0f %s") % (value, unit)
    return "%.0f ns" % nanoseconds


def format_bytes(count):
    if count is None:
        return "-"
    for unit, scale in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if count >= scale:
            return "%.2f %s" % (count / scale, unit)
    return "%d B" % count


def format_cv(slot):
    return "-" if slot is None or slot.get("cv") is None else "%.0f%%" % (slot["cv"] * 100)


def print_table(headers, rows, out):
    widths = [max(len(str(row[i])) for row in [headers] + rows) for i in range(len(headers))]

    def line(cells):
        return "| " + " | ".join(str(cell).ljust(width) for cell, width in zip(cells, widths)) + " |"

    print(line(headers), file=out)
    print("|" + "|".join("-" * (width + 2) for width in widths) + "|", file=out)
    for row in rows:
        print(line(row), file=out)


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("json", nargs="?", help="Google Benchmark JSON file (default: standard input)")
    parser.add_argument("--strict", action="store_true", help="exit with status 1 when a case misses its target")
    arguments = parser.parse_args(argv)

    try:
        if arguments.json:
            with open(arguments.json, encoding="utf-8") as source:
                document = json.load(source)
        else:
            document = json.load(sys.stdin)
    except (OSError, ValueError) as error:
        print("compare.py: cannot read the benchmark JSON: %s" % error, file=sys.stderr)
        return 2

    runs = collect(document.get("benchmarks", []))
    if not runs:
        print("compare.py: no Library/* or Baseline/* results in the input", file=sys.stderr)
        return 2

    rows = []
    missed = []
    # Cases in the order the binary registers them (its repetitions may run interleaved).
    for case, sides in sorted(runs.items(), key=lambda item: item[1]["order"]):
        library, baseline = sides.get("Library"), sides.get("Baseline")
        label = (library or {}).get("label") or (baseline or {}).get("label")
        access = access_of(case, label)
        target = TARGETS[access]
        errors = [side for side in SIDES if (sides.get(side) or {}).get("error")]
        if errors or not library or not baseline or not library["median"] or not baseline["median"]:
            verdict = "error in " + ", ".join(errors) if errors else "incomplete"
            rows.append([case, format_time((library or {}).get("median")), format_time((baseline or {}).get("median")),
                         "-", "%.2f" % target, verdict, access, "-", "-"])
            missed.append(case)
            continue
        ratio = library["median"] / baseline["median"]
        within = ratio <= target
        if not within:
            missed.append(case)
        cpu_ratio = (
            "%.2f" % (library["cpu_median"] / baseline["cpu_median"])
            if library.get("cpu_median") and baseline.get("cpu_median")
            else "-"
        )
        rows.append([
            case,
            format_time(library["median"]),
            format_time(baseline["median"]),
            "%.2f" % ratio,
            "%.2f" % target,
            "yes" if within else "NO",
            access,
            cpu_ratio,
            "%s / %s" % (format_cv(library), format_cv(baseline)),
        ])

    context = document.get("context", {})
    repetitions = max(
        (entry.get("repetitions", 1) for entry in document.get("benchmarks", [])), default=1
    )
    print("notificationdb benchmarks: library against raw sqlite3, median real time of %d repetition(s)"
          % repetitions)
    if context:
        print("host: %s CPU(s) at %s MHz, load average at the start %s" % (
            context.get("num_cpus", "?"),
            context.get("mhz_per_cpu", "?"),
            ", ".join("%.2f" % value for value in context.get("load_avg", [])) or "?",
        ))
    print()
    print_table(
        ["case", "library median", "baseline median", "ratio lib/base", "target", "within target", "kind",
         "cpu ratio", "cv lib / base"],
        rows,
        sys.stdout,
    )

    memory = runs.get(MEMORY_CASE, {})
    library_peak = (memory.get("Library") or {}).get("peak_bytes")
    baseline_peak = (memory.get("Baseline") or {}).get("peak_bytes")
    print()
    print_table(
        ["peak heap of one call", "library", "baseline", "ratio lib/base"],
        [[MEMORY_CASE, format_bytes(library_peak), format_bytes(baseline_peak),
          "%.2f" % (library_peak / baseline_peak) if library_peak and baseline_peak else "-"]],
        sys.stdout,
    )
    print()
    if missed:
        print("off target: %s" % ", ".join(missed))
    else:
        print("every case within its target")
    return 1 if arguments.strict and missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
