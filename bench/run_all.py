"""Runs the benchmarks in rounds and prints one table of ratios.

Every round runs each program once, and in it ours beside its peer; a row's
ratio is the median of the ratios of the rounds.  So a machine that is busy for
a while harms neither side.
"""

import argparse
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile

REPO = pathlib.Path(__file__).resolve().parent.parent
BUILD = REPO / "build-bench"

# Time that the program computed, for what never waits; time that passed, for
# the rest.
CPU = "cpu_time"
WALL = "real_time"


class Row:
    """One line of the table.  `ratio` gets a function from the name of a
    benchmark to its time in one round."""

    def __init__(self, subject, work, peer, bar, aim, clock, ratio):
        self.subject = subject
        self.work = work
        self.peer = peer
        self.bar = bar
        self.aim = aim
        self.clock = clock
        self.ratio = ratio


def over(ours, *peers):
    """Our time over that of the fastest peer."""
    return lambda time, names: time(ours) / min(time(peer) for peer in peers)


def mean_over(prefix, peer):
    """The geometric mean over all benchmarks with that beginning."""
    def ratio(time, names):
        return statistics.geometric_mean(
            time(name) / time(name[:-len("ours")] + peer)
            for name in names
            if name.startswith(prefix) and name.endswith("/ours"))
    return ratio


def worst_over(prefix, peer):
    """The largest ratio of all benchmarks with that beginning."""
    def ratio(time, names):
        return max(time(name) / time(name[:-len("ours")] + peer)
                   for name in names
                   if name.startswith(prefix) and name.endswith("/ours"))
    return ratio


def worst_growth(time, names):
    """The largest ratio between twice the text and once."""
    return max(time(name) / time(name.replace("/20000/", "/10000/"))
               for name in names
               if name.startswith("Worst/") and name.endswith("/20000/ours"))


def database_rows():
    rows = []
    for reader in ("", "/reader"):
        bar, aim = (0.7, 0.2) if reader else (0.4, 0.15)
        beside = ", beside a reader" if reader else ""
        for unit in ("account", "field"):
            rows.append(Row(
                "database", f"100,000 accounts made{beside}",
                f"LMDB, one transaction per {unit}", bar, aim, WALL,
                over("Create/ours" + reader,
                     f"Create/lmdb-{unit}{reader}")))
        rows.append(Row(
            "database", f"single `Set` at 100,000 accounts{beside}",
            "LMDB, one commit each", bar, aim, WALL,
            over("Set/ours" + reader, "Set/lmdb" + reader)))
    rows.append(Row("database", "one account at 100,000",
                    "ourselves at 1,000", 1.3, 1.1, CPU,
                    over("Growth/100000", "Growth/1000")))
    for size, shown in (("100000", "100,000"), ("1000000", "1,000,000")):
        for kind, aim in (("hit", 0.75), ("miss", 0.4)):
            rows.append(Row("database", f"address look-up at {shown}: {kind}",
                            "LMDB", 1.0, aim, CPU,
                            over(f"LookUp/{size}/{kind}/ours",
                                 f"LookUp/{size}/{kind}/lmdb")))
        rows.append(Row("database", f"open and first look-up at {shown}",
                        "LMDB", 2.0, 0.6, CPU,
                        over(f"Open/{size}/ours", f"Open/{size}/lmdb")))
    rows.append(Row("database", "durable creation, one sync per account",
                    "the faster of LMDB and SQLite", 1.0, 0.7, WALL,
                    over("Durable/ours", "Durable/lmdb", "Durable/sqlite")))
    return rows


ROWS = [
    Row("patterns", "the system's own patterns: hits, geometric mean",
        "PCRE2 interpreter", 0.6, 0.35, CPU, mean_over("Hits/", "pcre2")),
    Row("patterns", "the same, near misses", "PCRE2 interpreter", 0.6, 0.25,
        CPU, mean_over("Misses/", "pcre2")),
    Row("patterns", "pattern seen for the first time: compile and match",
        "PCRE2 interpreter", 1.0, 0.5, CPU,
        over("FirstUse/ours", "FirstUse/pcre2")),
    Row("patterns", "worst inputs, the worst of them", "RE2", 2.0, 1.0, CPU,
        worst_over("Worst/", "re2")),
    Row("patterns", "twice the text of the worst inputs", "ourselves", 2.2,
        2.2, CPU, worst_growth),
] + database_rows()

# Subject, program, least seconds of one benchmark.
PROGRAMS = {
    "patterns": ("patterns_bench", 0.02),
    "database": ("database_bench", 0.1),
}


def run_program(subject, scratch):
    """One round of a subject: {benchmark: {clock: nanoseconds}}."""
    program, seconds = PROGRAMS[subject]
    result = scratch / "result.json"
    command = [str(BUILD / program), f"--benchmark_min_time={seconds}",
               f"--benchmark_out={result}", "--benchmark_out_format=json"]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL,
                   env=dict(os.environ, VC_BENCH_DIR=str(scratch)))
    times = {}
    unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    for run in json.loads(result.read_text())["benchmarks"]:
        if run.get("error_occurred"):
            sys.exit(f"{program}: {run['name']}: {run['error_message']}")
        times[run["name"].removesuffix("/iterations:1")] = {
            clock: run[clock] * unit[run["time_unit"]]
            for clock in (CPU, WALL)}
    return times


def line(row, rounds):
    ratios = [row.ratio(lambda name, t=times: t[name][row.clock], times)
              for times in rounds]
    ratio = statistics.median(ratios)
    verdict = ("aim met" if ratio <= row.aim
               else "bar met" if ratio <= row.bar else "NOT MET")
    return (f"| {row.work} | {row.peer} | {ratio:.2f} | {min(ratios):.2f} to "
            f"{max(ratios):.2f} | {row.bar:g} | {row.aim:g} | {verdict} |")


def machine():
    model = next((text.split(":")[1].strip()
                  for text in open("/proc/cpuinfo", encoding="ascii")
                  if text.startswith("model name")), platform.machine())
    return (f"{platform.node()}: {os.cpu_count()} x {model}, "
            f"Linux {platform.release()}")


def main():
    parser = argparse.ArgumentParser(usage="./run-bench [--rounds N] "
                                     "[SUBJECT...]")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("subjects", nargs="*", choices=[*PROGRAMS, []])
    options = parser.parse_args()
    subjects = options.subjects or list(PROGRAMS)

    rounds = {subject: [] for subject in subjects}
    with tempfile.TemporaryDirectory(prefix="vc-bench-") as scratch:
        for number in range(options.rounds):
            for subject in subjects:
                print(f"round {number + 1} of {options.rounds}: {subject}",
                      file=sys.stderr, flush=True)
                rounds[subject].append(
                    run_program(subject, pathlib.Path(scratch)))

    print(f"{machine()}; {options.rounds} rounds\n")
    print("| work | peer | ratio | lowest, highest | bar | aim | |")
    print("|---|---|---|---|---|---|---|")
    for row in ROWS:
        if row.subject in subjects:
            print(line(row, rounds[row.subject]))


if __name__ == "__main__":
    main()
