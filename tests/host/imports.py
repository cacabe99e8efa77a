"""What the tests of the user import and of the conversion share."""

import re

from harness import BUILD

TASK = "AddUserAccounts"
MAILBOXES = "/opt/vellumcraft/mailboxes"
SPOOLED = "/opt/vellumcraft/"
POP = {"UNIX delivery or POP": "p"}
ANNS_MAIL = b"From a\nS: 1\n\nhi\nFrom b\nS: 2\r\n\r\nho"


def accounts(host):
    """{UID: {key: [values]}}"""
    text = host.sh(f"'{BUILD}/vcdb' dump {SPOOLED}config/Accounts")
    found = {}
    for line in text.splitlines():
        if line.startswith("/"):
            keys = found[line[1:]] = {}
        elif line.startswith("\t"):
            values.append(line[1:])
        else:
            values = keys[line] = []
    return found


def queued(run):
    """{tag and kind: content} of the queue files, times and ids taken out."""
    files = {}
    for path, change in run.changes.items():
        match = re.match(SPOOLED + r"(?:control|messages)/\d{14}\.(A[ABC])\d+"
                         r"\.\w+-(\w+)$", path)
        if match:
            content = re.sub(rb"Date: .*? \+0000", b"Date: DATE", change.after)
            files["-".join(match.groups())] = re.sub(rb"<\d{14}\.", b"<TIME.",
                                                     content)
            assert (change.mode, change.owner, change.group) == (
                0o660, "vmail", "vmail")
    return files


def messages(host, uid):
    """The messages of a POP mailbox, by name."""
    directory = f"{MAILBOXES}/{uid}/in"
    return [host.read(f"{directory}/{name}")
            for name in host.listdir(directory)]
