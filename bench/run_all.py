"""Runs the benchmarks in rounds and prints one table of ratios.

Every round runs each program once, and in it ours beside its peer; a row's
ratio is the median of the ratios of the rounds, of a row with several inputs
that of the worst.  So a machine that is busy for a while harms neither side.
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

from table import CPU, ROWS, WALL

REPO = pathlib.Path(__file__).resolve().parent.parent
BUILD = REPO / "build-bench"
PYTHON = "/usr/bin/python3"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}

os.environ["VC_BUILD"] = str(BUILD)
sys.path.insert(0, str(REPO / "tests" / "host"))
from harness import Host  # noqa: E402


def taken(report):
    """{benchmark: {measure: number}} of the report of a program."""
    times = {}
    for run in json.loads(report)["benchmarks"]:
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        unit = NANOSECONDS[run["time_unit"]]
        name = run["name"].removesuffix("/manual_time")
        if "/iterations:" in name:
            name = name[:name.index("/iterations:")]
        times[name] = {WALL: run["real_time"] * unit,
                       CPU: run.get("cpu_ns", run["cpu_time"] * unit),
                       "memory": run.get("kilobytes"),
                       "found": run.get("found")}
    return times


def run_program(scratch, program, *arguments):
    result = scratch / "result.json"
    subprocess.run([str(BUILD / program), *arguments,
                    f"--benchmark_out={result}",
                    "--benchmark_out_format=json"],
                   check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL,
                   env=dict(os.environ, VC_BENCH_DIR=str(scratch)))
    return taken(result.read_text())


def run_patterns(scratch):
    return run_program(scratch, "patterns_bench", "--benchmark_min_time=0.02")


def run_database(scratch):
    return run_program(scratch, "database_bench", "--benchmark_min_time=0.1")


def run_lists(scratch):
    times = run_program(scratch, "lists_bench")

    def numbers(*command):
        output = subprocess.check_output([*command, str(scratch / "lines")])
        return map(int, output.split())

    read, unique, distinct = numbers(PYTHON, str(REPO / "bench/lists_peer.py"))
    grep, found = numbers("perl", str(REPO / "bench/lists_peer.pl"))
    if (distinct, found) != (times["Unique/ours"]["found"],
                             times["Grep/ours"]["found"]):
        sys.exit("lists: the peers found something else")
    times["Read/python"] = {CPU: read}
    times["Unique/python"] = {CPU: unique}
    times["Grep/perl"] = {CPU: grep}
    return times


def run_conversion(scratch):
    return run_program(scratch, "conversion_bench")


def run_memory(scratch):
    return run_program(scratch, "conversion_bench", "--memory")


def run_start(_):
    with Host() as host:
        result = "/dev/shm/start.json"
        host.sh(f"'{BUILD}/start_bench' '{BUILD}/Install' '[yes]'"
                f" --benchmark_out={result} --benchmark_out_format=json"
                " >/dev/null 2>&1")
        return taken(host.read(result))


def run_import(_):
    times = {}
    for names, count in (("distinct", 1000), ("distinct", 100000),
                         ("student", 100000)):
        with Host() as host:
            passed, used, made = map(float, host.sh(
                f"{PYTHON} -I '{REPO}/bench/import_users.py'"
                f" '{BUILD}/AddUserAccounts' {count} {names}").split())
        if made <= count:  # root's account is made, too
            sys.exit(f"import: {made} accounts of {count} users")
        times[f"{names}/{count}"] = {WALL: passed, CPU: used}
    return times


# Subjects, and how many rounds at most: memory is the same every time.
SUBJECTS = {
    "patterns": (run_patterns, None),
    "database": (run_database, None),
    "import": (run_import, None),
    "conversion": (run_conversion, None),
    "memory": (run_memory, 1),
    "lists": (run_lists, None),
    "start": (run_start, None),
}


def line(row, rounds):
    taken_ratios = [
        row.ratios(lambda name, t=times: t[name][row.measure], times)
        for times in rounds]

    def of_rounds(name):
        return [ratios[name] for ratios in taken_ratios]

    ratio, ratios = max((statistics.median(of_rounds(name)), of_rounds(name))
                        for name in taken_ratios[0])
    verdict = ("aim met" if ratio <= row.aim
               else "bar met" if ratio <= row.bar else "not met")
    return (f"| {row.work} | {row.peer} | {row.measure} | {ratio:.2f} "
            f"| {min(ratios):.2f}..{max(ratios):.2f} | {row.bar:g} "
            f"| {row.aim:g} | {verdict} |")


def machine():
    model = next((text.split(":")[1].strip()
                  for text in open("/proc/cpuinfo", encoding="ascii")
                  if text.startswith("model name")), platform.machine())
    return (f"{platform.node()}: {os.cpu_count()} x {model}, "
            f"Linux {platform.release()}")


def main():
    parser = argparse.ArgumentParser(
        usage="./run-bench [--rounds N] [SUBJECT...]",
        epilog="Subjects: " + ", ".join(SUBJECTS))
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("subjects", nargs="*")
    options = parser.parse_args()
    subjects = options.subjects or list(SUBJECTS)
    if not set(subjects) <= set(SUBJECTS):
        parser.error("no such subject")
    if os.geteuid() != 0 and {"import", "start"} & set(subjects):
        parser.error("import and start need root for their throw-away hosts")

    rounds = {subject: [] for subject in subjects}
    with tempfile.TemporaryDirectory(prefix="vc-bench-") as scratch:
        for number in range(options.rounds):
            for subject in subjects:
                run, at_most = SUBJECTS[subject]
                if at_most is None or number < at_most:
                    print(f"round {number + 1} of {options.rounds}: {subject}",
                          file=sys.stderr, flush=True)
                    rounds[subject].append(run(pathlib.Path(scratch)))

    print(f"{machine()}; {options.rounds} rounds\n")
    print("| work | peer | measured | ratio | of rounds | bar | aim | |")
    print("|---|---|---|---|---|---|---|---|")
    for row in ROWS:
        if row.subject in subjects:
            print(line(row, rounds[row.subject]))


if __name__ == "__main__":
    main()
