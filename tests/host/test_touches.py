"""What a whole installation touches, as whom, and whether it can be undone."""

import os
import pathlib
import re

import pytest

from harness import BUILD, REPO
from tracing import trace
from whole import (CONFIG, HOME, INETD_OLD, MAILBOXES, ROOTS, USERS, Whole,
                   message, stored)

DOCUMENT = REPO / "docs" / "what-it-touches.md"
LEDGER = pathlib.Path(__file__).with_name("identity_ledger.txt")
# Full dialogues: with defaults, with POP delivery, with every feature changed.
DIALOGUES = {
    "defaults": {},
    "POP": {"Which method": "p", "UNIX delivery or POP": "p"},
    "changes": {"Which method": "a", "change this information": "y",
                "World Wide Web port": "26", "Postmasters:": "x@y.example"},
}


@pytest.fixture(scope="module")
def traces():
    """{dialogue: operations}; the second run of the last is traced, too."""
    found = {}
    with Whole() as whole:
        for name, answers in DIALOGUES.items():
            whole.restore()
            whole.answers = answers
            found[name] = trace(whole)
        found["second"] = trace(whole)
    return found


def rows():
    """(path, identity) of the document's table."""
    for line in DOCUMENT.read_text().splitlines():
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) > 5 and cells[1] not in ("task", "---"):
            for path in re.findall(r"`([^`]*)`", cells[2]):
                yield path, cells[4]


# What the placeholders of the document stand for.
PLACES = {"HOME": HOME, "BOXES": MAILBOXES, "MODULE": r"[A-Z][\w-]*",
          "UID": r"[\w-]+(/[\w-]+)?", "~LOGIN": "/home/[a-z]+",
          "LOGIN": "[a-z]+", "NAME": r"[\w.@-]+", "PID": r"\d+", "bakN": r"bak\d*"}


def pattern(path):
    """The regular expression of a path of the document."""
    pieces = re.split("(" + "|".join(PLACES) + ")", path)
    return re.compile("".join(PLACES.get(piece, re.escape(piece))
                              for piece in pieces) + "/?$")


IDENTITIES = {"root": lambda user: user == "0",
              "mail owner": lambda user: user == "950",
              "the user": lambda user: int(user) > 1000}


def test_only_what_the_document_lists_is_touched_and_as_it_says(traces):
    table = [(pattern(path), identity) for path, identity in rows()]
    assert len(table) > 20
    seen = set()
    for name, operations in traces.items():
        for operation, path, ids in operations:
            if operation in ("read", "signal"):
                continue
            fitting = [identity for expression, identity in table
                       if expression.match(path)]
            assert fitting, f"{name}: {operation} {path} is not documented"
            assert any(IDENTITIES[identity](ids.split(":")[0])
                       for identity in fitting), (
                f"{name}: {operation} {path} as {ids}, not as {fitting}")
            seen.update(expression.pattern for expression, _ in table
                        if expression.match(path))
    # Most of the table is met; the rest needs other hosts.
    assert len(seen) > 25


# The host's own people, by what they are to the installation.
NAMES = {"0": "root", "950": "owner", "100": "users",
         **{str(uid): "user" for uid, *_ in USERS.values()}}


def entry(operation, path, ids):
    """A line of the ledger, without what changes from run to run."""
    path = re.sub(rf"^{MAILBOXES}/[A-Z][\w-]*", "BOXES/UID", path)
    path = path.replace(MAILBOXES, "BOXES").replace(HOME, "HOME")
    path = re.sub("|".join(USERS), "LOGIN", path)
    path = re.sub(r"\d{14}\.([A-Z]+)\d+", r"ID.\1", path)
    path = re.sub(r"ID\.[A-Z]{3}@.*", "ID", path)
    path = re.sub(r"(\.|/)\d+", r"\1PID", path)
    user, group, others = ids.split(":")
    who = ":".join([NAMES.get(user, user), NAMES.get(group, group), ",".join(
        NAMES.get(other, other) for other in others.split(",") if other)])
    return f"{operation:<8} {path:<55} {who}"


def test_every_operation_is_done_as_the_ledger_says(traces):
    """Regenerate with VC_LEDGER=write in the environment, and read the change:
    it is the list of what is done as whom."""
    places = (HOME, "/etc", "/home", "/var", "/usr/lib/sendmail", "SIG")
    found = sorted({entry(*operation) for operations in traces.values()
                    for operation in operations
                    if operation[1].startswith(places)
                    and "/ld.so" not in operation[1]
                    and not operation[1].startswith("/etc/locale")})
    if os.environ.get("VC_LEDGER") == "write":
        LEDGER.write_text("".join(line + "\n" for line in found))
    expected = LEDGER.read_text().splitlines()
    assert sorted(set(found) - set(expected)) == [], "not in the ledger"
    assert sorted(set(expected) - set(found)) == [], "only in the ledger"


def undo_commands():
    return re.search(r"^```sh\n(.*?)^```", DOCUMENT.read_text(),
                     re.M | re.S).group(1)


def test_the_documents_undo_brings_the_old_host_back():
    with Whole() as whole:
        host = whole.host
        host.sh(f"cp '{BUILD}/vcdb' {HOME}/bin/")
        whole.first = host.tree(*ROOTS)
        whole.restore()
        host.sh(f"cp '{BUILD}/vcdb' {HOME}/bin/")
        assert whole.run().status == 0
        assert host.tree(*ROOTS) != whole.first
        host.sh("set -u\n" + undo_commands())
        assert whole.daemons["inetd"].signals() == [1, 1]
        assert "vellumcraft" not in host.processes().values()
        now = host.tree(*ROOTS, *whole.backups())
        assert now["/etc/inetd.conf"][1] == INETD_OLD
        for path in now.keys() | whole.first.keys():
            if path.endswith(".install"):
                continue  # holds the kept settings, as the document says
            assert path in now, f"{path} is missing"
            assert path in whole.first, f"{path} is left"
            (old, before), (new, after) = whole.first[path], now[path]
            assert (old.st_mode, old.st_uid, old.st_gid) == (
                new.st_mode, new.st_uid, new.st_gid), path
            if path.startswith("/var/mail/"):
                before, after = (re.sub(rb"^From .*\n", b"", text, flags=re.M)
                                 for text in (before, after))
            assert after == before, path
        assert set(host.listdir(CONFIG)) == {
            path.rsplit("/", 1)[1] for path in whole.first
            if path.startswith(CONFIG + "/")}
        assert stored(1) and message(1) not in now["/var/mail/ann"][1]
