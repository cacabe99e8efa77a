"""The user import: sources, options, accounts, conversion, notices."""

import re

import pytest

from harness import BUILD, check_screen

TASK = "AddUserAccounts"
MAILBOXES = "/opt/vellumcraft/mailboxes"
SPOOLED = "/opt/vellumcraft/"
POP = {"UNIX delivery or POP": "p"}
ANNS_MAIL = b"From a\nS: 1\n\nhi\nFrom b\nS: 2\r\n\r\nho"


@pytest.fixture(autouse=True)
def prepared(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)


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


def test_a_mailbox_that_exists_is_left_alone(host):
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.mkdir(MAILBOXES + "/Ann/in", 0o770, 950, 950)
    run = host.run_task(TASK, POP)
    assert ("created\nError: POP mailbox already exists\nError: Unable to "
            "convert user's mailbox to Vellumcraft's POP format!\n") in run.text
    assert host.read("/var/mail/ann") == ANNS_MAIL
    assert host.listdir(MAILBOXES + "/Ann/in") == []


def test_mailboxes_are_spread_over_buckets(host):
    host.sh(f"'{BUILD}/vcdb' load {SPOOLED}config/Dispatch && "
            f"chown vmail:vmail {SPOOLED}config/Dispatch",
            b"/Config\nMailboxBucketCount\n\t10\n")
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.run_task(TASK, POP)
    bucket, = host.listdir(MAILBOXES)
    assert bucket.isdigit() and len(messages(host, f"{bucket}/Ann")) == 2


def test_the_second_program_imports_only(host):
    host.user("ann", 1001, gecos="Ann")
    run = host.run("AddUserAccounts")
    assert "[N]" not in run.text and "None/" not in run.text
    assert "Quit [P] \n" in run.text and run.status == 0
    assert sorted(accounts(host)) == ["Ann", "root-2"]
    run = host.run("AddUserAccounts", ["f", "/tmp/none"])
    assert run.text.endswith("to determine the user accounts.\n\n")
    assert run.status == 255


@pytest.mark.parametrize("mode", ["kill", "torn"])
def test_whatever_kills_the_conversion_a_second_run_ends_it(host, mode):
    from faults import counted_calls, environment
    host.user("ann", 1001, gecos="Ann", mail=ANNS_MAIL)
    host.write("/tmp/pw", "ann:x:1001:100:Ann:/home/ann:\n")
    wanted = [b"S: 1\r\n\r\nhi\r\n", b"S: 2\r\n\r\nho\r\n"]
    paths = f"/var/mail/:{MAILBOXES}/:{SPOOLED}config/Accounts"
    answers = {"Which method": "f", "password file name": "/tmp/pw", **POP}

    def run(env):
        host.sh(f"rm -rf {MAILBOXES}/* {SPOOLED}config/Accounts "
                "/var/mail/*")
        host.write("/var/mail/ann", ANNS_MAIL, 0o660, 1001, 8)
        return host.run_task(TASK, answers, env=env)

    calls = counted_calls(host, run, paths=paths)
    assert len(calls) > 30
    names = [name for name, _ in calls]
    begun = names.index("linkat") + 1  # the spool is locked
    step = 1 if mode == "kill" else 3
    for at in range(1, len(calls) + 1, step):
        where = f"{mode} at {at}, {calls[at - 1]}"
        assert run(environment(mode, at, paths=paths)).status == -9, where
        has_spool = host.exists("/var/mail/ann")
        has_mailbox = host.exists(f"{MAILBOXES}/Ann/in")
        assert has_spool or has_mailbox, where
        if has_spool:
            assert host.read("/var/mail/ann") == ANNS_MAIL, where
        if has_mailbox:
            assert messages(host, "Ann") == wanted, where

        again = host.run_task(TASK, answers)
        assert again.status == 0 and "Error" not in again.text, where
        assert len(accounts(host)["Ann"]) == 8, where
        if host.exists("/var/mail/ann"):
            # Nothing had been begun when the account was complete.
            assert "already exists" in again.text, where
            assert host.read("/var/mail/ann") == ANNS_MAIL, where
            assert host.listdir(MAILBOXES) == [], where
            assert host.listdir("/var/mail") == ["ann"], where
        else:
            assert messages(host, "Ann") == wanted, where
            assert host.listdir(MAILBOXES + "/Ann") == ["in"], where
            assert host.listdir("/var/mail") == [], where
    assert "symlink" in names[begun:] and "syncfs" in names[begun:]


# A delivery agent that takes both locks and delivers numbered messages until a
# file tells it to stop; says how many.
AGENT = r"""
import fcntl, os, time
spool, number = "/var/mail/ann", 0
while not os.path.exists("/dev/shm/stop"):
    try:
        lock = os.open(spool + ".lock", os.O_CREAT | os.O_EXCL | os.O_WRONLY)
    except FileExistsError:
        time.sleep(0.0005)
        continue
    file = os.open(spool, os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o660)
    try:
        fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        os.write(file, b"From a\nN: %d\n" % number)
        time.sleep(0.0002)
        os.write(file, b"\nend\n")
        number += 1
    except OSError:
        pass
    os.close(file)
    os.close(lock)
    os.unlink(spool + ".lock")
    time.sleep(0.0005)
print(number)
"""

# One that takes no lock, but writes whole messages into the file it opened.
CARELESS = r"""
import os
file, number = os.open("/var/mail/ann", os.O_WRONLY | os.O_APPEND), 0
while os.fstat(file).st_nlink == 1 and not os.path.exists("/dev/shm/stop"):
    os.write(file, b"From a\nN: %d\n\nend\n" % number)
    number += 1
    if number % 8 == 0 or number > 4000:
        os.sched_yield()
        if number > 4000:
            break
print(number)
"""


def deliver_meanwhile(host, agent):
    """Runs the import beside an agent; the numbers found, and how many."""
    host.write("/tmp/agent.py", agent)
    host.write("/tmp/pw", "ann:x:1001:100:Ann:/home/ann:\n")
    host.user("ann", 1001, gecos="Ann",
              mail=b"From a\nold\n\nend\n" * 3000)
    host.sh("/usr/bin/python3 -I -S /tmp/agent.py >/tmp/count 2>/tmp/errors &")
    run = host.run_task(TASK, {"Which method": "f",
                               "password file name": "/tmp/pw", **POP})
    host.sh("touch /dev/shm/stop; while [ ! -s /tmp/count ]; do sleep 0.05; "
            "[ ! -s /tmp/errors ] || exit 1; done")
    assert "created\n" in run.text and "Error" not in run.text
    found = messages(host, "Ann")
    if host.exists("/var/mail/ann"):
        rest = host.read("/var/mail/ann").replace(b"\n", b"\r\n")
        found += rest.split(b"From a\r\n")[1:]
    assert found.count(b"old\r\n\r\nend\r\n") == 3000
    numbers = [re.fullmatch(rb"N: (\d+)\r\n\r\nend\r\n", message)
               for message in found if not message.startswith(b"old")]
    assert None not in numbers
    return (sorted(int(number[1]) for number in numbers),
            int(host.read("/tmp/count")))


def test_mail_that_arrives_meanwhile_is_found_once(host):
    numbers, count = deliver_meanwhile(host, AGENT)
    assert count > 20
    assert numbers == list(range(count))
    assert not host.exists("/var/mail/ann.lock")


def test_a_writer_without_locks_is_waited_for(host):
    numbers, count = deliver_meanwhile(host, CARELESS)
    assert numbers == list(range(len(numbers)))
    assert len(numbers) >= count - 1


def test_a_full_mailbox_disk_leaves_the_mail_where_it_is(host):
    host.user("ann", 1001, gecos="Ann",
              mail=b"From a\n" + b"x" * 900_000 + b"\nFrom b\nb\n")
    host.sh(f"mount -t tmpfs -o size=512k,uid=950,gid=950 none {MAILBOXES}")
    run = host.run_task(TASK, POP)
    assert re.search(r"created\nError: Couldn't create " + MAILBOXES +
                     r"/Ann/in/\d{14}\.AAA\d+@mail\.example\.com \(28\)\n"
                     r"Error: Unable to convert", run.text)
    assert host.listdir(MAILBOXES) == []
    assert host.stat("/var/mail/ann").st_size == 900_017
    assert not host.exists("/var/mail/ann.lock")
