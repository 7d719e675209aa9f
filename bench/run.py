#!/usr/bin/env python3
"""Measures this project and its peers in turns. scripts/bench builds what it needs and runs it."""
import argparse
import os
import random
import shutil
import sys
import tempfile

sys.dont_write_bytecode = True

from driver import cases, measure, report, volumes  # noqa: E402 (nothing is to be written beside the sources)

SERIES_LIMIT = 2.1  # times the cost for twice the size
MEMORY_LIMIT = 1.05
OWN_PROGRAMS = {"fsparser": "fsparser", "floor": "bench_floor", "lookup": "bench_lookup",
                "ntfs3g_lookup": "bench_ntfs3g_lookup"}


def say(text):
    print("== " + text, file=sys.stderr, flush=True)


class Bench:
    """The places that everything uses, and one measurement after the other."""

    def __init__(self, options, scratch):
        self.options = options
        self.scratch = scratch
        self.programs = {key: os.path.join(options.programs, name) for key, name in OWN_PROGRAMS.items()}
        self.runner = measure.Runner(options.programs, scratch, options.timeout)
        self.results = {"machine": report.machine(), "rounds": options.rounds, "cases": [], "series": {}, "skipped": {}}

    def staged(self, name):
        path = volumes.make(os.path.join(self.options.work, "volumes"), self.options.programs, name, say)
        return volumes.stage(path, self.scratch if self.options.memory else None)

    def places(self, volume):
        return {**self.programs, "volume": volume,
                "output": os.path.join(self.scratch, "output"), "ranges": os.path.join(self.scratch, "ranges"),
                "paths": os.path.join(self.scratch, "paths")}

    def run_once(self, contender, places):
        for leftover in (places["output"], places["output"] + ".log"):
            if os.path.exists(leftover):
                os.remove(leftover)
        if contender.needs_target:
            volumes.sparse(places["output"], os.path.getsize(places["volume"]))
        cost = self.runner.run(contender.arguments(places), contender.reports_itself)
        if contender.reports_itself:
            count, rounds, microseconds, cost.output = cost.output.split()
            cost.cpu = int(microseconds) / 1e6 / int(count) / int(rounds)
        return cost

    def warm_up(self, contender, places, notes):
        """The first run, which is not counted: whether it works at all, and is right."""
        program = (contender.program or contender.command.split()[0]).format(**places)
        if shutil.which(program) is None:
            notes.append(f"Left out: {contender.name}, which is not installed.")
            return None
        try:
            cost = self.run_once(contender, places)
            if contender.makes_copy:
                self.check_copy(contender, places, notes)
            return cost
        except RuntimeError as error:
            notes.append(f"Left out: {contender.name}. {error}")
            return None

    def check_copy(self, contender, places, notes):
        """A copy that lacks something is shown under another name, so that it does not count."""
        try:
            self.runner.run([self.programs["fsparser"], "verify", "-q", places["volume"], places["output"]])
        except RuntimeError as error:
            reason = str(error).split(places["output"] + ": ")[-1]
            notes.append(f"{contender.name} does not write the same image and is not counted: {reason}")
            contender.name += " (another image)"

    def measure_case(self, case):
        volume, is_in_memory = self.staged(case.volume)
        places, notes = self.places(volume), []
        if not is_in_memory:
            notes.append("The volume was read from its file's page cache, not from a file system in memory.")
        if case.paths is not None:
            paths = case.paths()
            random.Random(1).shuffle(paths)
            with open(places["paths"], "w", encoding="utf-8") as file:
                file.writelines(path + "\n" for path in paths)
        if any(contender.name == cases.FLOOR for contender in case.contenders):
            read, needed = cases.write_ranges(self.programs["fsparser"], volume, places["ranges"], self.scratch)
            notes.append(f"fsparser info reads {read:,} bytes, of which {needed:,} are different ones: the floor reads "
                         "those.")
        costs = self.take_turns(case, places, notes)
        middles = {name: measure.medians(rounds) for name, rounds in costs.items()}
        self.results["cases"].append({
            "name": case.name, "title": case.title, "per_path": case.paths is not None, "notes": notes,
            "medians": {name: cost.as_dict() for name, cost in middles.items()},
            "rounds": {name: [cost.as_dict() for cost in rounds] for name, rounds in costs.items()},
            "targets": [target.judge(middles) for target in case.targets]})
        if is_in_memory:
            os.remove(volume)

    def take_turns(self, case, places, notes):
        first = [(each, self.warm_up(each, places, notes)) for each in case.contenders]
        works = [each for each, cost in first if cost is not None]
        sums = {cost.output for each, cost in first if cost is not None and each.reports_itself}
        if len(sums) > 1:
            notes.append(f"The answers differ: {', '.join(sorted(sums))}.")
        costs = {each.name: [] for each in works}
        for _ in range(self.options.rounds):
            for each in works:
                costs[each.name].append(self.run_once(each, places))
        return costs

    def measure_series(self):
        """`fsparser info` of volumes of growing size, in turns."""
        for kind in volumes.EMPTY:
            staged = [(gib, *self.staged(f"{kind}-{gib}g")) for gib in volumes.SERIES_GIB]
            costs = {gib: [] for gib in volumes.SERIES_GIB}
            for turn in range(self.options.rounds + 1):
                for gib, volume, _ in staged:
                    cost = self.runner.run([self.programs["fsparser"], "info", volume])
                    if turn > 0:
                        costs[gib].append(cost)
            rows, before = [], None
            for gib in volumes.SERIES_GIB:
                cost = measure.medians(costs[gib])
                rows.append({"gib": gib, "cpu": cost.cpu, "resident": cost.resident,
                             "growth": cost.cpu / before if before else None})
                before = cost.cpu
            self.results["series"][kind] = rows
            for _, volume, is_in_memory in staged:
                if is_in_memory:
                    os.remove(volume)
        self.judge_series()

    def judge_series(self):
        judged = []
        for kind, rows in self.results["series"].items():
            growth = max(row["growth"] for row in rows[1:])
            memory = max(row["resident"] for row in rows) / min(row["resident"] for row in rows)
            for text, value, limit in ((f"{kind}: at most {SERIES_LIMIT} times the cost for twice the size", growth,
                                        SERIES_LIMIT),
                                       (f"{kind}: the same memory for every size, within 5 %", memory, MEMORY_LIMIT)):
                judged.append({"target": text, "value": value, "limit": limit, "at_most": True,
                               "verdict": "met" if value <= limit else "missed"})
        self.results["cases"].append({"name": "size", "targets": judged})

    def attempt(self, name, action):
        say("measuring " + name)
        try:
            action()
        except (volumes.Missing, RuntimeError, OSError) as error:
            say(f"{name} is left out: {error}")
            self.results["skipped"][name] = str(error)


def parse():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("names", nargs="*", metavar="NAME", help="what to measure (default: everything); see --list")
    parser.add_argument("--list", action="store_true", help="list the names")
    parser.add_argument("--rounds", type=int, default=5, help="counted runs of each command (default: 5)")
    parser.add_argument("--programs", default="build/bench/bin", help="where the built programs are")
    parser.add_argument("--work", default="build/bench", help="where volumes and results go")
    parser.add_argument("--memory", default="/dev/shm", help="a file system in memory; '' for none")
    parser.add_argument("--timeout", type=float, default=600, help="seconds that one run may take")
    return parser.parse_args()


def chosen(names, wanted):
    """A name stands for all that begin with it."""
    for each in wanted:
        if not any(name.startswith(each) for name in names):
            sys.exit(f"there is no {each}; there are: {' '.join(names)}")
    return [name for name in names if not wanted or any(name.startswith(each) for each in wanted)]


def main():
    options = parse()
    options.programs = os.path.abspath(options.programs)
    options.work = os.path.abspath(options.work)
    by_name = {case.name: case for case in cases.cases()}
    names = chosen([*by_name, "size"], options.names)
    if options.list:
        print("\n".join(names))
        return
    os.makedirs(os.path.join(options.work, "volumes"), exist_ok=True)
    place = options.memory if options.memory and os.path.isdir(options.memory) else None
    with tempfile.TemporaryDirectory(prefix="fsparser-bench-", dir=place or options.work) as scratch:
        options.memory = place
        bench = Bench(options, scratch)
        for name in names:
            bench.attempt(name, bench.measure_series if name == "size"
                          else lambda case=by_name.get(name): bench.measure_case(case))
    bench.results["machine"]["load after"] = round(os.getloadavg()[0], 2)
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "cost-against-size.gnuplot")
    report.write(bench.results, options.work, script)
    with open(os.path.join(options.work, "results.md"), encoding="utf-8") as file:
        print(file.read())


if __name__ == "__main__":
    main()
