"""Ending a running sendmail daemon."""

import pytest

from faults import environment
from harness import check_screen

REMINDERS = ["Shutdown sendmail daemon process", ""]

# A listing of processes in the layout of `ps -e`, without its heading.
PS = """#!/bin/sh
echo '   PID TTY          TIME CMD'
"""


def show_processes(host, *lines):
    """Replaces the process listing, keeping a real one where asked."""
    host.write("/usr/bin/ps", PS + "".join(
        f"echo '{line}'\n" for line in lines), mode=0o755)


def test_none(host):
    other = host.daemon("postmaster")
    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/none")
    assert (run.status, run.reminders, run.changes) == (0, [], {})
    assert other.signals(0.1) == []


@pytest.mark.parametrize("answer", ["", "YES", "y"])
def test_every_process_whose_name_contains_it_is_ended_once(host, answer):
    names = ["sendmail", "sendmail-mta", "in.sendmaild"]
    daemons = [host.daemon(name) for name in names]
    other = host.daemon("sendmai")
    run = host.run_task("KillSendmail", answers=[answer])
    check_screen(run, "KillSendmail/killed")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert [daemon.signals() for daemon in daemons] == [[15]] * 3
    assert other.signals(0.1) == []
    assert run.changes == {}


def test_success_is_a_delivered_signal_not_an_ended_process(host):
    daemon = host.daemon("sendmail", ignore=[15])
    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/killed")
    assert daemon.signals() == [15] and daemon.alive()


def test_quit(host):
    daemon = host.daemon("sendmail")
    run = host.run_task("KillSendmail", answers=["quit"])
    check_screen(run, "KillSendmail/quit")
    assert (run.status, run.reminders, run.show_stoppers) == (255, [], 0)
    assert daemon.signals(0.1) == []


@pytest.mark.parametrize("answer", ["no", " yes", "kill"])
def test_declined(host, answer):
    daemon = host.daemon("sendmail")
    run = host.run_task("KillSendmail", answers=[answer])
    check_screen(run, "KillSendmail/declined")
    assert (run.status, run.reminders, run.show_stoppers) == (0, REMINDERS, 1)
    assert daemon.signals(0.1) == []


def test_processes_of_the_system_are_never_signalled(host):
    show_processes(host, "     1 ?        00:00:00 sendmail",
                   "    10 ?        00:00:00 sendmail")
    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/not_killed")
    assert (run.status, run.reminders, run.show_stoppers) == (0, REMINDERS, 1)
    assert run.signalled == []


def test_a_process_that_has_ended_can_not_be_killed(host):
    show_processes(host, " 4000000 ?        00:00:00 sendmail")
    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/not_killed")
    assert (run.reminders, run.show_stoppers) == (REMINDERS, 1)


def test_an_id_that_changed_hands_during_the_question_is_spared(host):
    heir = host.daemon("innocent")
    host.write("/dev/shm/name", "sendmail")
    host.write("/usr/bin/ps", PS + "read name </dev/shm/name || :\n"
               f"echo ' {heir.pid} ? 00:00:00' $name\n", mode=0o755)

    def answer(on_host):
        on_host.write("/dev/shm/name", "innocent")
        return "yes"

    run = host.run_task("KillSendmail", answers=[answer])
    check_screen(run, "KillSendmail/not_killed")
    assert heir.signals(0.1) == []


def test_found_without_a_process_listing(host):
    daemon = host.daemon("sendmail-mta")
    host.remove("/usr/bin/ps")
    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/killed")
    assert daemon.signals() == [15]


def test_one_delivered_signal_of_several_is_success(host):
    daemons = [host.daemon("sendmail") for _ in range(3)]
    env = environment("fail", 1, calls="kill", errno="ESRCH", times=2)
    run = host.run_task("KillSendmail", env=env)
    check_screen(run, "KillSendmail/killed")
    assert [daemon.signals(0.1) for daemon in daemons] == [[], [], [15]]


def test_no_delivered_signal_is_a_failure(host):
    host.daemon("sendmail")
    env = environment("fail", 1, calls="kill", errno="EPERM", times=0)
    run = host.run_task("KillSendmail", env=env)
    check_screen(run, "KillSendmail/not_killed")
    assert (run.reminders, run.show_stoppers) == (REMINDERS, 1)
