"""Builds the project and runs every test group, a line a group.

A group is one GoogleTest program of a build directory, one fuzz program, one
file of host tests, or the repository check.  A group that crashes, or that runs
no test, counts as one failure.  The last line is "N passed, N failed".
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree

REPO = pathlib.Path(__file__).resolve().parent.parent
PYTHON = "/usr/bin/python3"
GROUP_SECONDS = 1200
FUZZ_RUNS = 2000


class Group:
    """One line of the report: a name and a command that leaves a result."""

    def __init__(self, name, command, kind, env=None):
        self.name = name
        self.command = command
        self.kind = kind
        self.env = dict(os.environ, **(env or {}))

    def run(self):
        """Returns (passed, failed, skipped, seconds, output)."""
        start = time.monotonic()
        with tempfile.TemporaryDirectory() as scratch:
            result = pathlib.Path(scratch, "result")
            command = list(self.command)
            if self.kind == "gtest":
                command.append(f"--gtest_output=json:{result}")
            elif self.kind == "pytest":
                command.append(f"--junitxml={result}")
            try:
                done = subprocess.run(
                    command, cwd=REPO, env=self.env, timeout=GROUP_SECONDS,
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                    stderr=subprocess.STDOUT, check=False)
                output = done.stdout.decode("utf-8", "replace")
                status = done.returncode
            except subprocess.TimeoutExpired as late:
                output = (late.stdout or b"").decode("utf-8", "replace")
                output += f"\nended after {GROUP_SECONDS} seconds\n"
                status = -1
            passed, failed, skipped = self._count(result, status, output)
        return passed, failed, skipped, time.monotonic() - start, output

    def _count(self, result, status, output):
        if self.kind == "plain":
            return (1, 0, 0) if status == 0 and not output else (0, 1, 0)
        count = count_gtest if self.kind == "gtest" else count_pytest
        try:
            total, failed, skipped = count(result)
        except (OSError, ValueError, xml.etree.ElementTree.ParseError):
            return 0, 1, 0
        if failed == 0 and (status != 0 or total == 0):
            failed, total = 1, total + 1
        return total - failed - skipped, failed, skipped


def count_gtest(path):
    report = json.loads(path.read_text())
    skipped = sum(
        test.get("result") == "SKIPPED"
        for suite in report["testsuites"] for test in suite["testsuite"])
    return report["tests"], report["failures"] + report["errors"], skipped


def count_pytest(path):
    suite = xml.etree.ElementTree.parse(path).getroot().find("testsuite")
    return (int(suite.get("tests")),
            int(suite.get("failures")) + int(suite.get("errors")),
            int(suite.get("skipped")))


def build(preset):
    """Configures and builds one preset; its build directory, None on failure."""
    for command in (["cmake", "--preset", preset],
                    ["cmake", "--build", "--preset", preset]):
        done = subprocess.run(command, cwd=REPO, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False)
        if done.returncode != 0:
            print(done.stdout.decode("utf-8", "replace")[-20000:])
            print(f"FAILED  build {preset}", flush=True)
            return None
    print(f"ok      build {preset}", flush=True)
    return REPO / ("build" if preset == "release" else f"build-{preset}")


def unit_groups(directory, label):
    env = {"UBSAN_OPTIONS": "print_stacktrace=1", "VC_BUILD": str(directory)}
    return [Group(f"{label} {program.name}", [str(program)], "gtest", env)
            for program in sorted(directory.glob("*_test"))
            if program.is_file() and os.access(program, os.X_OK)]


def fuzz_groups(directory):
    """Each fuzz program on its corpus and the same few mutations of it."""
    env = {"ASAN_OPTIONS": "abort_on_error=1",
           "UBSAN_OPTIONS": "abort_on_error=1:print_stacktrace=1"}
    return [Group(f"fuzz {name}",
                  [str(directory / f"{name}_fuzz"), f"-runs={FUZZ_RUNS}",
                   str(REPO / "fuzz" / "corpus" / name)], "plain", env)
            for name in sorted(os.listdir(REPO / "fuzz" / "corpus"))]


# What takes longest begins first, so that nothing is left to wait for alone.
LONG = ("check", "pattern_exhaustive_test", "database_faults_test",
        "test_package", "test_whole_faults", "test_demo", "test_admin_account",
        "test_features", "test_real_components", "test_inetd", "test_import",
        "test_terminal", "test_twice")


def longest_first(groups):
    def place(group):
        return next((i for i, word in enumerate(LONG) if word in group.name),
                    len(LONG))
    return sorted(groups, key=place)


def host_groups(directory):
    env = {"VC_BUILD": str(directory)}
    return [Group(f"host {file.stem}",
                  [PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                   str(file)], "pytest", env)
            for file in sorted((REPO / "tests" / "host").glob("test_*.py"))]


def run(groups, workers):
    """Runs the groups and prints a line for each; the sums over all."""
    sums = [0, 0, 0]
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        running = {pool.submit(group.run): group for group in groups}
        for future in concurrent.futures.as_completed(running):
            group = running[future]
            passed, failed, skipped, seconds, output = future.result()
            word = "FAILED" if failed else "ok    "
            print(f"{word}  {group.name:<40} {passed} passed, {failed} failed"
                  + (f", {skipped} skipped" if skipped else "")
                  + f"  ({seconds:.1f} s)", flush=True)
            if failed:
                print(output[-12000:], flush=True)
            for i, number in enumerate((passed, failed, skipped)):
                sums[i] += number
    return sums


def main(arguments):
    quick = "--quick" in arguments
    words = [word for word in arguments if not word.startswith("--")]

    quiet_groups = []
    waiting_groups = []
    failed_builds = 0
    release = build("release")
    if release is None:
        failed_builds += 1
    else:
        quiet_groups += unit_groups(release, "unit")
        waiting_groups += [] if quick else host_groups(release)
    if not quick:
        asan = build("asan")
        if asan is None:
            failed_builds += 1
        else:
            quiet_groups += unit_groups(asan, "sanitized")
            quiet_groups += fuzz_groups(asan)
        waiting_groups.append(
            Group("check", ["nice", "tools/check"], "plain"))

    # Host tests mostly wait for the programs that they watch; the check takes
    # what they leave.
    sums = [0, failed_builds, 0]
    for groups, workers in ((quiet_groups, 2), (waiting_groups, 4)):
        chosen = longest_first(
            group for group in groups
            if not words or any(word in group.name for word in words))
        for i, number in enumerate(run(chosen, workers)):
            sums[i] += number
    skipped = f", {sums[2]} skipped" if sums[2] else ""
    print(f"{sums[0]} passed, {sums[1]} failed{skipped}")
    return 0 if sums[1] == 0 and sums[0] > 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
