"""A terminal as administrators have it: it echoes, edits, and may go away."""

import re

import pytest

from faults import environment
from harness import BUILD, HANGUP, SCREENS, Host, Raw
from imports import ANNS_MAIL

PROMPT = b"yes/no/quit [yes] "


def on_a_terminal(name, *typed):
    """The screen with what was typed, in bytes, echoed behind its prompts."""
    screen = (SCREENS / f"{name}.txt").read_bytes().replace(b"\n", b"\r\n")
    parts = re.split(rb"(?<=\[yes\] )", screen)
    return b"".join(
        part + (line + b"\r\n" if line else b"")
        for part, line in zip(parts, [*typed, b""], strict=True))


@pytest.mark.parametrize("env", [
    {}, {"TERM": "dumb"}, {"TERM": ""}, {"TERM": "xterm-256color"},
    {"LANG": "C.UTF-8", "LC_ALL": "C.UTF-8"}, {"LANG": "tr_TR.UTF-8"},
    {"COLUMNS": "40", "LINES": "10"}])
def test_the_screen_is_the_same_on_every_terminal(host, env):
    run = host.run("Install", ["maybe", "x", "\xff", "no"], stdin="tty",
                   env=env)
    assert run.output == on_a_terminal(
        "FullInstall/asked_again", b"maybe", b"x", "\xff".encode(), b"no")
    assert run.status == 255


@pytest.mark.parametrize("typed", [
    b"yes\x7f\x7f\x7fno\n", b"\x7f\x7fno\n", b"yes\x15no\n", b"\x15\x15no\n",
    b"yes maybe\x17\x15no\n", b"no\r", b"\x16\x15\x7fno\n", b"no\x04\x04"])
def test_a_line_is_edited_before_it_is_an_answer(host, typed):
    """Erase, kill, word erase, Return, a quoted byte, an end of input."""
    run = host.run("Install", [Raw(typed)], stdin="tty")
    assert run.status == 255 and len(run.prompts) == 1


@pytest.mark.parametrize("key", [b"\x03", b"\x1c", b"yes\x03"])
def test_the_interrupt_keys_end_the_run(host, key):
    run = host.run("Install", [Raw(key)], stdin="tty")
    assert (run.status, run.changes) == (3, {})
    assert run.output.endswith((PROMPT + b"^C", PROMPT + b"^\\",
                                PROMPT + b"yes^C"))


def test_resizing_and_stopping_do_not_disturb_a_question(host):
    def disturb(host):
        host.sh("p=$(pgrep -x Install) && kill -WINCH $p && kill -STOP $p && "
                "sleep 0.1 && kill -CONT $p")

    run = host.run("Install", [disturb, "no"], stdin="tty")
    assert run.output == on_a_terminal("FullInstall/declined", b"no")
    assert run.status == 255


# One answer a line, for the host of `furnish`.
PASTED = [b"y", b"y", b"", b"p", b"", b"", b"", b"", b"pop", b"", b"secret1",
          b"", b"", b""]


def furnish(host):
    host.user("ann", 1001, gecos="Ann Smith", mail=ANNS_MAIL)
    host.user("jo", 1002, gecos="J\u00f6rg \u00d6", mail=ANNS_MAIL)
    host.sh("chmod g-s /var/mail")
    host.write("/etc/inetd.conf", "smtp stream tcp nowait root smtpd smtpd\n")
    host.daemon("inetd")


def state(host):
    """What an installation leaves, less times, numbers and the spool."""
    listing = host.sh(
        "cd / && find etc var/mail opt/vellumcraft/config opt/vellumcraft/"
        "mailboxes usr/lib/sendmail* -printf '%p %M %u %g %l\\n' | sort")
    listing = re.sub(r"in/\d+\.AA[A-Z]\d+@", "in/ID@", listing)
    accounts = host.sh(f"{BUILD}/vcdb check /opt/vellumcraft/config/* && "
                       f"{BUILD}/vcdb dump /opt/vellumcraft/config/Accounts")
    # The password of the Postmaster and those of users are stored scrambled.
    return listing, re.sub(r"\t.*UNIX-PASSWORD +", "\tHASH", accounts)


def install(host, answers=(), **more):
    return host.run("Install", answers, until="Starting vellumcraft",
                    stdin=more.pop("stdin", "tty"), **more)


def test_answers_that_are_pasted_at_once_are_taken_one_by_one():
    with Host() as host:
        furnish(host)
        slow = install(host, list(PASTED))
        wanted = state(host)
    assert b"    jo@example.com (J\xc3\xb6rg \xc3\x96)....created\r\n" in (
        slow.output)
    with Host() as host:
        furnish(host)
        pasted = install(host, [Raw(b"\n".join(PASTED) + b"\n")])
        assert len(pasted.prompts) == 1
        assert state(host) == wanted
    with Host() as host:
        furnish(host)
        piped = install(host, input=b"\n".join(PASTED) + b"\n", stdin="pipe")
        assert state(host) == wanted
    # The terminal echoes once, at the paste or at each answer.
    slow, pasted, piped = (
        run.output.split(b"Starting vellumcraft")[0].replace(b"\r", b"")
        for run in (slow, pasted, piped))
    typed = sum(len(line) + 1 for line in PASTED)
    assert len(pasted) == len(slow) == len(piped) + typed


def test_a_window_that_is_closed_at_any_question_loses_nothing():
    with Host() as host:
        furnish(host)
        questions = len(install(host, list(PASTED)).prompts)
        wanted = state(host)
    assert questions == len(PASTED)
    for number in range(questions):
        with Host() as host:
            furnish(host)
            run = host.run("Install", [*PASTED[:number], HANGUP], stdin="tty")
            assert run.status == 3, number
            assert not host.sh("pgrep -x Install || true"), number
            run = install(host, {"Set up UNIX delivery": "pop",
                                 "change any information?": "yes"})
            assert "Starting vellumcraft" in run.text, number
            assert state(host) == wanted, number


def test_a_run_under_script_is_recorded_as_it_was(host):
    host.sh(f"script -q -e -c {BUILD}/Install /dev/shm/typescript; "
            "echo $? > /dev/shm/status", stdin=b"no\n")
    assert host.read("/dev/shm/status") == b"255\n"
    recorded = host.read("/dev/shm/typescript")
    assert recorded.count(b"\f") == 1 and recorded.count(PROMPT) == 1


def test_a_users_line_is_there_before_the_work_on_that_user(host):
    for name, uid in (("ann", 1001), ("bob", 1002), ("cat", 1003)):
        host.user(name, uid, gecos=name.upper())
    answers = {"UNIX delivery or POP": "pop"}
    seen = []
    for at in range(1, 100):
        host.sh("rm -f /opt/vellumcraft/config/Accounts*")
        host.run_task("SetupSpecialAccounts")
        run = host.run_task("AddUserAccounts", answers, env=environment(
            "kill", at, calls="pwrite", paths="/opt/vellumcraft/config/"))
        if run.status == 0:
            break
        line = run.text.split("\n")[-1]
        seen += [line] if line not in seen else []
    # The last write, with nothing unfinished on the screen, closes the
    # database.
    assert seen == ["    root@example.com (root)....",
                    "    ann@example.com (ANN)....",
                    "    bob@example.com (BOB)....",
                    "    cat@example.com (CAT)....", ""]
