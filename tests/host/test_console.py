"""The dialogue on a terminal, pipes, nothing at all, and when it goes away."""

import time

import pytest

from harness import BUILD, EOF, HANGUP, Raw, check_screen


@pytest.mark.parametrize("terminal", [False, True])
def test_the_answer_is_followed_by_an_empty_line(host, terminal):
    run = host.run("Install", answers=["no"], terminal=terminal)
    check_screen(run, "FullInstall/declined")
    assert run.status == 255


def test_lines_that_come_ahead_are_kept(host):
    run = host.run("Install", input=b"maybe\nx\n\xff\nno\nyes\n")
    check_screen(run, "FullInstall/asked_again")
    assert run.status == 255


@pytest.mark.parametrize("line", [
    b"no", b"no\r\n", b"n\0yes\n", b"n" + b"o" * 1000000 + b"\n"])
def test_forms_of_an_answer(host, line):
    host.write("/dev/shm/input", line)
    output = host.sh(f"{BUILD}/Install < /dev/shm/input; echo status $?")
    assert output.endswith("quit [yes] \nstatus 255\n")


def test_the_end_of_a_terminals_input_asks_again(host):
    run = host.run("Install", answers=[EOF, EOF, "no"], terminal=True)
    check_screen(run, "FullInstall/end_of_input")
    assert run.status == 255


@pytest.mark.parametrize("stdin, times", [("null", 3), ("pipe", 3)])
def test_the_end_of_other_input_asks_for_ever_but_slowly(host, stdin, times):
    more = {"input": b""} if stdin == "pipe" else {}
    start = time.monotonic()
    run = host.run("Install", stdin=stdin, timeout=20,
                   until="[yes] \n" * (times + 1), **more)
    assert run.text.endswith("quit [yes] " + "\n[yes] " * times + "\n")
    assert times - 1 <= time.monotonic() - start < times + 15
    assert run.status == -9


def test_a_closed_input_ends_the_run(host):
    run = host.run("Install", stdin="closed")
    check_screen(run, "FullInstall/waiting")
    assert (run.status, run.changes) == (3, {})


@pytest.mark.parametrize("closed, status", [
    ("0<&-", 0), ("1>&-", 3), ("2>&-", 0), ("0<&- 1>&- 2>&-", 3)])
def test_no_file_takes_the_place_of_a_closed_descriptor(host, closed, status):
    """Or the dialogue would be written into the server's databases."""
    files = "cat /etc/vellumcraft.conf /etc/hosts /etc/passwd /etc/group"
    before = host.sh(files)
    output = host.sh(f"{BUILD}/run_task SetupSpecialAccounts+CreateMailboxDir "
                     f"{closed}; echo status $?")
    assert output.endswith(f"status {status}\n")
    assert ("Checking for Mailbox" in output) == (status == 0)
    assert host.sh(files) == before
    host.sh(f"{BUILD}/vcdb check /opt/vellumcraft/config/Accounts")


@pytest.mark.parametrize("terminal", [False, True])
def test_a_console_that_goes_away_ends_the_run(host, terminal):
    run = host.run("Install", answers=[HANGUP], terminal=terminal)
    assert (run.status, run.changes) == (3, {})


@pytest.mark.parametrize("reader", ["| true", "> /dev/full"])
@pytest.mark.parametrize("program", ["Install", "AddUserAccounts"])
def test_output_that_fails_ends_the_run(host, program, reader):
    host.sh(f"(cd /; {BUILD}/{program} < /dev/null; echo $? > /dev/shm/status)"
            f"{reader}")
    assert host.read("/dev/shm/status") == b"3\n"


def test_half_an_answer_is_waited_for(host):
    run = host.run("Install", answers=[Raw(b"n"), Raw(b"o"), Raw(b"\n")])
    check_screen(run, "FullInstall/declined")
