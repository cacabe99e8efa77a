"""The setgid bit of the maildrop directory."""

import pytest

from faults import environment
from harness import check_screen

REMINDERS = ["chmod g+s /var/mail/", ""]


def set_mode(host, mode):
    host.sh(f"/usr/bin/python3 -c 'import os; os.chmod(\"/var/mail\", {mode})'")


@pytest.mark.parametrize("mode", [0o2775, 0o3777, 0o2010, 0o2755])
def test_both_bits_are_there(host, mode):
    set_mode(host, mode)
    run = host.run_task("FixMaildropDir")
    check_screen(run, "FixMaildropDir/ok")
    assert (run.status, run.reminders, run.changes) == (0, [], {})


@pytest.mark.parametrize("mode, result", [
    (0o775, 0o2775), (0o2765, 0o2775), (0o1777, 0o3777), (0o700, 0o2710),
    (0, 0o2010), (0o4755, 0o6755)])
def test_the_bits_are_added(host, mode, result):
    set_mode(host, mode)
    run = host.run_task("FixMaildropDir", answers=["" if mode else "Yes"])
    check_screen(run, "FixMaildropDir/asked")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert list(run.changes) == ["/var/mail"]
    change = run.changes["/var/mail"]
    assert (change.mode, change.owner, change.group) == (result, "root", "mail")


@pytest.mark.parametrize("answer", ["no", "maybe", " yes", "x"])
def test_declined(host, answer):
    set_mode(host, 0o775)
    run = host.run_task("FixMaildropDir", answers=[answer])
    check_screen(run, "FixMaildropDir/asked")
    assert (run.status, run.reminders, run.show_stoppers, run.changes) == (
        0, REMINDERS, 0, {})


@pytest.mark.parametrize("answer", ["q", "Quit"])
def test_quit(host, answer):
    set_mode(host, 0o775)
    run = host.run_task("FixMaildropDir", answers=[answer])
    check_screen(run, "FixMaildropDir/asked")
    assert (run.status, run.reminders, run.changes) == (255, [], {})


@pytest.mark.parametrize("instead", [
    "true", "echo x > /var/mail", "ln -s nowhere /var/mail",
    "ln -s mail /var/mail", "mkfifo /var/mail"])
def test_not_a_directory(host, instead):
    host.sh(f"rm -r /var/mail; {instead}")
    run = host.run_task("FixMaildropDir")
    check_screen(run, "FixMaildropDir/not_found")
    assert (run.status, run.reminders, run.prompts) == (255, [], [])


def test_a_directory_behind_a_link(host):
    host.sh("mv /var/mail /var/postbox && ln -s postbox /var/mail")
    host.sh("chmod g-s /var/postbox")
    run = host.run_task("FixMaildropDir")
    check_screen(run, "FixMaildropDir/asked")
    assert run.changes["/var/postbox"].mode == 0o2775
    assert len(run.changes) == 1


def test_stat_failed(host):
    run = host.run_task("FixMaildropDir", env=environment(
        "fail", 1, calls="stat", paths="/var/mail/", errno="EIO"))
    check_screen(run, "FixMaildropDir/stat_failed")
    assert (run.status, run.reminders, run.changes) == (255, [], {})


def test_chmod_failed(host):
    set_mode(host, 0o775)
    run = host.run_task("FixMaildropDir", env=environment(
        "fail", 1, calls="chmod", paths="/var/mail/", errno="EROFS"))
    check_screen(run, "FixMaildropDir/chmod_failed")
    assert (run.status, run.reminders, run.show_stoppers, run.changes) == (
        0, REMINDERS, 0, {})
