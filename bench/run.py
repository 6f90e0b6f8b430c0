"""Runs the benchmarks in rounds, contestants in turns, and prints one table; the figures go to results.json."""

import argparse
import json
import os
import statistics
import subprocess
import sys
import time

from contestants import BUILD, Contestants, ProgramFailed
from rows import GROWTH, MEASUREMENTS, ONCE, ROWS

BUDGET_SEC = 570  # after this no measurement begins any more


def start_all(run):
    run.ours(watched=run.folder / "watched")
    run.node()
    run.redis()
    run.nats()
    run.beast()
    run.nginx()
    run.nginx("listener", core=1)
    run.silent()


def measure(what, function, run, samples, failures):
    began = time.monotonic()
    try:
        for key, value in function(run).items():
            samples.setdefault(what, {}).setdefault(key, []).append(value)
    except (ProgramFailed, OSError, ValueError) as failure:
        failures.setdefault(what, str(failure))
    print(f"  {what}: {time.monotonic() - began:.1f} s", file=sys.stderr)


def run_rounds(names, rounds, deadline):
    samples, failures = {}, {}
    for number in range(rounds):
        print(f"round {number + 1}", file=sys.stderr)
        with Contestants() as run:
            start_all(run)
            for what in names:
                if what in ONCE and number > 0:
                    continue
                if time.monotonic() > deadline and number > 0:
                    return samples, failures
                measure(what, MEASUREMENTS[what], run, samples, failures)
    return samples, failures


def run_growth(deadline):
    curves = {}
    for name, (axis, sizes) in GROWTH.items():
        points = []
        for size, (function, key) in sizes.items():
            if time.monotonic() > deadline:
                break
            try:
                points.append([size, function(None)[key]])
            except ProgramFailed as failure:
                print(f"  {name} {size}: {failure}", file=sys.stderr)
        curves[name] = {"axis": axis, "points": points}
    return curves


def values_of(samples, source):
    return samples.get(source[0], {}).get(source[1], [])


def best_beside(samples, beside):
    """The peer with the better median: what stands beside a row with several is the best of them."""
    choices = [values_of(samples, one) for one in (beside if isinstance(beside, list) else [beside])]
    return max((c for c in choices if c), key=statistics.median, default=[])


def holds(wish, value, ratio):
    kind, relation, number = wish
    figure = value if kind == "value" else ratio
    if figure is None:
        return False
    return figure >= number if relation == ">=" else figure <= number


def verdict(row, value, ratio):
    if row.must and not holds(row.must, value, ratio):
        return "MISSED"
    if row.aim:
        return "aim" if holds(row.aim, value, ratio) else ("met" if row.must else "below aim")
    return "met" if row.must else "-"


def evaluate(row, samples):
    ours = values_of(samples, row.ours)
    beside = [b + row.plus for b in best_beside(samples, row.beside)] if row.beside else []
    value = statistics.median(ours) if ours else None
    ratio = statistics.median(a / b for a, b in zip(ours, beside) if b) if ours and any(beside) else None
    return {"row": row.name, "ours": value, "beside": statistics.median(beside) if beside else None,
            "peer": row.peer, "ratio": ratio, "unit": row.unit, "scale": row.scale, "must": row.must, "aim": row.aim,
            "rounds": len(ours), "verdict": verdict(row, value, ratio) if ours else "NO FIGURE"}


def number_text(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def wish_text(wish, result):
    if not wish:
        return ""
    kind, relation, number = wish
    if kind == "ratio":
        return f"{relation} {number:.3g} x"
    return f"{relation} {number_text(number * result['scale'])} {result['unit']}".strip()


def table(results):
    lines = [["row", "ours", "beside", "ratio", "must", "aim", "verdict"]]
    for result in results:
        unit, scale = result["unit"], result["scale"]
        ours = f"{number_text(result['ours'] * scale)} {unit}" if result["ours"] is not None else ""
        beside = number_text(result["beside"] * scale) if result["beside"] is not None else ""
        lines.append([result["row"], ours, f"{beside} ({result['peer']})" if beside else result["peer"],
                      f"{result['ratio']:.3g}" if result["ratio"] is not None else "",
                      wish_text(result["must"], result), wish_text(result["aim"], result), result["verdict"]])
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    rule = ["-" * width for width in widths]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
                     for line in [lines[0], rule, *lines[1:]])


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True, text=True,
                            cwd=os.path.dirname(os.path.abspath(__file__))).stdout.strip()
    return {"processor": model, "cores": os.cpu_count(), "kernel": os.uname().release, "commit": commit,
            "load_before": os.getloadavg()[0]}


def footnote(results):
    about = results["machine"]
    return (f"{about['cores']} cores of {about['processor']}, Linux {about['kernel']}, commit {about['commit']}; load "
            f"{about['load_before']:.1f} before and {about.get('load_after', 0):.1f} after the run; medians of up to "
            f"{max((row['rounds'] for row in results['rows']), default=0)} rounds.")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="", help="measurements whose name holds one of these texts (TEXT,TEXT)")
    parser.add_argument("--no-growth", action="store_true", help="leave out what is measured for the plots")
    wanted = parser.parse_args()
    wanted.names = [name for name in MEASUREMENTS if any(text in name for text in wanted.only.split(","))]
    if not wanted.names:
        parser.error(f"no measurement's name holds {wanted.only!r}; there are: {', '.join(MEASUREMENTS)}")
    return wanted


def main():
    wanted = arguments()
    deadline = time.monotonic() + BUDGET_SEC
    about = machine()
    curves = {} if wanted.no_growth or wanted.only else run_growth(deadline)
    samples, failures = run_rounds(wanted.names, wanted.rounds, deadline)
    results = [evaluate(row, samples) for row in ROWS if row.ours[0] in wanted.names]
    about["load_after"] = os.getloadavg()[0]
    everything = {"machine": about, "rows": results, "growth": curves, "samples": samples, "failures": failures}
    (BUILD / "results.json").write_text(json.dumps(everything, indent=1))
    print(table(results))
    print("\n" + footnote(everything))
    for what, failure in failures.items():
        print(f"failed: {what}: {failure}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
