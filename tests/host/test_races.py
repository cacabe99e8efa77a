"""A hostile local user, who changes files and names while the program looks.

VC_RACE_RUNS=1000 in the environment makes it the long form.
"""

import json
import os

from harness import BUILD, REPO
from imports import ANNS_MAIL, MAILBOXES, POP, TASK

RUNS = int(os.environ.get("VC_RACE_RUNS", "40"))

# Becomes a process of a name that a user has chosen and waits.
NAMED = (
    "import ctypes, sys, time\n"
    "ctypes.CDLL(None).prctl(15, sys.argv[1].encode())\n"
    "print(flush=True)\n"
    "time.sleep(1000)\n")


def test_files_that_are_swapped_lead_nowhere(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)
    host.user("bob", 1002)
    host.user("mal", 1001, gecos="Mal", home="/srv/mal/home", mail=ANNS_MAIL,
              make_home=False)
    host.write("/tmp/pw", "mal:x:1001:100:Mal:/srv/mal/home:/bin/sh\n")
    answers = ["f", "/tmp/pw", "", "", "", "", "p", ""]
    output = host.sh(
        f"python3 '{REPO}/tests/host/racing.py' '{BUILD}/AddUserAccounts' "
        f"{RUNS} '" + "\n".join(answers) + "\n'")
    report = json.loads(output)
    print(report)
    assert report["wrong"] == []
    assert report["runs"] == RUNS
    assert report["swaps"] > 10 * RUNS
    assert report["said"]["moved"] > 0 and report["said"]["ALERT"] > 0


def test_names_of_processes_make_no_process_a_target(host):
    # What a listing line could be taken for, did names end or begin lines.
    bystander = host.daemon("bystander")
    named = [host.ask("start", arguments=[
        "/usr/bin/python3", "-I", "-S", "-c", NAMED, name]) for name in (
            f"{bystander.pid} sendmai", f"x\n{bystander.pid} inetd", ".*",
            "(.*)", "\x1b[2Jsendm", ") S 1 1")]
    sendmail = host.daemon("sendmail")
    for pid in named:
        host.sh(f"while ! grep -q . /proc/{pid}/comm || grep -q python3 "
                f"/proc/{pid}/comm; do sleep 0.01; done")
    run = host.run_task("KillSendmail")
    assert b"\x1b" not in run.output
    assert sendmail.signals() == [15]
    assert bystander.signals(0.2) == []
    assert all(host.ask("alive", pid=pid) for pid in named)


def test_escapes_in_a_user_entry_reach_no_terminal(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)
    escape = "\x1b]0;owned\x07\x1b[2J\x9b5m\r\x08"
    host.write("/etc/passwd", host.read("/etc/passwd") + (
        f"e{escape}l:x:1001:100:N{escape}ame:/h{escape}ome:/s{escape}h\n"
        f"sys{escape}:x:1002:100:N{escape}::\n").encode("latin-1"))
    run = host.run_task(TASK, POP)
    for path, change in run.changes.items():
        assert "/messages/" not in path or b"\x1b" not in change.after, path
    assert set(run.output) & {*range(0x20), 0x7f} == {0x0a}
    assert b"N?]0;owned??[2J" in run.output


def but_access_time(status):
    """The harness reads what a run has changed."""
    return status[:7] + status[8:]


def test_hard_links_to_files_of_root_stay_as_they_are(host):
    host.mkdir(MAILBOXES, 0o770, 950, 950)
    host.user("mal", 1001, gecos="Mal")
    host.write("/etc/secret", "From root\n\nSECRET\n", mode=0o600)
    host.sh("ln /etc/secret /var/mail/mal; ln /etc/secret /home/mal/.plan; "
            "ln /etc/secret /home/mal/.forward")
    before = but_access_time(host.stat("/etc/secret"))
    run = host.run_task(TASK, POP)
    assert "ALERT: Possible security problem with /var/mail/mal\n" in run.text
    assert but_access_time(host.stat("/etc/secret")) == before
    assert "Error: Couldn't open /var/mail/mal (1)\n" in run.text
    assert not any(b"SECRET" in (change.after or b"")
                   for change in run.changes.values())
