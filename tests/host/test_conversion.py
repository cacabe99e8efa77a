"""The conversion of spool mailboxes, whatever happens meanwhile."""

import re

import pytest

from faults import environment
from harness import BUILD
from imports import (ANNS_MAIL, MAILBOXES, POP, SPOOLED, TASK, accounts,
                     messages)


@pytest.fixture(autouse=True)
def prepared(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)


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


# Makes mailboxes of every kind, and compares what became of them with the rules.
MAILBOX_KINDS = r"""
import collections, os, re, sys
MANY = 100000
KINDS = {
    "lf": b"From a\nS: 1\n\nhi\n\nFrom b\nS: 2\n\nho\n",
    "crlf": b"From a\r\nS: 1\r\n\r\nhi\r\n\r\nFrom b\r\nS: 2\r\n\r\nho\r\n",
    "mixed": b"From a\r\nS: 1\nx\r\r\ny\r\n\r\n\nFrom b\n\rz\n\r\n\r",
    "nul": b"From a\n\0\0\nS\0\r\n\0From \nFrom \0\n\0",
    "unended": b"From a\nhi\nFrom b\nlast",
    "returned": b"From a\nlast\r",
    "inner": b"From a\n>From b\n From c\nFrom\nFromage\nFROM x\nfrom y\n"
             b"xFrom z\nFrom:\nFrom\td\nFrom d\nend\n",
    "bare": b"From a\nFrom b\nFrom c",
    "blank": b"\n \t\r\n\f\n\r\nFrom a\nhi\n\n\n",
    "bytes": b"From a\n" + bytes(range(256)) + b"\n" + bytes(range(255, -1, -1)),
    "long": b"From a\n" + b"0123456789" * 5000000 + b"\r\nFrom b\nFrom a\nho\n",
    "many": b"".join(b"From a\nN: %d\n\nend\n" % i for i in range(MANY)),
}

def by_the_rules(mailbox):
    messages = []
    lines = mailbox.split(b"\n")
    if lines[-1] == b"":
        lines.pop()
    for line in lines:
        if line.startswith(b"From "):
            messages.append([])
        elif messages:
            messages[-1].append(line[:-1] if line.endswith(b"\r") else line)
        else:
            assert re.fullmatch(rb"\s*", line)
    return [b"".join(line + b"\r\n" for line in message)
            for message in messages]

def content(path):
    with open(path, "rb") as file:
        return file.read()

for login, mailbox in KINDS.items():
    spool, directory = "/var/mail/" + login, sys.argv[2] + "/" + login + "/in"
    if sys.argv[1] == "make":
        with open(spool, "wb") as file:
            file.write(mailbox)
        continue
    found = [content(directory + "/" + name)
             for name in sorted(os.listdir(directory))]
    wanted = by_the_rules(mailbox)
    if login == "many":
        found, wanted = collections.Counter(found), collections.Counter(wanted)
    if found != wanted:
        print(login, "is converted wrongly")
    if os.path.lexists(spool) or os.path.lexists(spool + ".lock"):
        print(login, "was left behind")
if sys.argv[1] == "make":
    print(*KINDS)
"""


def test_every_byte_is_converted_by_the_rules_in_little_memory(host):
    host.write("/tmp/kinds.py", MAILBOX_KINDS)
    kinds = "/usr/bin/python3 -I -S /tmp/kinds.py"
    logins = host.sh(f"{kinds} make {MAILBOXES}").split()
    for number, login in enumerate(logins):
        host.user(login, 1001 + number)
    # Files there are nothing to the harness, which would read them all.
    host.sh(f"mount -t tmpfs -o uid=950,gid=950,mode=770 none {MAILBOXES}")
    # The longest line, and the many messages, are more than fits in there.
    output = host.sh("cd /opt/vellumcraft; ulimit -v 40000; "
                     f"'{BUILD}/AddUserAccounts'", b"\n\n\n\n\np\n\n")
    assert output.count("....created\n") == len(logins) + 1
    assert re.findall("\n.*Error.*", output) == []
    assert host.sh(f"{kinds} check {MAILBOXES}") == ""
    host.sh(f"umount {MAILBOXES}")


ODD_SPOOLS = {
    # login: (how it is made, why it is refused, is it suspicious)
    "link": ("ln -s /tmp/secret /var/mail/link", 40, True),
    "spoollink": ("ln -s text /var/mail/spoollink", 40, True),
    "hard": ("echo From a > /var/mail/hard; ln /var/mail/hard /var/mail/.hard", 1,
             True),
    "dir": ("mkdir /var/mail/dir", 21, True),
    "fifo": ("mkfifo /var/mail/fifo", 22, True),
    "device": ("ln -s /dev/zero /var/mail/device", 40, True),
    "dangling": ("ln -s /tmp/none /var/mail/dangling", 0, True),
    "empty": (": > /var/mail/empty", 0, False),
    "blank": ("echo '  ' > /var/mail/blank", 0, False),
    "missing": (":", 0, False),
}


def test_odd_spools_are_told_of_and_not_touched(host):
    host.write("/tmp/secret", "From root\nsecret\n", mode=0o600)
    host.user("ann", 1001, mail=ANNS_MAIL)
    host.user("text", 1002, mail=b"no mailbox\n")
    expected = "    ann@example.com (ann)....created\n"
    unable = ("Error: Unable to convert user's mailbox to Vellumcraft's POP "
              "format!\n")
    expected += ("    text@example.com (text)....created\n"
                 "Error: Mailbox format unrecognized (0)\n" + unable)
    for number, login in enumerate(ODD_SPOOLS):
        command, cause, is_suspicious = ODD_SPOOLS[login]
        host.user(login, 1100 + number)
        host.sh(command)
        expected += f"    {login}@example.com ({login})...."
        if is_suspicious:
            expected += ("\nALERT: Possible security problem with "
                         f"/var/mail/{login}\n")
        expected += "created\n"
        if cause:
            expected += (f"Error: Couldn't open /var/mail/{login} ({cause})\n" +
                         unable)
    before = host.sh("cd /var/mail; rm -f ann.lock; stat -c '%n %F %h %i %u %g "
                     "%a %s' $(ls | grep -v '^ann$')")
    run = host.run_task(TASK, POP)
    assert run.text.endswith(expected)
    after = host.sh("cd /var/mail; stat -c '%n %F %h %i %u %g %a %s' *")
    for line in before.splitlines():
        if line.split()[0] not in ("empty", "blank"):
            assert line in after.splitlines()
    assert host.listdir(MAILBOXES) == ["ann"]
    assert host.read("/tmp/secret") == b"From root\nsecret\n"
    assert host.mode("/tmp/secret") == 0o600
    assert host.read("/var/mail/.hard") == b"From a\n"


# Locks the spool as some agents do, by fcntl alone, until it is told to stop.
HOLDER = r"""
import fcntl, os, time
file = os.open("/var/mail/ann", os.O_RDWR)
fcntl.lockf(file, fcntl.LOCK_EX)
open("/dev/shm/locked", "w").close()
while not os.path.exists("/dev/shm/stop"):
    time.sleep(0.01)
"""


def test_a_lock_held_for_long_is_told_and_the_next_user_converted(host):
    host.user("ann", 1001, mail=ANNS_MAIL)
    host.user("bob", 1002, mail=ANNS_MAIL)
    host.write("/tmp/holder.py", HOLDER)
    host.sh("/usr/bin/python3 -I -S /tmp/holder.py >/dev/null 2>&1 & "
            "while [ ! -e /dev/shm/locked ]; do sleep 0.01; done")
    run = host.run_task(TASK, POP)
    host.sh("touch /dev/shm/stop")
    assert ("(ann)....created\nError: Couldn't open /var/mail/ann (11)\n"
            "Error: Unable to convert user's mailbox to Vellumcraft's POP "
            "format!\n    bob@example.com (bob)....created\n") in run.text
    assert host.read("/var/mail/ann") == ANNS_MAIL
    assert host.listdir("/var/mail") == ["ann"]
    assert host.listdir(MAILBOXES) == ["bob"]


def test_the_mail_owner_needs_no_rights_in_the_spool(host):
    host.user("ann", 1001, mail=ANNS_MAIL)
    host.sh("chown root:root /var/mail /var/mail/ann; chmod 2700 /var/mail; "
            "chmod 0 /var/mail/ann; ! id -nG vmail | grep -w mail")
    run = host.run_task(TASK, POP)
    assert "created\n" in run.text and "Error" not in run.text
    assert len(messages(host, "ann")) == 2
    assert host.listdir("/var/mail") == []
    assert host.mode("/var/mail") == 0o2700


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


def test_imports_at_the_same_time_do_everything_once(host):
    logins = [f"u{number}" for number in range(200)]
    host.write("/etc/passwd", host.read("/etc/passwd") + "".join(
        f"{login}:x:{2000 + number}:100:User:/home/{login}:/bin/sh\n"
        for number, login in enumerate(logins)).encode())
    host.sh("cd /var/mail; for i in $(seq 0 199); do "
            "printf 'From a\\nS: %s\\n\\nhi\\n' $i > u$i; done")
    host.write("/tmp/input", "\n\n\n\n\np\n\n")
    host.sh("cd /opt/vellumcraft; for i in 1 2 3; do "
            f"'{BUILD}/AddUserAccounts' < /tmp/input > /tmp/out$i 2>&1 & "
            "done; wait")
    screens = [host.read(f"/tmp/out{i}").decode() for i in (1, 2, 3)]
    assert sorted(screen.count("....created\n") for screen in screens) == [
        0, 0, 201]
    assert sorted(screen.count("....already exists\n") for screen in screens
                  ) == [0, 201, 201]
    assert not any("Error" in screen for screen in screens)
    found = accounts(host)
    assert sorted(account["SMTP-Address"][0].split("@")[0]
                  for account in found.values()) == sorted(logins + ["root"])
    assert host.listdir("/var/mail") == []
    del found["root-2"]
    mail = sorted(message for uid in found for message in messages(host, uid))
    assert mail == sorted(b"S: %d\r\n\r\nhi\r\n" % i for i in range(200))


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


def test_a_full_spool_disk_has_room_for_a_lock(host):
    host.user("ann", 1001)
    host.sh("mount -t tmpfs -o size=64k,mode=2775,gid=8 none /var/mail")
    host.write("/var/mail/ann", ANNS_MAIL, 0o660, 1001, 8)
    host.sh("! dd if=/dev/zero of=/var/mail/fill bs=4k 2>/dev/null")
    run = host.run_task(TASK, POP)
    assert "(ann)....created\n" in run.text and "Error" not in run.text
    assert len(messages(host, "ann")) == 2
    assert host.listdir("/var/mail") == ["fill"]


def test_a_removal_that_fails_is_made_up_for_later(host):
    host.user("ann", 1001, mail=ANNS_MAIL)
    unlink = {"calls": "unlink", "paths": "/var/mail/ann"}
    run = host.run_task(TASK, POP, env=environment("kill", 1, **unlink))
    assert run.status == -9
    # The first one now is that of the lock which was left behind.
    run = host.run_task(TASK, POP, env=environment("fail", 2, errno="EPERM",
                                                   **unlink))
    assert ("(ann)....already exists\nError: Unable to convert user's mailbox "
            "to Vellumcraft's POP format!\n") in run.text
    assert host.read("/var/mail/ann") == ANNS_MAIL
    run = host.run_task(TASK, POP)
    assert "(ann)....already exists\n" in run.text and "Error" not in run.text
    assert host.listdir("/var/mail") == []
    assert host.listdir(MAILBOXES + "/ann") == ["in"]
    assert len(messages(host, "ann")) == 2


# Without locks delivers to the spool that it has open, right after its removal;
# then does what it is told.
LATE = r"""
import os, sys, time
file = os.open("/var/mail/ann", os.O_WRONLY | os.O_APPEND)
open("/dev/shm/ready", "w").close()
while os.path.exists("/var/mail/ann"):
    time.sleep(0.01)
os.write(file, b"From c\nlate\n")
exec(sys.argv[1])
"""


def import_with_late_mail(host, then="", env=None):
    """An import that halts for a second when it has removed the spool."""
    # The tracer is not the parent, so that the harness sees the program wait.
    host.user("ann", 1001, mail=ANNS_MAIL)
    host.write("/tmp/late.py", LATE)
    host.sh(f"/usr/bin/python3 -I -S /tmp/late.py '{then}' >/dev/null 2>&1 & "
            "while [ ! -e /dev/shm/ready ]; do sleep 0.01; done")
    return host.run("/usr/bin/strace", POP, cwd="/", env=env, args=[
        "-D", "-qq", "-o", "/dev/null", "-P", "/var/mail/ann",
        "-e", "trace=unlink", "-e", "inject=unlink:delay_exit=1000000",
        f"{BUILD}/run_task", TASK])


def test_mail_that_comes_with_the_removal_is_converted(host):
    run = import_with_late_mail(host)
    assert "(ann)....created\n" in run.text and "Error" not in run.text
    assert messages(host, "ann")[2:] == [b"late\r\n"]
    assert host.listdir("/var/mail") == []


NOT_KEPT = ("(ann)....created\n"
            f"Error: Couldn't create {MAILBOXES}/ann/in/MESSAGE (28)\n"
            "Error: Unable to convert user's mailbox to Vellumcraft's POP "
            "format!\n")


def full(more="", times=1):
    """A disk that is full for what comes late, and for the calls after that."""
    return environment("fail", 1, calls="openat" + more, errno="ENOSPC",
                       paths=f"{MAILBOXES}/ann/in/:/var/mail/ann", times=times)


def without_names(text):
    """The text with one name for all messages."""
    return re.sub(rf"({MAILBOXES}/ann/in/)\S+@\S+", r"\1MESSAGE", text)


def test_mail_that_comes_with_the_removal_is_put_back(host):
    run = import_with_late_mail(host, env=full())
    assert NOT_KEPT in without_names(run.text)
    assert host.read("/var/mail/ann") == b"From c\nlate\n"
    spool = host.stat("/var/mail/ann")
    assert (spool.st_uid, spool.st_gid, spool.st_mode & 0o7777) == (
        1001, 8, 0o660)
    assert len(messages(host, "ann")) == 2
    assert host.listdir("/var/mail") == ["ann"]


@pytest.mark.parametrize("call, then, cause", [
    ("", 'os.symlink("/tmp/trap", "/var/mail/ann")', 40),
    (",read", "", 28), (",fchown", "", 28)])
def test_mail_that_can_not_be_put_back_is_told(host, call, then, cause):
    run = import_with_late_mail(host, then, full(call, 2 if call else 1))
    told = f"Error: Couldn't open /var/mail/ann ({cause})\n"
    assert NOT_KEPT.replace("Error: Unable", told + "Error: Unable"
                            ) in without_names(run.text)
    assert len(messages(host, "ann")) == 2
    assert not host.exists("/tmp/trap")
