#!/usr/bin/env python3
"""Compares the library with the raw sqlite3 baseline in a run of notificationdb_benchmarks.

Reads the Google Benchmark JSON of a run (--benchmark_out=FILE --benchmark_out_format=json) and,
with --callgrind DIR, the callgrind dumps of an `--instructions` run under
`valgrind --tool=callgrind --instr-atstart=no`. Prints one row per case:

    case | kind | instructions per call, library and baseline | their ratio |
    time per call, library and baseline | paired ratio | its spread | within target

The instruction ratio counts what both sides execute, SQLite included, and does not depend on
the machine's load. The paired ratio comes from the `Pair/<case>` benchmarks, whose every
iteration times one library call and one baseline call back to back: it is the median over the
repetitions of library time / baseline time, and "spread" is the range of the middle half of
those ratios. Without `Pair/` runs the ratio is that of the `Library/` and `Baseline/` medians.
A case is within target when both ratios are at most the target (1.05). A last section compares
the peak heap use of the largest fetch (counter peak_bytes). With --strict the exit status is 1
when a case misses its target.
"""

import argparse
import glob
import json
import os
import statistics
import sys

TARGET = 1.05
SIDES = ("Library", "Baseline")
PAIR = "Pair"
MEMORY_CASE = "fetch_all/10000"
TO_NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
# The order in which the binary registers its cases.
FAMILIES = ("save_new", "save_duplicate", "fetch_all", "fetch_10_ids", "count", "contains_vantro",
            "contains_notification", "update_status_100", "update_button_visibility_100", "delete_100",
            "delete_all_of_kind", "updater_receive_100", "cleanup_nothing", "cleanup_2000", "open")


def case_order(case):
    family, _, size = case.partition("/")
    rank = FAMILIES.index(family) if family in FAMILIES else len(FAMILIES)
    return rank, int(size) if size.isdigit() else 0, case


def case_of(run_name):
    """('Library', 'fetch_all/100') for 'Library/fetch_all/100/real_time' and the like."""
    side, _, rest = run_name.partition("/")
    if side not in SIDES + (PAIR,) or not rest:
        return None
    parts = [part for part in rest.split("/")
             if part not in ("real_time", "manual_time") and not part.startswith(("iterations:", "repeats:"))]
    return side, "/".join(parts)


def collect(benchmarks):
    """{case: {side: {...}}}: the runs in file order, medians, errors, labels, peak heap."""
    cases = {}
    for entry in benchmarks:
        parsed = case_of(entry.get("run_name") or entry.get("name", ""))
        if parsed is None:
            continue
        side, case = parsed
        sides = cases.setdefault(case, {})
        slot = sides.setdefault(side, {"runs": [], "median": None, "error": None, "label": None, "peaks": [],
                                       "pairs": []})
        if entry.get("error_occurred"):
            slot["error"] = entry.get("error_message") or "error"
            continue
        slot["label"] = entry.get("label") or slot["label"]
        scale = TO_NANOSECONDS.get(entry.get("time_unit", "ns"), 1.0)
        if side == PAIR:
            if entry.get("run_type") != "aggregate" and "ratio" in entry:
                slot["pairs"].append((entry["ratio"], entry["library_us"] * 1e3, entry["baseline_us"] * 1e3))
                for side in SIDES:
                    peak = entry.get(side.lower() + "_peak_bytes")
                    if peak is not None:
                        sides.setdefault(side, {"runs": [], "median": None, "error": None, "label": None,
                                                "peaks": [], "pairs": []})["peaks"].append(peak)
            continue
        if entry.get("run_type") == "aggregate":
            if entry.get("aggregate_name") == "median":
                slot["median"] = entry["real_time"] * scale
        else:
            slot["runs"].append((entry["real_time"] * scale, entry["cpu_time"] * scale))
        if "peak_bytes" in entry and entry.get("run_type") != "aggregate":
            slot["peaks"].append(entry["peak_bytes"])
    for sides in cases.values():
        for side in SIDES:
            slot = sides.get(side)
            if slot and slot["median"] is None and slot["runs"]:
                slot["median"] = statistics.median(real for real, _ in slot["runs"])
    return cases


def read_instructions(directory):
    """{(side, case): instructions per call} from callgrind's dumps named '<side>/<case> calls=N'."""
    counts = {}
    for path in glob.glob(os.path.join(directory, "*")):
        name = total = None
        with open(path, encoding="utf-8", errors="replace") as dump:
            for line in dump:
                if line.startswith("desc: Trigger: Client Request: "):
                    name = line[len("desc: Trigger: Client Request: "):].strip()
                elif line.startswith("totals:"):
                    total = int(line.split()[1])
                    break
        if not name or total is None or " calls=" not in name:
            continue
        benchmark, _, calls = name.rpartition(" calls=")
        parsed = case_of(benchmark)
        if parsed and int(calls) > 0:
            counts[parsed] = total / int(calls)
    return counts


def quartiles(values):
    ordered = sorted(values)
    if len(ordered) < 4:
        return ordered[0], ordered[-1]
    q = statistics.quantiles(ordered, n=4)
    return q[0], q[2]


def format_time(nanoseconds):
    if nanoseconds is None:
        return "-"
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= scale:
            value = nanoseconds / scale
            return ("%.3g %s" if value < 100 else "%.0f %s") % (value, unit)
    return "%.0f ns" % nanoseconds


def format_count(count):
    if count is None:
        return "-"
    for unit, scale in (("G", 1e9), ("M", 1e6), ("k", 1e3)):
        if count >= scale:
            return "%.3g %s" % (count / scale, unit)
    return "%.0f" % count


def format_bytes(count):
    if count is None:
        return "-"
    for unit, scale in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if count >= scale:
            return "%.2f %s" % (count / scale, unit)
    return "%d B" % count


def print_table(headers, rows):
    widths = [max(len(str(row[i])) for row in [headers] + rows) for i in range(len(headers))]
    line = lambda cells: "| " + " | ".join(str(c).ljust(w) for c, w in zip(cells, widths)) + " |"
    print(line(headers))
    print("|" + "|".join("-" * (width + 2) for width in widths) + "|")
    for row in rows:
        print(line(row))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("json", nargs="?", help="Google Benchmark JSON file (default: standard input)")
    parser.add_argument("--callgrind", help="directory of the callgrind dumps of an --instructions run")
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
    cases = collect(document.get("benchmarks", []))
    instructions = read_instructions(arguments.callgrind) if arguments.callgrind else {}
    if not cases and not instructions:
        print("compare.py: no Library/* or Baseline/* results in the input", file=sys.stderr)
        return 2
    for side, case in instructions:
        cases.setdefault(case, {})

    rows, missed, rounds = [], [], 0
    for case, sides in sorted(cases.items(), key=lambda item: case_order(item[0])):
        library, baseline, pair = (sides.get(side) or {} for side in SIDES + (PAIR,))
        kind = pair.get("label") or library.get("label") or baseline.get("label") or "-"
        lib_ir, base_ir = instructions.get(("Library", case)), instructions.get(("Baseline", case))
        ir_ratio = lib_ir / base_ir if lib_ir and base_ir else None
        errors = [side for side, slot in (("library", library), ("baseline", baseline), ("pair", pair))
                  if slot.get("error")]
        pairs = pair.get("pairs") or []
        rounds = max(rounds, len(pairs))
        lib_time, base_time = library.get("median"), baseline.get("median")
        if pairs:
            ratios = [ratio for ratio, _, _ in pairs]
            wall = statistics.median(ratios)
            spread = "%.2f-%.2f" % quartiles(ratios)
            lib_time = statistics.median(lib for _, lib, _ in pairs)
            base_time = statistics.median(base for _, _, base in pairs)
        elif lib_time and base_time:
            wall, spread = lib_time / base_time, "-"
        else:
            wall, spread = None, "-"
        checked = [ratio for ratio in (ir_ratio, wall) if ratio is not None]
        within = bool(checked) and not errors and all(ratio <= TARGET for ratio in checked)
        if not within:
            missed.append(case)
        rows.append([
            case, kind, format_count(lib_ir), format_count(base_ir), "%.3f" % ir_ratio if ir_ratio else "-",
            format_time(lib_time), format_time(base_time),
            "%.3f" % wall if wall else "-", spread,
            ("error in " + ", ".join(errors)) if errors else ("yes" if within else "NO"),
        ])

    context = document.get("context", {})
    print("notificationdb benchmarks: library against raw sqlite3 (target %.2f)" % TARGET)
    if context:
        print("host: %s CPU(s) at %s MHz, load average at the start %s; %d paired repetition(s)" % (
            context.get("num_cpus", "?"), context.get("mhz_per_cpu", "?"),
            ", ".join("%.2f" % value for value in context.get("load_avg", [])) or "?", rounds))
    print()
    print_table(["case", "kind", "instr lib", "instr base", "instr ratio", "time lib", "time base",
                 "paired ratio", "spread", "within target"], rows)

    memory = cases.get(MEMORY_CASE, {})
    peaks = [max((memory.get(side) or {}).get("peaks") or [0]) or None for side in SIDES]
    print()
    print_table(["peak heap of one call", "library", "baseline", "ratio lib/base"],
                [[MEMORY_CASE, format_bytes(peaks[0]), format_bytes(peaks[1]),
                  "%.2f" % (peaks[0] / peaks[1]) if peaks[0] and peaks[1] else "-"]])
    print()
    print("off target: %s" % ", ".join(missed) if missed else "every case within its target")
    return 1 if arguments.strict and missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
