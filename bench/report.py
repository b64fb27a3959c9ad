#!/usr/bin/env python3
"""Makes the table, bench.json and the picture of what scripts/bench has measured.

usage: report.py BUILD PICTURE
"""

import json
import statistics
import subprocess
import sys

# The most that a ratio of the library to a baseline may be, by the beginning of the case, the baseline, and what counts:
# the CPU time or the wall time.
GOALS = [
    ("exchange/", "composition", 1.05, "cpu"),
    ("connect/", "composition", 1.05, "cpu"),
    ("decrypt/", "plain loop", 1.25, "cpu"),
    ("cache miss/1 thread", "raw libdbus", 1.15, "wall"),
    ("cache miss/4 threads", "raw libdbus", 1.0, "wall"),
]


def read_times(path):
    """The runs of each case by who ran it: nanoseconds of each kind, in the order of the rounds."""
    cases = {}
    with open(path, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    for run in sorted(runs, key=lambda run: run["family_index"]):
        if run["run_type"] == "iteration":
            group, case, who = run["name"].split("/")[:3]
            scale = {"ns": 1, "us": 1e3, "ms": 1e6}[run["time_unit"]]
            times = {"cpu": run["cpu_time"] * scale, "wall": run["real_time"] * scale}
            cases.setdefault(f"{group}/{case}", {}).setdefault(who, []).append(times)
    return cases


def quartiles(values):
    low, middle, high = statistics.quantiles(values, n=4) if len(values) > 1 else values * 3
    return {"median": middle, "low": low, "high": high}


def compare(cases):
    """One row for each case and baseline."""
    for case, runs in cases.items():
        for baseline in (who for who in runs if who != "library"):
            goal = next((goal[2:] for goal in GOALS if case.startswith(goal[0]) and goal[1] == baseline), (None, None))
            row = {"case": case, "baseline": baseline, "goal": goal[0], "goal_kind": goal[1]}
            for kind in ("cpu", "wall"):
                row[kind] = quartiles([ours[kind] / theirs[kind] for ours, theirs in zip(runs["library"], runs[baseline])])
                row[kind + "_ns"] = statistics.median(ours[kind] for ours in runs["library"])
            yield row


def mark(value, goal):
    return f"{goal:g}{'!' if value > goal else ''}" if goal else ""


def print_table(rows, figures):
    print(f"{'library against':<46}{'baseline':<16}{'CPU':>6} {'spread':<13}{'wall':>5} {'spread':<13}{'goal':<6}{'CPU time':>12}")
    for row in rows:
        cpu, wall = (f"{row[kind]['median']:.2f} {row[kind]['low']:.2f}..{row[kind]['high']:.2f}" for kind in ("cpu", "wall"))
        goal = mark(row[row["goal_kind"] or "cpu"]["median"], row["goal"])
        print(f"{row['case']:<46}{row['baseline']:<18}{cpu:<18}{wall:<19}{goal:<6}{row['cpu_ns'] / 1000:>9.1f} us")
    print()
    for figure in figures:
        goal = mark(figure["value"], figure["goal"])
        print(f"{figure['name']:<62}{figure['value']:>10.6g} {figure['unit']:<8}{goal and 'goal ' + goal}")


def draw(rows, path):
    """Bars of the ratios that have a goal, with gnuplot."""
    shown = [row for row in rows if row["goal"]]
    lines = [f'"{row["case"]} : {row["baseline"]}" {row[row["goal_kind"]]["median"]:.3f} {row["goal"]}' for row in shown]
    script = f"""
        set terminal svg size 900,{60 + 22 * len(shown)} font 'sans,11'
        set output '{path}'
        set title 'Time of the library divided by that of the baseline; a line is the goal'
        set yrange [-0.7:{len(shown) - 0.3}] reverse
        set xrange [0:*]
        set grid xtics
        set style fill solid 0.5
        unset key
        $data << EOD\n{chr(10).join(lines)}\nEOD
        plot $data using (0):0:(0):2:($0-0.35):($0+0.35):ytic(1) with boxxyerror lc rgb '#4477aa', \
             '' using 3:($0-0.45):(0):(0.9) with vectors nohead lw 2 lc rgb '#cc3311'
        """
    script = "\n".join(line.strip() for line in script.splitlines())
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    build, picture = sys.argv[1:]
    rows = list(compare(read_times(f"{build}/times.json")))
    with open(f"{build}/figures.json", encoding="utf-8") as file:
        figures = [json.loads(line) for line in file]
    print_table(rows, figures)
    with open(f"{build}/bench.json", "w", encoding="utf-8") as file:
        json.dump({"ratios": rows, "figures": figures}, file, indent=1)
    draw(rows, picture)


main()
