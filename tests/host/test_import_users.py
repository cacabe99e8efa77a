"""The user import: sources, options, accounts, notices."""

import re

import pytest

from faults import environment
from harness import BUILD, check_screen
from imports import (ANNS_MAIL, MAILBOXES, POP, SPOOLED, TASK, accounts,
                     messages, queued)


@pytest.fixture(autouse=True)
def prepared(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)


def add_users(host):
    host.user("ann", 1001, gecos="Ann Smith,Room 12", hash="abcdefghijklm",
              mail=ANNS_MAIL)
    host.write("/home/ann/.forward", "x@y.z\n", owner=1001, group=100)
    host.write("/home/ann/.plan", "sleep\n\n", owner=1001, group=100)
    host.user("eve", 1002, gecos="&")
    host.write("/tmp/root-only", "secret", mode=0o600)
    host.symlink("/tmp/root-only", "/var/mail/eve")


def test_accounts_are_created_and_converted_then_exist(host):
    add_users(host)
    run = host.run_task(TASK, POP)
    check_screen(run, "AddUserAccounts/converted")
    assert run.status == 0

    found = accounts(host)
    assert sorted(found) == ["Ann-Smith", "Eve", "root-2"]
    assert found["Ann-Smith"] == {
        "Finger-Info": [r"Plan:\r\n----\r\nsleep\r\n"],
        "Local-Delivery": ["Mailbox"], "Name": ["Ann Smith"],
        "POP-Address": ["ann"],
        "Raw-Password": ["abcdefghijklmUNIX-PASSWORD" + 38 * " "],
        "SMTP-Address": ["ann@example.com", "ann@mail.example.com"],
        "SMTP-RewriteStyle": ["comment"], "UNIX-UserName": ["ann"]}
    assert found["Eve"]["Finger-Info"] == [""]
    assert re.fullmatch(r"[a-z0-9]+UNIX-PASSWORD {38}",
                        found["Eve"]["Raw-Password"][0])

    assert not host.exists("/var/mail/ann")
    assert messages(host, "Ann-Smith") == [b"S: 1\r\n\r\nhi\r\n",
                                           b"S: 2\r\n\r\nho\r\n"]
    for path in (MAILBOXES + "/Ann-Smith", MAILBOXES + "/Ann-Smith/in"):
        change = run.changes[path]
        assert (change.mode, change.owner, change.group) == (
            0o770, "vmail", "vmail")
    assert host.read("/tmp/root-only") == b"secret"
    assert host.mode("/tmp/root-only") == 0o600
    notice = run.changes["/home/ann/.forward.NOTICE"]
    assert (notice.owner, notice.group) == ("ann", "users")
    assert "/home/eve/.forward.NOTICE" not in run.changes

    files = queued(run)
    assert sorted(files) == [
        "AA-Control", "AB-Body", "AB-Control", "AB-Header", "AC-Body",
        "AC-Control", "AC-Header"]
    for name in ("AB-Body", "AB-Control", "AB-Header", "AC-Body", "AC-Control",
                 "AC-Header"):
        check_queued(files[name], name)
    assert files["AA-Control"].startswith(
        b"Function: Account-Manager\nControl-Type: Request\nPriority: 1\n"
        b"Request-Type: Greet\nAccount-To: root-2 ")
    assert (b"\nAccount-To: Ann-Smith abcdefghijklmUNIX-PASSWORD" + 38 * b" " +
            b"\n") in files["AA-Control"]

    # A second run makes nothing and changes no account.
    run = host.run_task(TASK)
    check_screen(run, "AddUserAccounts/existing")
    assert accounts(host) == found
    assert sorted({name[:2] for name in queued(run)}) == ["AB", "AC"]


def check_queued(content, name):
    """Against tests/screens/AddUserAccounts/NAME.txt, with CR LF line ends."""
    class Printed:
        output = content.replace(b"\r\n", b"\n")
    assert name.endswith("Control") or b"\n" not in content.replace(
        b"\r\n", b"")
    check_screen(Printed, "AddUserAccounts/" + name)


@pytest.mark.parametrize("answers, screen, status", [
    (["n"], "none", 0),
    (["q"], "quit", 255),
    (["f", "/tmp/none"], "unreadable", 0),
    (["f", "/tmp/pw"], "nobody", 0),
    (["p", "other.org", "q"], "quit_domains", 0),
])
def test_ways_out_before_accounts(host, answers, screen, status):
    host.write("/tmp/pw", "bin:x:2:2::/bin:/bin/sh\n")
    run = host.run_task(TASK, answers)
    check_screen(run, f"AddUserAccounts/{screen}")
    assert run.status == status
    skipped = screen in ("nobody", "quit_domains")
    assert sorted(queued(run)) == (
        ["AB-Body", "AB-Control", "AB-Header"] if skipped else [])


def test_without_a_mail_group_nothing_is_done(host):
    host.sh("sed -i '/^mail:/d;/^staff:/d' /etc/group")
    run = host.run_task(TASK)
    check_screen(run, "AddUserAccounts/no_group")
    assert run.status == 255 and queued(run) == {}


def test_domains_are_asked_for_until_they_are_right(host):
    run = host.run_task(TASK, ["p", "a_b, -x", "n", "Example.COM", "", "n", "",
                               "", "n"])
    check_screen(run, "AddUserAccounts/domains")
    assert accounts(host)["root-2"]["SMTP-Address"] == [
        "root@example.com", "root@mail.example.com"]
    assert "POP-Address" not in accounts(host)["root-2"]


def test_many_accounts_change_the_opening_and_the_default(host):
    text = "".join(f"/U{i}\nName\n\tU{i}\n" for i in range(9))
    host.sh(f"'{BUILD}/vcdb' load {SPOOLED}config/Accounts && "
            f"chown vmail:vmail {SPOOLED}config/Accounts", text.encode())
    run = host.run_task(TASK, ["a"])
    check_screen(run, "AddUserAccounts/many_exist")
    run = host.run_task(TASK, [""])
    assert run.text.endswith("Quit [N] \n") and run.status == 0


def test_a_damaged_database_ends_the_run(host):
    host.write(SPOOLED + "config/Accounts", "no database", 0o640, 950, 950)
    run = host.run_task(TASK)
    assert run.text.endswith("\n\nExiting.\n\n") and run.status == 255
    assert host.read(SPOOLED + "config/Accounts") == b"no database"


def test_an_interrupt_ends_the_loop_after_the_user_in_hand(host):
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.user("bob", 1002, gecos="Bob", mail=b"From a\n")
    host.write("/tmp/pw", "ann:x:1001:100:Ann:/home/ann:\n"
                          "bob:x:1002:100:Bob:/home/bob:\n")
    from faults import environment
    run = host.run_task(
        TASK, ["f", "/tmp/pw"],
        env=environment("signal", 1, paths="/home/ann/", signal=15))
    check_screen(run, "AddUserAccounts/interrupted")
    assert run.status == 0 and queued(run) == {}
    assert sorted(accounts(host)) == ["Ann"]


def test_hostile_homes_give_nothing_away_and_hold_nothing_up(host):
    host.user("eve", 1002, gecos="Eve")
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.sh("chmod 600 /var/mail/ann; cd /home/eve; "
            "ln -s /etc/shadow .project; ln -s /var/mail/ann .plan; "
            "touch .forward; ln -s /var/mail/new .forward.NOTICE")
    host.user("fay", 1003, gecos="Fay")
    host.sh("cd /home/fay; mkfifo .project .forward; ln -s /dev/zero .plan")
    host.user("gil", 1004, gecos="Gil", make_home=False)
    host.user("hal", 1005, gecos="Hal")
    host.sh("truncate -s 1T /home/hal/.plan; chmod 0 /home/hal")
    run = host.run_task(TASK)
    assert run.text.count("....created\n") == 6 and run.status == 0
    found = accounts(host)
    for uid in ("Eve", "Fay", "Gil"):
        assert found[uid]["Finger-Info"] == [""], uid
    assert not host.exists("/var/mail/new")
    assert b"eve@" in queued(run)["AC-Control"]
    assert b"fay@" not in queued(run)["AC-Control"]


def test_whatever_stands_for_a_plan_or_notice_is_survived(host):
    makers = {
        "dir": "mkdir .plan .project .forward",
        "sparse": "truncate -s 1T .plan",
        "null": "ln -s /dev/null .plan; ln -s /dev/full .forward.NOTICE; "
                "touch .forward",
        "loop": "ln -s .plan .plan; ln -s .forward .forward",
        "ours": "ln -s /opt/vellumcraft/config/secret .plan",
        "noticedir": "touch .forward; mkdir .forward.NOTICE",
        "noticefifo": "touch .forward; mkfifo .forward.NOTICE",
        "full": "mount -t tmpfs -o size=8k,mode=777 none .; cd /home/full; "
                "touch .forward; "
                "head -c 8k /dev/zero > filler 2>/dev/null || :",
        "frozen": "touch .forward; chown root .; chmod 755 .",
    }
    host.write("/opt/vellumcraft/config/secret", "secret\n", 0o640, 950, 950)
    for number, (login, command) in enumerate(makers.items()):
        host.user(login, 1001 + number)
        host.sh(f"cd /home/{login}; {command}")
    before = host.sh("cd /home; find * -path '*/.*' ! -name filler -printf "
                     "'%p %y %i %m %U %l\n' | sort")
    run = host.run_task(TASK)
    assert run.status == 0
    assert run.text.count("....created\n") == len(makers) + 1
    assert host.sh("cd /home; find * -path '*/.*' ! -name filler -printf "
                   "'%p %y %i %m %U %l\n' | sort") == before
    found = accounts(host)
    sparse = found.pop("sparse")["Finger-Info"][0]
    assert len(sparse) < 5 << 20 and sparse.startswith(r"Plan:\r\n----\r\n")
    assert sparse.count(r"\x00") == 1 << 20
    assert all(account["Finger-Info"] == [""] for account in found.values())
    forwards = re.findall(rb"SMTP <(\w+)@", queued(run)["AC-Control"])
    assert forwards == [b"null", b"noticedir", b"noticefifo", b"full",
                        b"frozen"]


def test_a_login_may_lead_out_of_the_spool_but_nobody_follows_it(host):
    for login in ("../../x", "..", "a/b", "\x01\x7f"):
        host.write("/etc/passwd", host.read("/etc/passwd") +
                   f"{login}:x:1100:100:Odd:/home/odd:/bin/sh\n".encode())
    host.mkdir("/home/odd", 0o755, 1100, 100)
    host.write("/x", ANNS_MAIL, 0o600)
    host.write("/var/mail/a/b", ANNS_MAIL, 0o600)
    before = host.sh("stat -c '%n %i %u %g %a %s %Y' /x /var/mail/a/b /var")
    run = host.run_task(TASK, POP)
    assert ("    ../../x@example.com (Odd)....\nALERT: Possible security "
            "problem with /var/mail/../../x\ncreated\n") in run.text
    assert "problem with /var/mail/a/b\ncreated\n" in run.text
    assert "    ??@example.com (Odd)....created\n" in run.text
    assert "Error" not in run.text
    assert host.sh("stat -c '%n %i %u %g %a %s %Y' /x /var/mail/a/b "
                   "/var") == before
    assert host.listdir(MAILBOXES) == []
    assert sorted(accounts(host)) == ["Odd", "Odd-2", "Odd-3", "Odd-4",
                                      "root-2"]


def test_names_that_are_taken_get_a_number(host):
    for number, name in enumerate(["Student", "student", "Student",
                                   "Postmaster", "Help", "", ",Room 1", "&&"]):
        host.user(f"u{number}", 1100 + number, gecos=name)
    run = host.run_task(TASK)
    assert run.text.count("....created\n") == 9
    found = accounts(host)
    assert sorted(found) == ["Help-2", "Postmaster-2", "Student", "Student-3",
                             "U7U7", "root-2", "student-2", "u5", "u6"]
    assert found["Student-3"]["SMTP-Address"][0] == "u2@example.com"
    assert found["u6"]["Name"] == ["u6"]


def test_only_traditional_passwords_are_carried_over(host):
    modern = "$6$salt$" + "x" * 86
    users = {"own": ("ownpassword13", "shadowed13abc"),
             "shadowed": ("x", "shadowed13abc"), "modern": ("x", modern),
             "locked": ("x", "!"), "absent": ("x", None), "none": ("", ""),
             "twelve": ("123456789012", "123456789012"),
             "lockedown": ("!wnpassword13", modern)}
    shadow = host.read("/etc/shadow").decode()
    passwords = host.read("/etc/passwd").decode()
    for number, (login, (own, hidden)) in enumerate(users.items()):
        passwords += f"{login}:{own}:{1100 + number}:100::/home:/bin/sh\n"
        if hidden is not None:
            shadow += f"{login}:{hidden}:19000:0:99999:7:::\n"
    host.write("/etc/passwd", passwords)
    host.write("/etc/shadow", shadow, 0o600)
    run = host.run_task(TASK)
    found = {uid: account["Raw-Password"][0]
             for uid, account in accounts(host).items()}
    tail = "UNIX-PASSWORD" + 38 * " "
    assert found.pop("own") == "ownpassword13" + tail
    assert found.pop("shadowed") == "shadowed13abc" + tail
    assert found.pop("lockedown") == "!wnpassword13" + tail
    for uid, password in found.items():
        assert re.fullmatch("[a-z0-9]{6}" + tail, password), uid
        assert f"Account-To: {uid} {password}\n".encode() in queued(run)[
            "AA-Control"]
    assert len(set(found.values())) == len(found) == 6
    assert b"shadowed13abc" not in run.output


def test_names_are_shown_without_control_characters(host):
    names = ["O\"Br\x1b[2Jien & co", "\udce9\udcff", "x" * 300, "../../x"]
    for number, name in enumerate(names):
        host.user(f"u{number}", 1100 + number, gecos=name)
    host.write("/tmp/pw", host.read("/etc/passwd") +
               b"../../x:x:1:1::/home/x:\n")
    run = host.run_task(TASK, ["f", "/tmp/pw"])
    assert b"\x1b" not in run.output + queued(run)["AB-Body"]
    assert b'(O"Br?[2Jien U0 co)....created\n' in run.output
    assert b"(\xe9\xff)....created\n" in run.output
    found = accounts(host)
    assert found["x"]["Name"] == ["../../x"]
    assert not any("/" in uid for uid in found)


def test_the_spool_gets_its_owner_and_mode(host):
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.user("bob", 1002, gecos="Bob", mail=ANNS_MAIL)
    host.sh("chown 0:0 /var/mail/ann; chmod 4644 /var/mail/ann; "
            "ln /var/mail/bob /var/mail/other; mkdir /var/mail/cat; "
            "mkfifo /var/mail/dan")
    host.user("cat", 1003, gecos="Cat")
    host.user("dan", 1004, gecos="Dan")
    run = host.run_task(TASK)
    spool = host.stat("/var/mail/ann")
    assert (spool.st_uid, spool.st_gid, spool.st_mode & 0o7777) == (
        1001, 8, 0o660)
    for login in ("bob", "cat", "dan"):
        assert (f"\nALERT: Possible security problem with /var/mail/{login}\n"
                "created\n") in run.text
    assert "/var/mail/bob" not in run.changes


def test_a_spool_that_can_not_be_given_away_is_not_opened(host):
    host.user("ann", 1001, mail=ANNS_MAIL)
    host.sh("chown 0:0 /var/mail/ann; chmod 600 /var/mail/ann")
    run = host.run_task(TASK, env=environment(
        "fail", 1, calls="fchown", paths="/var/mail/", errno="EPERM"))
    assert "(ann)....created\n" in run.text
    assert "/var/mail/ann" not in run.changes


def test_without_shadow_passwords_everybody_gets_a_new_one(host):
    host.user("ann", 1001)
    host.remove("/etc/shadow")
    run = host.run_task(TASK)
    assert "(ann)....created\n" in run.text
    assert re.fullmatch("[a-z0-9]{6}UNIX-PASSWORD {38}",
                        accounts(host)["ann"]["Raw-Password"][0])


def test_users_of_a_directory_that_lists_nobody_are_found(host):
    host.sh(f"cp '{BUILD}/libnss_unlisted.so.2' "
            "/usr/lib/\"$(uname -m)\"-linux-gnu/")
    host.write("/etc/nsswitch.conf", "passwd: files unlisted\n"
               "group: files\nshadow: files\nhosts: files\n")
    assert "unlisted" not in host.sh("getent passwd")
    host.write("/tmp/pw", "unlisted:x:4321:100:Una:/home:\n"
                          "nobody2:x:4322:100:Noah:/home:\n")
    host.write("/var/mail/unlisted", ANNS_MAIL, 0o600)
    run = host.run_task(TASK, ["f", "/tmp/pw"])
    assert "(Una)....created\n" in run.text
    assert list(accounts(host)) == ["Una"]
    assert host.stat("/var/mail/unlisted").st_uid == 4321


def test_the_second_program_imports_only(host):
    host.user("ann", 1001, gecos="Ann")
    run = host.run("AddUserAccounts")
    assert "[N]" not in run.text and "None/" not in run.text
    assert "Quit [P] \n" in run.text and run.status == 0
    assert sorted(accounts(host)) == ["Ann", "root-2"]
    run = host.run("AddUserAccounts", ["f", "/tmp/none"])
    assert run.text.endswith("to determine the user accounts.\n\n")
    assert run.status == 255
