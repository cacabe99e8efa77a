"""The server's sendmail emulator in the place of the system's sendmail."""

import pytest

from faults import counted_calls, environment
from harness import check_screen

SENDMAIL = "/usr/lib/sendmail"
EMULATOR = "/opt/vellumcraft/bin/sendmail"
TARGET = "../../opt/vellumcraft/bin/sendmail"
QUEUE = "MSP Queue status...\n        m1 queued\n"
NEW_REMINDER = [f"Create link: 'ln -s {TARGET} {SENDMAIL}"]
REMINDER = [f"Create link: 'ln -s {TARGET} {SENDMAIL}'"]


def old_sendmail(host, listing="Mail queue is empty\n"):
    """A system sendmail with that queue listing."""
    host.write("/srv/queue", listing)
    host.write(SENDMAIL, "#!/bin/sh\n[ \"$*\" = -bp ] && cat /srv/queue\n",
               mode=0o4755, owner="vmail")
    return host.read(SENDMAIL)


def emulator(host):
    host.write(EMULATOR, "#!/bin/sh\n", mode=0o755)


def check_replaced(host, run, old, backup=".bak"):
    """The link is there, and the old program is itself under its new name."""
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert host.readlink(SENDMAIL) == TARGET
    assert host.read(SENDMAIL + backup) == old
    assert set(run.changes) == {SENDMAIL, SENDMAIL + backup}


def test_a_link_where_there_is_no_sendmail(host):
    emulator(host)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert (run.status, run.reminders) == (0, [])
    link = run.changes[SENDMAIL]
    assert (link.kind, link.target, link.owner, link.group) == (
        "created", TARGET, "root", "vmail")
    assert set(run.changes) == {SENDMAIL}
    assert host.sh(f"readlink -f {SENDMAIL}") == EMULATOR + "\n"


@pytest.mark.parametrize("target", ["/nonexistent/file", TARGET, "sendmail"])
def test_a_dangling_link_is_replaced_without_a_backup(host, target):
    host.symlink(target, SENDMAIL)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert host.readlink(SENDMAIL) == TARGET
    assert set(run.changes) <= {SENDMAIL}


@pytest.mark.parametrize("link", [TARGET, EMULATOR, "/srv/other-way"])
def test_already_in_place(host, link):
    emulator(host)
    host.symlink(EMULATOR, "/srv/other-way")
    host.symlink(link, SENDMAIL)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert (run.status, run.reminders, run.changes) == (0, [], {})


def test_already_in_place_where_the_program_directory_is_a_link(host):
    host.write("/srv/vc/bin/sendmail", "#!/bin/sh\n", mode=0o755)
    host.symlink("/srv/vc/bin", "/opt/vellumcraft/bin")
    host.symlink(TARGET, SENDMAIL)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert run.changes == {}


def test_replaced_with_an_empty_queue(host):
    old = old_sendmail(host)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    check_replaced(host, run, old)
    assert host.mode(SENDMAIL + ".bak") == 0o4755


def test_replaced_when_it_says_nothing_or_can_not_run(host):
    host.write(SENDMAIL, "no program", mode=0o644)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    check_replaced(host, run, b"no program")


def test_a_link_to_another_sendmail_is_kept_as_a_link(host):
    host.write("/usr/sbin/other", "#!/bin/sh\n", mode=0o755)
    host.symlink("../sbin/other", SENDMAIL)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert host.readlink(SENDMAIL) == TARGET
    assert host.readlink(SENDMAIL + ".bak") == "../sbin/other"


def test_backups_are_numbered(host):
    old = old_sendmail(host)
    host.write(SENDMAIL + ".bak", "older")
    run = host.run_task("InstallSendmail")
    check_replaced(host, run, old, ".bak1")

    host.remove(SENDMAIL)
    old = old_sendmail(host)
    host.symlink("/nonexistent", SENDMAIL + ".bak2")
    run = host.run_task("InstallSendmail")
    check_replaced(host, run, old, ".bak3")
    assert host.read(SENDMAIL + ".bak") == b"older"


def lines(count):
    return "".join(f"message {n}\n" for n in range(1, count + 1))


@pytest.mark.parametrize("listing, screen", [
    (QUEUE, "queue_given_up"), (lines(20), "queue_of_20_lines"),
    (lines(21), "queue_of_21_lines"), (lines(100), "queue_of_100_lines"),
    ("one\ntwo", "queue_without_line_end")])
def test_the_queue_is_shown(host, listing, screen):
    old = old_sendmail(host, listing)
    if screen == "queue_given_up":
        run = host.run_task("InstallSendmail", answers=["No"])
        check_screen(run, "InstallSendmail/queue_given_up")
        check_replaced(host, run, old)
    else:
        run = host.run_task("InstallSendmail", answers=["q"])
        check_screen(run, f"InstallSendmail/{screen}")
        assert (run.status, run.changes) == (255, {})


@pytest.mark.parametrize("answer, screen", [
    ("", "queue_to_be_delivered"), ("yes", "queue_to_be_delivered"),
    ("q", "queue_quit"), (" no", "queue_quit"), ("x", "queue_quit")])
def test_the_run_ends_for_the_queue(host, answer, screen):
    old_sendmail(host, QUEUE)
    run = host.run_task("InstallSendmail", answers=[answer])
    check_screen(run, f"InstallSendmail/{screen}")
    assert (run.status, run.reminders, run.changes) == (255, [], {})


def test_a_long_line_of_the_queue_counts_as_several(host):
    old_sendmail(host, "x" * 600)
    run = host.run_task("InstallSendmail", answers=["q"])
    assert b"\n\n" + b"x" * 600 + b"\nYou should" in run.output


def test_the_queue_listing_reads_nothing_and_shows_its_errors(host):
    host.write(SENDMAIL, "#!/bin/sh\ncat\necho problem >&2\n", mode=0o755)
    run = host.run_task("InstallSendmail")
    check_screen(run, "InstallSendmail/done")
    assert run.errors == b"problem\n"


def test_the_queue_is_read_as_root(host):
    host.write("/srv/queue", QUEUE, mode=0o600)
    host.write(SENDMAIL, "#!/bin/sh\ncat /srv/queue\n", mode=0o700)
    run = host.run_task("InstallSendmail", answers=["q"])
    check_screen(run, "InstallSendmail/queue_quit")


def test_the_first_link_can_not_be_made(host):
    env = environment("fail", 1, calls="symlink", errno="EACCES", times=0)
    run = host.run_task("InstallSendmail", env=env)
    check_screen(run, "InstallSendmail/no_link")
    assert (run.status, run.reminders, run.changes) == (0, NEW_REMINDER, {})
    assert run.show_stoppers == 0


def test_only_the_link_fails(host):
    old = old_sendmail(host)
    env = environment("fail", 1, calls="symlink", errno="ENOSPC", times=0)
    run = host.run_task("InstallSendmail", env=env)
    check_screen(run, "InstallSendmail/not_replaced")
    assert (run.status, run.reminders, run.show_stoppers) == (0, REMINDER, 0)
    assert not host.exists(SENDMAIL)
    assert host.read(SENDMAIL + ".bak") == old
    # The link is all that a second run has to make.
    check_screen(host.run_task("InstallSendmail"), "InstallSendmail/done")
    assert host.readlink(SENDMAIL) == TARGET


def test_the_old_program_can_not_be_moved(host):
    old = old_sendmail(host, QUEUE)
    env = environment("fail", 1, calls="rename,renameat2", errno="EPERM",
                      times=0)
    run = host.run_task("InstallSendmail", answers=["no"], env=env)
    check_screen(run, "InstallSendmail/queue_given_up_not_replaced")
    assert (run.status, run.reminders, run.changes) == (0, REMINDER, {})
    assert host.read(SENDMAIL) == old


@pytest.mark.parametrize("calls, failing", [
    ("renameat2", 1), ("renameat2", 2), ("renameat2,link", 3)])
def test_file_systems_without_exchange_have_the_plain_way(
        host, calls, failing):
    old = old_sendmail(host)
    env = environment("fail", 1, calls=calls, errno="EINVAL", times=failing)
    run = host.run_task("InstallSendmail", env=env)
    check_screen(run, "InstallSendmail/done")
    check_replaced(host, run, old)


def test_the_old_program_never_stays_under_two_names(host):
    old = old_sendmail(host)
    # No exchange, no exclusive renaming, and the old name can't be removed.
    env = environment("fail", 1, calls="symlink,renameat2,unlink",
                      errno="EINVAL", times=3)
    run = host.run_task("InstallSendmail", env=env)
    check_screen(run, "InstallSendmail/not_replaced")
    assert (run.status, run.reminders, run.changes) == (0, REMINDER, {})
    assert host.read(SENDMAIL) == old


def backup_names(host):
    return [name for name in host.listdir("/usr/lib")
            if name.startswith("sendmail.")]


def calls_of(host):
    def run(env):
        start_again(host)
        host.run("run_task", args=["InstallSendmail"], env=env)
    return counted_calls(host, run, paths="/usr/lib")


def start_again(host):
    for name in backup_names(host):
        host.remove(f"/usr/lib/{name}")
    if host.exists(SENDMAIL):
        host.remove(SENDMAIL)
    return old_sendmail(host)


def test_whatever_fails_the_old_program_is_not_lost(host):
    calls = calls_of(host)
    assert len(calls) >= 6
    for at, call in enumerate(calls, 1):
        where = f"call {at}, {call}"
        old = start_again(host)
        env = environment("fail", at, paths="/usr/lib", errno="EIO")
        run = host.run_task("InstallSendmail", env=env)
        assert run.status == 0, where
        if call[0] == "stat":  # taken for no sendmail: the link is refused
            check_screen(run, "InstallSendmail/no_link")
            assert host.read(SENDMAIL) == old, where
            continue
        check_screen(run, "InstallSendmail/done")
        assert host.readlink(SENDMAIL) == TARGET, where
        assert host.read(SENDMAIL + ".bak") == old, where
        assert backup_names(host) == ["sendmail.bak"], where


def test_whatever_kills_it_sendmail_is_old_or_new(host):
    calls = calls_of(host)
    for at, call in enumerate(calls, 1):
        where = f"call {at}, {call}"
        old = start_again(host)
        env = environment("kill", at, paths="/usr/lib")
        run = host.run("run_task", args=["InstallSendmail"], env=env)
        assert run.status == -9, where
        # At no moment is there neither the old program nor the link.
        assert host.exists(SENDMAIL), where
        host.run_task("InstallSendmail")
        assert host.readlink(SENDMAIL) == TARGET, where
        assert host.read(SENDMAIL + ".bak") == old, where
        assert backup_names(host) == ["sendmail.bak"], where


def test_an_interrupt_leaves_the_old_program_or_the_link(host):
    calls = calls_of(host)
    for at, call in enumerate(calls, 1):
        where = f"call {at}, {call}"
        old = start_again(host)
        env = environment("signal", at, paths="/usr/lib", signal=1)
        run = host.run("run_task", args=["InstallSendmail"], env=env)
        assert run.status == 3, where
        if backup_names(host):
            assert host.readlink(SENDMAIL) == TARGET, where
            assert host.read(SENDMAIL + ".bak") == old, where
        else:
            assert host.read(SENDMAIL) == old, where
