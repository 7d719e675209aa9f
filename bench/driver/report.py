"""Tables, JSON and the plot."""
import json
import os
import platform
import shutil
import subprocess


def processor():
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as file:
        return next((line.split(":")[1].strip() for line in file if line.startswith("model name")), platform.machine())


def machine():
    return {"processor": processor(), "cores": os.cpu_count(), "kernel": platform.release(),
            "load before": round(os.getloadavg()[0], 2)}


def milliseconds(seconds):
    return f"{seconds * 1e3:,.1f}"


def cost_rows(case):
    own = next(iter(case["medians"].values()), None)
    for name, cost in case["medians"].items():
        times = cost["cpu"] / own["cpu"] if own and own["cpu"] else float("nan")
        yield f"| {name} | {milliseconds(cost['cpu'])} | {milliseconds(cost['wall'])} | " \
              f"{cost['resident'] / 1024:,.1f} | {times:,.2f} |"


def path_rows(case):
    own = next(iter(case["medians"].values()), None)
    for name, cost in case["medians"].items():
        times = cost["cpu"] / own["cpu"]
        yield f"| {name} | {cost['cpu'] * 1e6:,.2f} | {cost['resident'] / 1024:,.1f} | {times:,.2f} |"


def case_text(case):
    lines = [f"### {case['name']}: {case['title']}", ""]
    if case["per_path"]:
        lines += ["| | processor time a path, µs | memory, MiB | times the first |", "|---|--:|--:|--:|",
                  *path_rows(case)]
    else:
        lines += ["| | processor time, ms | time, ms | memory, MiB | times the first |", "|---|--:|--:|--:|--:|",
                  *cost_rows(case)]
    lines += [f"\n{note}" for note in case["notes"]]
    return lines + [""]


def target_rows(results):
    for case in results["cases"]:
        for judged in case["targets"]:
            if judged["value"] is None:
                yield f"| {case['name']} | {judged['target']} | | {judged['verdict']}: {judged['reason']} |"
            else:
                yield f"| {case['name']} | {judged['target']} | {judged['value']:.2f} | {judged['verdict']} |"


def series_text(results):
    lines = ["### size: `fsparser info` of empty volumes, by size", "",
             "| | GiB | processor time, ms | memory, MiB | times the size before |", "|---|--:|--:|--:|--:|"]
    for name, rows in results["series"].items():
        for row in rows:
            growth = f"{row['growth']:.2f}" if row["growth"] else ""
            memory = f"{row['resident'] / 1024:.1f}"
            lines.append(f"| {name} | {row['gib']} | {milliseconds(row['cpu'])} | {memory} | {growth} |")
    return lines + [""]


def markdown(results):
    head = ["# Benchmark", "", ", ".join(f"{key} {value}" for key, value in results["machine"].items()) +
            f"; {results['rounds']} rounds, medians.", "",
            "## Targets", "", "| case | target | measured | |", "|---|---|--:|---|", *target_rows(results), "",
            "## Costs", ""]
    body = [line for case in results["cases"] if "medians" in case for line in case_text(case)]
    series = series_text(results) if results["series"] else []
    skipped = [f"- {name}: {reason}" for name, reason in results["skipped"].items()]
    return "\n".join(head + body + series + (["## Left out", "", *skipped, ""] if skipped else []))


def plot(series, directory, script):
    """Processor time against size, as pictures; nothing where there is no gnuplot."""
    data = os.path.join(directory, "cost-against-size.dat")
    with open(data, "w", encoding="ascii") as file:
        for name, rows in series.items():
            file.write(f'"{name}"\n')
            file.writelines(f"{row['gib']} {row['cpu'] * 1e3} {row['resident'] / 1024}\n" for row in rows)
            file.write("\n\n")
    if shutil.which("gnuplot") is not None:
        subprocess.run(["gnuplot", "-e", f"data='{data}'; picture='{os.path.join(directory, 'cost-against-size')}'; "
                                         f"kinds={len(series)}", script], check=True)


def write(results, directory, script):
    with open(os.path.join(directory, "results.json"), "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
        file.write("\n")
    with open(os.path.join(directory, "results.md"), "w", encoding="utf-8") as file:
        file.write(markdown(results))
    if results["series"]:
        plot(results["series"], directory, script)
