"""Starting the server, telling a running one, and starting nothing."""

import time

import pytest

from faults import environment
from harness import BUILD, SCREENS, check_screen

LISTING = "/dev/shm/daemon"

# A server that tells what it was given.  (A shell would give up the group.)
DAEMON = f"""#!/usr/bin/python3 -I
import os, sys
fields = ("Uid:", "Gid:", "Groups:", "SigBlk:", "SigIgn:", "Umask:")
with open("/proc/self/status") as status:
    lines = [line.strip() for line in status if line.startswith(fields)]
lines += os.listdir("/proc/self/fd")
with open("{LISTING}", "w") as listing:
    print(sys.argv, *lines, sep="\\n", file=listing)
"""

STAND_IN = b"vellumcraft: stand-in for the real server, for rehearsals only\n"


def screen(name):
    return (SCREENS / f"{name}.txt").read_bytes()


def started_screen(name):
    """The screen with what the stand-in says before the last line end."""
    return screen(name)[:-1] + STAND_IN + b"\n"


def with_problems(host, answer):
    """A start after a task that left a problem that blocks it."""
    host.daemon("sendmail")
    return host.run_task("KillSendmail+StartDaemon",
                         answers={"sendmail": "no", "anyway": answer})


def test_started(host):
    host.install_server()
    start = time.monotonic()
    run = host.run_task("StartDaemon")
    assert 4 <= time.monotonic() - start < 20
    assert run.output == started_screen("StartDaemon/started")
    assert (run.status, run.reminders, run.started) == (
        0, [], ["vellumcraft"])


def test_the_server_gets_root_and_nothing_else(host):
    host.write("/opt/vellumcraft/vellumcraft", DAEMON, mode=0o755)
    host.sh(f"cd /opt/vellumcraft && {BUILD}/run_task StartDaemon "
            "7</etc/hosts 9>/dev/shm/other")
    lines = host.read(LISTING).decode().split("\n")
    assert lines[0] in ("['vellumcraft']", "['./vellumcraft']")
    fields = dict(line.split(":", 1) for line in lines if ":" in line)
    assert fields["Uid"].split() == ["0", "0", "0", "0"]
    assert fields["Gid"].split()[1] == "950" and fields["Groups"].split() == []
    assert int(fields["SigBlk"], 16) == 0
    # The interpreter of the stand-in itself ignores SIGPIPE and SIGXFSZ.
    assert int(fields["SigIgn"], 16) & ~(1 << 12 | 1 << 24) == 0
    assert fields["Umask"].split() == ["0007"]
    assert not {"7", "9"} & set(lines)


def test_the_address_is_its_only_argument(host):
    host.write("/opt/vellumcraft/vellumcraft", DAEMON, mode=0o755)
    host.sh("cp /etc/vellumcraft.conf /etc/vellumcraft.conf-192.0.2.7")
    run = host.run_task("StartDaemon", args=["192.0.2.7", "other"])
    assert run.status == 0
    first = host.read(LISTING).decode().split("\n")[0]
    assert first.endswith("vellumcraft', '192.0.2.7']")


def test_without_a_server_program_the_installer_cannot_tell(host):
    run = host.run("/usr/bin/strace", cwd="/", args=[
        "-f", "-qq", "-e", "trace=execve,exit_group", "-o", "/dev/shm/trace",
        f"{BUILD}/run_task", "StartDaemon"])
    check_screen(run, "StartDaemon/started")
    assert (run.status, run.changes, run.errors) == (0, {}, b"")
    trace = host.read("/dev/shm/trace").decode()
    assert 'execve("vellumcraft", ["vellumcraft"], ' in trace
    assert "exit_group(127)" in trace


def test_a_running_server_is_told(host):
    server = host.daemon("vellumcraft", ports=[25])
    run = host.run_task("KillServers+StartDaemon")
    check_screen(run, "KillServers/running")
    assert (run.status, server.signals()) == (0, [1])
    assert run.started == [] and server.alive()


@pytest.mark.parametrize("answer", ["", "no", "q", "maybe", " y"])
def test_problems_left(host, answer):
    host.install_server()
    run = with_problems(host, answer)
    assert run.output == screen("KillSendmail/declined") + screen(
        "StartDaemon/problems_left")
    assert (run.status, run.started, run.show_stoppers) == (255, [], 1)


def test_started_anyway(host):
    host.install_server()
    run = with_problems(host, "Yes")
    assert run.output == screen("KillSendmail/declined") + started_screen(
        "StartDaemon/started_anyway")
    assert (run.status, run.started) == (0, ["vellumcraft"])


def test_a_refused_start_ends_without_a_report(host):
    host.daemon("sendmail")
    run = host.run_task("KillSendmail+StartDaemon+WarnAdmin",
                        answers={"sendmail": "no", "anyway": "no"})
    assert run.output == screen("KillSendmail/declined") + screen(
        "StartDaemon/problems_left")
    assert run.status == 255


def test_five_failures_to_make_a_process_give_up(host):
    host.install_server()
    start = time.monotonic()
    run = host.run_task("StartDaemon", env=environment(
        "fail", 1, calls="fork", errno="EAGAIN", times=5))
    assert 15 <= time.monotonic() - start < 40
    check_screen(run, "StartDaemon/no_process")
    assert (run.status, run.started) == (255, [])


def test_a_later_attempt_may_succeed(host):
    host.install_server()
    start = time.monotonic()
    run = host.run_task("StartDaemon", env=environment(
        "fail", 1, calls="fork", errno="ENOMEM", times=2))
    assert 1 + 2 + 4 <= time.monotonic() - start < 20
    assert run.output == started_screen("StartDaemon/started")
    assert (run.status, run.started) == (0, ["vellumcraft"])
