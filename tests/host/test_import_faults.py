"""The import when each of its system calls fails, or is its last.

VC_LONG=1 hits every call of the whole run, not only those on the user's files
and the accounts, by three errors each; that takes two minutes instead of half a
minute.
"""

import os

import pytest

from faults import counted_calls, environment
from imports import (ANNS_MAIL, MAILBOXES, POP, SPOOLED, TASK, accounts,
                     messages, queued)

IS_LONG = bool(os.environ.get("VC_LONG"))
PATHS = "" if IS_LONG else (
    f"/var/mail/:/home/ann/:{MAILBOXES}/:{SPOOLED}config/Accounts")
CONVERTED = [b"S: 1\r\n\r\nhi\r\n", b"S: 2\r\n\r\nho\r\n"]
ANSWERS = {"Which method": "f", "password file name": "/tmp/pw", **POP}
KEYS = {"Finger-Info", "Local-Delivery", "Name", "POP-Address", "Raw-Password",
        "SMTP-Address", "SMTP-RewriteStyle", "UNIX-UserName"}


@pytest.fixture(autouse=True)
def prepared(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)
    host.user("ann", 1001, gecos="Ann")
    host.write("/home/ann/.plan", "sleep\n", owner=1001, group=100)
    host.write("/home/ann/.forward", "x@y.z\n", owner=1001, group=100)
    host.write("/tmp/pw", "ann:x:1001:100:Ann:/home/ann:\n")


def import_ann(host, env=None):
    """Runs the import on a host where nothing was imported yet."""
    host.sh(f"rm -rf {MAILBOXES}/* {SPOOLED}config/Accounts* /var/mail/* "
            f"{SPOOLED}control/* {SPOOLED}messages/* "
            "/home/ann/.forward.NOTICE")
    host.write("/var/mail/ann", ANNS_MAIL, 0o660, 1001, 8)
    return host.run_task(TASK, ANSWERS, env=env)


def calls_of(host):
    calls = counted_calls(host, lambda env: import_ann(host, env), paths=PATHS)
    assert {"linkat", "symlink", "syncfs", "rename", "unlink"} <= {
        name for name, _ in calls}
    return calls


def numbered(calls, first=1):
    """[(number, call)] without those that the harness makes."""
    return [(at, call) for at, call in enumerate(calls, 1)
            if at >= first and not call[1].startswith("/dev/shm/")]


def place_of_the_mail(host, where):
    """"spool", "mailbox" or "both"; each is whole, and so is the account."""
    has_spool = host.exists("/var/mail/ann")
    has_mailbox = host.exists(f"{MAILBOXES}/Ann/in")
    if has_spool:
        assert host.read("/var/mail/ann") == ANNS_MAIL, where
    if has_mailbox:
        assert messages(host, "Ann") == CONVERTED, where
    if host.exists(SPOOLED + "config/Accounts"):
        for account in accounts(host).values():
            assert set(account) == KEYS, where
    if host.exists("/home/ann/.forward.NOTICE"):
        notice = host.read("/home/ann/.forward.NOTICE")
        assert notice.endswith(b"more information.\n\n"), where
    assert has_spool or has_mailbox, where
    return ("both" if has_spool and has_mailbox else
            "spool" if has_spool else "mailbox")


@pytest.mark.parametrize("mode", ["kill", "torn"])
def test_whatever_kills_the_import_a_second_run_ends_it(host, mode):
    calls = calls_of(host)
    locked = 1 + max(at for at, (name, path) in enumerate(calls)
                     if name == "linkat" and path.startswith("/var/mail/"))
    for at, call in numbered(calls):
        # How the database's head is written no kill can tear.
        if mode == "torn" and call[0] != "write":
            continue
        where = f"{mode} at {at}, {call}"
        done = import_ann(host, environment(mode, at, paths=PATHS))
        assert done.status == -9, where
        place_of_the_mail(host, where)

        again = host.run_task(TASK, ANSWERS)
        assert again.status == 0 and "Error" not in again.text, where
        assert list(accounts(host)) == ["Ann"], where
        assert host.exists("/home/ann/.forward.NOTICE"), where
        if place_of_the_mail(host, where) == "spool":
            # The account had been made and the conversion not begun.
            assert at <= locked and "already exists" in again.text, where
            assert host.listdir(MAILBOXES) == [], where
            assert host.listdir("/var/mail") == ["ann"], where
        else:
            assert host.listdir(MAILBOXES + "/Ann") == ["in"], where
            assert host.listdir("/var/mail") == [], where


def test_whatever_fails_the_mail_is_in_one_place_and_truly_told_of(host):
    errors = ("ENOSPC", "EIO", "EACCES")
    calls = calls_of(host)
    for at, call in numbered(calls):
        for error in errors if IS_LONG else errors[at % 3:at % 3 + 1]:
            where = f"{error} at {at}, {call}"
            done = import_ann(host, environment("fail", at, paths=PATHS,
                                                errno=error))
            place = place_of_the_mail(host, where)
            text = done.text
            if "WARNING: couldn't open /tmp/pw" in text:
                assert place == "spool" and call[1] == "/tmp/pw", where
                continue
            if done.status == 255 and text.endswith("\n\nExiting.\n\n"):
                assert place == "spool" and "Accounts" in call[1], where
                continue
            if done.status != 0:
                # An identity that can't be changed, a console that is gone.
                assert IS_LONG and done.status in (3, 255), where
                continue
            assert place != "both", where
            assert text.count("....created\n") + text.count(
                "....Error: couldn't create the account!\n") == 1, where
            assert (place == "mailbox") == (
                "....created\n" in text and
                "Error: Unable to convert" not in text), where
            if place == "spool":
                assert host.listdir(MAILBOXES) in ([], ["Ann"]), where
                if host.exists(MAILBOXES + "/Ann"):
                    assert not host.exists(MAILBOXES + "/Ann/in"), where


def test_messages_are_on_disk_before_the_spool_goes(host):
    calls = calls_of(host)
    unfinished = f"{MAILBOXES}/Ann/in.unfinished.ann"

    def last(call, path):
        return max(at for at, (name, where) in enumerate(calls)
                   if name == call and where.startswith(path))

    assert (last("write", unfinished) < last("syncfs", unfinished) <
            last("rename", f"{MAILBOXES}/Ann/in") <
            last("fsync", f"{MAILBOXES}/Ann") <
            calls.index(("unlink", "/var/mail/ann")))


def test_signals_wait_for_the_user_in_hand(host):
    host.user("bob", 1002, gecos="Bob", mail=b"")
    host.write("/tmp/pw", "ann:x:1001:100:Ann:/home/ann:\n"
                          "bob:x:1002:100:Bob:/home/bob:\n")
    calls = calls_of(host)
    begin = min(at for at, (_, path) in enumerate(calls, 1)
                if path == "/var/mail/ann")
    end = max(at for at, (_, path) in enumerate(calls, 1)
              if path.startswith("/var/mail/ann"))
    note = b"\nPlease wait until I'm finished with this.\n\n"
    for at, call in numbered(calls, begin):
        number = (1, 2, 3, 15)[at % 4]
        where = f"signal {number} at {at}, {call}"
        done = import_ann(host, environment("signal", at, paths=PATHS,
                                            signal=number))
        if IS_LONG and note not in done.output:
            continue
        assert done.status == 0 and done.output.count(note) == 1, where
        assert place_of_the_mail(host, where) == "mailbox", where
        if at <= end:
            assert done.output.endswith(b"\n\nInterrupted.\n"), where
            assert list(accounts(host)) == ["Ann"], where
            assert queued(done) == {}, where
        else:
            # Noted only, since nobody was left.
            assert b"Interrupted" not in done.output, where
            assert list(accounts(host)) == ["Ann", "Bob"], where
            assert "AB-Control" in queued(done), where
