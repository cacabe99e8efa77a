"""The user import: its ways out, both programs, what is queued by each."""

import re

import pytest

from faults import environment
from harness import BUILD, SCREENS, check_screen
from imports import MAILBOXES, SPOOLED, TASK, accounts, queued

FORM = {"NewAccountForm": b"Function: Account-Manager\nControl-Type: Request\n"
                          b"Request-Type: NewAccountForm\nPriority: 1\n"}
GREETING = ["AA-Control"]
SUMMARY = ["AB-Body", "AB-Control", "AB-Header"]
NOTICE = ["AC-Body", "AC-Control", "AC-Header"]

FULL = "full installation"
ALONE = "AddUserAccounts"
ANN = "ann:x:1001:100:Ann:/home/ann:\n"
BOB = "bob:x:1002:100:Bob:/home/bob:\n"
BIN = "bin:x:2:2::/bin:/bin/sh\n"


@pytest.fixture(autouse=True)
def prepared(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)


def start(host, mode, answers, **more):
    if mode == FULL:
        return host.run_task(TASK, answers, **more)
    return host.run(ALONE, answers, **more)


def new_in_the_spool(run):
    """Names of everything that was made there, times and ids taken out."""
    return sorted(re.sub(r"\d+", "N", path.rsplit("/", 1)[1])
                  for path, change in run.changes.items()
                  if re.match(SPOOLED + r"(control|messages|deferred)/", path)
                  and change.kind == "created")


def names(*groups):
    words = {"AA": "NewAccounts", "AB": "Notify", "AC": "Notify"}
    return sorted(f"N.{name[:2]}N.{words[name[:2]]}-{name[3:]}"
                  for group in groups for name in group)


@pytest.mark.parametrize("mode, answers, status, expected", [
    (FULL, ["q"], 255, []),
    (ALONE, ["q"], 255, []),
    (ALONE, ["f", "/tmp/none"], 255, []),
    (ALONE, ["f", "/home"], 255, []),
    (FULL, ["n"], 0, []),
    (FULL, ["n", "y"], 0, ["NewAccountForm.N-Control"]),
    (FULL, ["x", "Yes"], 0, ["NewAccountForm.N-Control"]),
    (ALONE, ["n", "n"], 0, []),
    (FULL, ["f", "/tmp/none", "no"], 0, []),
    (FULL, ["f", "/tmp/none", "y"], 0, ["NewAccountForm.N-Control"]),
    (FULL, ["f", "/tmp/empty"], 0, []),
    (FULL, ["f", "/tmp/bin"], 0, names(SUMMARY)),
    (ALONE, ["f", "/tmp/bin"], 0, names(SUMMARY)),
    (FULL, ["f", "/tmp/ann", "x.org", "q"], 0, []),
    (FULL, ["f", "/tmp/ann+bin", "x.org", "quit"], 0, names(SUMMARY)),
    (FULL, ["f", "/tmp/ann"], 0, names(GREETING, SUMMARY)),
    (ALONE, ["f", "/tmp/ann"], 0, names(GREETING, SUMMARY)),
    (ALONE, ["f", "/tmp/ann+bin"], 0, names(GREETING, SUMMARY)),
    (FULL, ["f", "/tmp/bob"], 0, names(GREETING, SUMMARY, NOTICE)),
    (FULL, ["f", "/tmp/gone"], 0, []),
])
def test_what_is_queued_on_each_way_out(host, mode, answers, status, expected):
    host.user("ann", 1001, gecos="Ann")
    host.user("bob", 1002, gecos="Bob")
    host.write("/home/bob/.forward", "x@y.z\n", owner=1002, group=100)
    for name, content in (("empty", ""), ("ann", ANN), ("bob", BOB),
                          ("bin", BIN), ("ann+bin", ANN + BIN),
                          ("gone", "gone:x:7:7:Gone:/home/gone:\n")):
        host.write(f"/tmp/{name}", content)
    run = start(host, mode, answers)
    assert run.status == status
    assert new_in_the_spool(run) == expected
    if "NewAccountForm.N-Control" in expected:
        form, = [change.after for path, change in run.changes.items()
                 if "NewAccountForm" in path]
        assert form == FORM["NewAccountForm"]


def test_what_is_queued_when_accounts_exist_or_fail(host):
    host.user("ann", 1001, gecos="Ann")
    host.user("bob", 1002, gecos="Bob")
    host.write("/home/bob/.forward", "x@y.z\n", owner=1002, group=100)
    host.write("/tmp/pw", ANN + BOB)
    host.write("/tmp/ann", ANN)
    host.run_task(TASK, ["f", "/tmp/pw"])

    run = host.run_task(TASK, ["f", "/tmp/ann"])
    assert run.text.endswith("(Ann)....already exists\n")
    assert new_in_the_spool(run) == []
    run = host.run_task(TASK, ["f", "/tmp/pw"])
    assert new_in_the_spool(run) == names(SUMMARY, NOTICE)
    assert b"Channel-To: SMTP <bob@example.com>\n" in queued(run)["AC-Control"]

    # The accounts can be read, but not written.
    host.write("/tmp/cat", "cat:x:1003:100:Cat:/home/cat:\n")
    host.user("cat", 1003, gecos="Cat")
    host.sh(f"chown root {SPOOLED}config {SPOOLED}config/Accounts")
    run = host.run_task(TASK, ["f", "/tmp/cat"])
    assert run.text.endswith("    cat@example.com (Cat)....Error: couldn't "
                             "create the account!\n")
    assert run.status == 0 and new_in_the_spool(run) == []
    assert sorted(accounts(host)) == ["Ann", "Bob"]


def test_failures_stand_in_the_summary_of_a_new_server_only(host):
    host.user("ann", 1001, gecos="Ann")
    host.write("/tmp/pw", BIN + ANN)
    host.sh(f"chown root {SPOOLED}config")
    run = host.run_task(TASK, ["f", "/tmp/pw"])
    assert (b"\r\n\r\nInstall failed to set up accounts for the following "
            b"users:\r\n(contact your Vellumcraft vendor for assistance)\r\n"
            b"\r\n        Ann (ann)\r\n\r\n") in queued(run)["AB-Body"]
    host.sh(f"chown vmail {SPOOLED}config")
    text = "".join(f"/U{i}\nName\n\tU{i}\n" for i in range(9))
    host.sh(f"'{BUILD}/vcdb' load {SPOOLED}config/Accounts", text.encode())
    host.sh(f"chmod 444 {SPOOLED}config/Accounts; "
            f"chown root {SPOOLED}config")
    run = host.run_task(TASK, ["f", "/tmp/pw"])
    assert "couldn't create the account!" in run.text
    assert b"failed to set up" not in queued(run)["AB-Body"]


def test_both_runs_of_the_second_program(host):
    host.user("ann", 1001, gecos="Ann Smith,Room 12", mail=b"From a\nhi\n")
    host.write("/home/ann/.forward", "x@y.z\n", owner=1001, group=100)
    host.user("eve", 1002, gecos="&")
    host.symlink("/tmp/elsewhere", "/var/mail/eve")
    host.user("fay", 1003, gecos="Fay", home="")
    run = host.run(ALONE)
    check_screen(run, "AddUserAccounts/alone")
    assert run.status == 0
    assert new_in_the_spool(run) == names(GREETING, SUMMARY, NOTICE)
    found = accounts(host)
    assert sorted(found) == ["Ann-Smith", "Eve", "root-2"]

    run = host.run(ALONE)
    check_screen(run, "AddUserAccounts/alone_again")
    assert run.status == 0
    assert new_in_the_spool(run) == names(SUMMARY, NOTICE)
    assert accounts(host) == found
    assert host.read("/var/mail/ann") == b"From a\nhi\n"


def test_the_second_program_offers_the_same_where_accounts_exist(host):
    text = "".join(f"/U{i}\nName\n\tU{i}\n" for i in range(9))
    host.sh(f"'{BUILD}/vcdb' load {SPOOLED}config/Accounts && "
            f"chown vmail:vmail {SPOOLED}config/Accounts", text.encode())
    run = host.run(ALONE)
    expected = (SCREENS / "AddUserAccounts" / "many_exist.txt").read_text()
    expected = expected.replace(
        "        [N]  Don't automatically set up any accounts.\n\n", "").replace(
            "File/None/Quit [N]", "File/Quit [P]").replace(
                "Searching for users.... \n", "Searching through "
                "/etc/passwd....\n")
    assert run.text.endswith("=\n\n" + expected)
    assert run.status == 0


def test_everything_that_a_users_line_can_say(host):
    lines = ["root:x:0:0:root:/root:\n"]
    for number, login in enumerate(["ann", "eve", "cat", "kit", "dan", "fay"]):
        name = "Ann Smith" if login == "ann" else login.title()
        host.user(login, 1001 + number, gecos=name, mail=b"From a\nhi\n")
        lines.append(f"{login}:x:{1001 + number}:100:{name}:/home/{login}:\n")
    host.write("/tmp/root", lines[0])
    host.write("/tmp/pw", lines[1] + lines[0] + "".join(lines[2:]))
    host.run_task(TASK, ["f", "/tmp/root"])
    host.sh("mv /var/mail/eve /tmp; ln -s /tmp/eve /var/mail/eve; "
            "echo Hello > /var/mail/kit")
    host.mkdir(f"{MAILBOXES}/Cat/in", 0o770, 950, 950)

    run = host.run_task(
        TASK, ["f", "/tmp/pw", "", "", "", "", "p"],
        env=environment("signal", 1, paths="/home/dan/", signal=2))
    check_screen(run, "AddUserAccounts/creation")
    assert run.status == 0 and new_in_the_spool(run) == []
    assert sorted(accounts(host)) == ["Ann-Smith", "Cat", "Dan", "Eve", "Kit",
                                      "root-2"]
    assert host.listdir(MAILBOXES) == ["Ann-Smith", "Cat", "Dan"]


@pytest.mark.parametrize("mode", [FULL, ALONE])
def test_a_signal_at_a_question_ends_the_program(host, mode):
    for number in (1, 2, 3, 15):
        run = start(host, mode, ["p"], signal_at={"Mail domains": number})
        assert run.status == 3
        assert run.text.endswith("Mail domains: [example.com,"
                                 "mail.example.com] ")
        assert new_in_the_spool(run) == []


def test_a_user_who_goes_meanwhile_gets_no_account(host):
    host.user("ann", 1001, gecos="Ann")
    host.user("bob", 1002, gecos="Bob")

    def remove_ann(host):
        host.sh("sed -i /^ann:/d /etc/passwd")
        return ""

    run = host.run_task(TASK, {"Is this what you want": remove_ann})
    assert "3 UNIX accounts found." in run.text
    assert "(Ann)" not in run.text and "(Bob)....created\n" in run.text
    assert sorted(accounts(host)) == ["Bob", "root-2"]


@pytest.mark.parametrize("path, make", [
    ("/tmp/fifo", "mkfifo /tmp/fifo"), ("/dev/zero", "true"),
    ("/tmp", "true"),
    ("/tmp/link", "ln -s /dev/zero /tmp/link")])
def test_what_might_never_end_is_not_read_for_users(host, path, make):
    host.sh(make)
    run = start(host, FULL, ["f", path, "no"])
    assert f"WARNING: couldn't open {path} to determine the user" in run.text
    assert run.status == 0


def test_no_users_come_from_the_null_device(host):
    run = start(host, FULL, ["f", "/dev/null"])
    assert "No accounts to create." in run.text and run.status == 0


def test_an_entry_without_a_login_is_nobodys(host):
    nobody = "::5000:100:No Login:/home/nologin:/bin/sh\n"
    host.user("ann", 1001, gecos="Ann")
    host.write("/etc/passwd", host.read("/etc/passwd") + nobody.encode())
    host.write("/tmp/pw", nobody + ANN)
    run = start(host, FULL, ["f", "/tmp/pw", "x.org"])
    assert "\n2 UNIX accounts found." in run.text
    assert run.text.count(")....") == run.text.count(")....created\n") == 1
    assert list(accounts(host)) == ["Ann"]


def test_an_import_waits_for_another_one(host):
    host.user("ann", 1001, gecos="Ann")
    host.user("bob", 1002, gecos="Bob")
    host.write("/tmp/ann", ANN)
    host.write("/tmp/bob", BOB)
    start(host, ALONE, ["f", "/tmp/ann", "x.org"])
    path = "/opt/vellumcraft/config/Accounts"
    # As long as another import of some hundred users takes.
    host.sh(f"flock {path} sleep 4 </dev/null >/dev/null 2>&1 & "
            f"while flock -n {path} true; do :; done")
    run = start(host, ALONE, ["f", "/tmp/bob", "x.org"])
    assert "couldn't create the account!" not in run.text
    assert sorted(accounts(host)) == ["Ann", "Bob"]
