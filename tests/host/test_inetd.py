"""Taking the mail services away from the Internet daemon."""

import pytest

from faults import (every_call_fails, every_call_is_interrupted,
                    every_call_kills)
from harness import Signal, check_screen

CONF = "/etc/inetd.conf"
TWO = (b"# smtp in a comment\n\n"
       b"ftp\tstream tcp nowait root /usr/sbin/ftpd ftpd\n"
       b"smtp\tstream tcp nowait root /usr/sbin/smtpd smtpd\n"
       b"  pop3 stream tcp nowait root /usr/sbin/popd popd\r\n"
       b"smtps stream tcp nowait root x x")
EDITED = (TWO.replace(b"\nsmtp\t", b"\n#smtp\t")
          .replace(b"\n  pop3", b"\n#pop3"))
HANG_UP = ["kill -HUP [inetd-pid]", ""]
REMOVE = ["Remove from /etc/inetd.conf:   smtp",
          "Remove from /etc/inetd.conf:   pop3", ""]


def line(name):
    return f"{name} stream tcp nowait root /bin/false false\n"


def test_unreadable(host):
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/unreadable")
    assert (run.status, run.reminders, run.changes) == (0, [], {})
    assert run.show_stoppers == 0


@pytest.mark.parametrize("content", [
    "", "\n\n \n\t\n", "# smtp\n  #pop3 stream\n", "smtps x\nxsmtp x\n",
    "127.0.0.1:smtp stream\n", "SMTP stream\n", "ftp stream smtp\n"])
def test_no_conflict(host, content):
    host.write(CONF, content)
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/no_conflict")
    assert (run.status, run.reminders, run.changes) == (0, [], {})


@pytest.mark.parametrize("answer", ["", "yes", "Y"])
def test_edited_and_reset(host, answer):
    inetd = host.daemon("inetd")
    host.write(CONF, TWO)
    run = host.run_task("EditInetdConf", answers=[answer])
    check_screen(run, "EditInetdConf/edited")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert run.changed() == {CONF: "changed", CONF + ".bak": "created"}
    assert run.changes[CONF].after == EDITED
    backup = run.changes[CONF + ".bak"]
    assert backup.after == TWO
    assert (backup.mode, backup.owner, backup.group) == (0o660, "root", "vmail")
    assert inetd.signals() == [1]
    check_screen(host.run_task("EditInetdConf"), "EditInetdConf/no_conflict")


def test_all_conflicts_in_their_order(host):
    host.daemon("inetd")
    names = ["pop-3", "mail", "finger", "pop3", "smtp", "smtp"]
    host.write(CONF, "".join(map(line, names)))
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/edited_all")
    assert host.read(CONF).decode() == "".join(
        "#" + line(name) for name in names)


@pytest.mark.parametrize("answer", ["q", "QUIT"])
def test_quit(host, answer):
    inetd = host.daemon("inetd")
    host.write(CONF, TWO)
    run = host.run_task("EditInetdConf", answers=[answer])
    check_screen(run, "EditInetdConf/edited")
    assert (run.status, run.reminders, run.changes) == (255, [], {})
    assert inetd.signals(0.1) == []


def test_not_reset(host):
    host.write(CONF, TWO)
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/not_reset")
    assert (run.status, run.reminders) == (0, HANG_UP)
    assert run.show_stoppers == 1
    assert host.read(CONF) == EDITED


@pytest.mark.parametrize("name, blocks", [
    ("smtp", 1), ("mail", 1), ("pop3", 0), ("finger", 0), ("pop-3", 0)])
def test_only_mail_transport_blocks_the_server_start(host, name, blocks):
    host.write(CONF, line(name))
    assert host.run_task("EditInetdConf").show_stoppers == blocks
    host.write(CONF, line(name))
    run = host.run_task("EditInetdConf", answers=["no"])
    assert run.show_stoppers == blocks
    assert run.reminders == [f"Remove from {CONF}:   {name}", "", *HANG_UP]


@pytest.mark.parametrize("answers, status",
                         [(["no", ""], 0), ([" yes", "n"], 255)])
def test_declined(host, answers, status):
    inetd = host.daemon("inetd")
    host.write(CONF, TWO)
    run = host.run_task("EditInetdConf", answers=answers)
    check_screen(run, "EditInetdConf/declined")
    assert (run.status, run.changes) == (status, {})
    assert (run.reminders, run.show_stoppers) == (REMOVE + HANG_UP, 1)
    assert inetd.signals(0.1) == []


def test_failed_when_another_editor_has_the_file(host):
    inetd = host.daemon("inetd")
    host.write(CONF, TWO)
    host.sh(f"flock {CONF} sleep 100 </dev/null >/dev/null 2>&1 & "
            f"while flock -n {CONF} true; do :; done")
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/failed")
    assert (run.status, run.changes) == (0, {})
    assert (run.reminders, run.show_stoppers) == (REMOVE + HANG_UP, 1)
    assert inetd.signals(0.1) == []


def test_links_lead_to_the_file_that_is_edited(host):
    host.daemon("inetd")
    host.write("/srv/real/inetd.conf", TWO)
    host.symlink("/srv/real/inetd.conf", "/srv/link")
    host.symlink("../srv/link", CONF)
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/edited_behind_links")
    assert run.changed() == {"/srv/real/inetd.conf": "changed",
                             "/srv/real/inetd.conf.bak": "created"}
    assert host.readlink(CONF) == "../srv/link"


def test_twelve_backups_and_a_dangling_one(host):
    host.daemon("inetd")
    host.write(CONF, TWO)
    host.write(CONF + ".bak", "0")
    for n in range(1, 12):
        host.write(f"{CONF}.bak{n}", str(n))
    host.symlink("/nonexistent", CONF + ".bak12")
    run = host.run_task("EditInetdConf")
    assert run.changed() == {CONF: "changed", CONF + ".bak13": "created"}
    assert run.changes[CONF + ".bak13"].after == TWO


def test_modes_owners_and_other_names_stay(host):
    host.daemon("inetd")
    host.write(CONF, TWO, mode=0o400, owner="vmail", group="mail")
    host.sh(f"ln {CONF} /etc/other")
    inode = host.stat(CONF).st_ino
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/edited")
    status = host.stat(CONF)
    assert (status.st_ino, status.st_nlink) == (inode, 2)
    assert status.st_mode & 0o7777 == 0o400
    assert (run.changes[CONF].owner, run.changes[CONF].group) == (
        "vmail", "mail")
    assert host.read("/etc/other") == EDITED


def test_a_line_of_a_megabyte(host):
    host.daemon("inetd")
    long_line = b"x" * (1 << 20)
    host.write(CONF, b"smtp " + long_line + b"\npop3 a\n" + long_line)
    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/edited")
    assert host.read(CONF) == (b"#smtp " + long_line + b"\n#pop3 a\n" +
                               long_line)


def test_a_full_file_size_limit_keeps_the_old_content(host):
    old = b"smtp x\npop3 x\n" + b"#" * 5000
    host.write(CONF, old)
    host.daemon("inetd")
    run = host.run("run_task", args=["EditInetdConf"],
                   limits={"RLIMIT_FSIZE": len(old)})
    assert host.read(CONF) == old
    assert run.status == 0 and "WARNING" in run.text


def test_an_interrupt_at_the_question_ends_the_run(host):
    host.write(CONF, TWO)
    run = host.run("run_task", [Signal(2)], ["EditInetdConf"])
    assert (run.status, run.changes) == (3, {})


def test_whatever_fails_the_file_is_old_or_new(host):
    host.daemon("inetd")
    every_call_fails(host, "EditInetdConf", CONF, TWO, EDITED)


@pytest.mark.parametrize("mode", ["kill", "torn"])
def test_whatever_kills_it_the_file_or_its_backup_is_whole(host, mode):
    host.daemon("inetd")
    every_call_kills(host, "EditInetdConf", CONF, TWO, EDITED, mode)


def test_an_interrupt_comes_before_or_after_the_edit(host):
    host.daemon("inetd")
    every_call_is_interrupted(host, "EditInetdConf", CONF, TWO, EDITED)
