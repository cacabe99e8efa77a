"""The directory of the server's mailboxes."""

import pytest

from faults import environment
from harness import check_screen

DIRECTORY = "/opt/vellumcraft/mailboxes"


def create_reminders(directory):
    return [f"Create mailbox directory:     {directory}/",
            "and set owner/group/perms to: vmail/vmail/drwxrwx---", ""]


def test_found(host):
    host.mkdir(DIRECTORY, mode=0o755, owner="root")
    run = host.run_task("CreateMailboxDir")
    check_screen(run, "CreateMailboxDir/found")
    assert (run.status, run.reminders, run.changes) == (0, [], {})


def test_a_link_to_a_directory_is_found(host):
    host.mkdir("/srv/boxes")
    host.symlink("/srv/boxes", DIRECTORY)
    run = host.run_task("CreateMailboxDir")
    check_screen(run, "CreateMailboxDir/found")
    assert run.changes == {}


@pytest.mark.parametrize("parent", ["root", "vmail"])
def test_created(host, parent):
    host.sh(f"chown {parent} /opt/vellumcraft; chmod 700 /opt/vellumcraft")
    if parent == "root":
        host.sh("chmod 711 /opt/vellumcraft")
    run = host.run_task("CreateMailboxDir")
    check_screen(run, "CreateMailboxDir/created")
    assert (run.status, run.reminders) == (0, [])
    assert run.changed() == {DIRECTORY: "created"}
    change = run.changes[DIRECTORY]
    assert (change.type, change.mode, change.owner, change.group) == (
        "directory", 0o770, "vmail", "vmail")


def test_created_on_file_systems_that_only_rename(host):
    run = host.run_task("CreateMailboxDir", env=environment(
        "fail", 1, calls="renameat2", errno="EINVAL"))
    check_screen(run, "CreateMailboxDir/created")
    assert run.changed() == {DIRECTORY: "created"}
    assert run.changes[DIRECTORY].owner == "vmail"


def test_a_trailing_slash_is_no_matter(host):
    host.config(MailboxDir=DIRECTORY + "//")
    run = host.run_task("CreateMailboxDir")
    check_screen(run, "CreateMailboxDir/created")
    assert run.changes[DIRECTORY].owner == "vmail"


@pytest.mark.parametrize("answer, status", [("", 0), ("no", 255), ("q", 255)])
def test_a_missing_parent_is_not_made(host, answer, status):
    host.config(MailboxDir="/opt/missing/mailboxes")
    run = host.run_task("CreateMailboxDir", answers=[answer])
    check_screen(run, "CreateMailboxDir/not_created")
    assert (run.status, run.show_stoppers, run.changes) == (status, 0, {})
    assert run.reminders == create_reminders("/opt/missing/mailboxes")


@pytest.mark.parametrize("instead", [
    f"echo x > {DIRECTORY}", f"ln -s nowhere {DIRECTORY}",
    f"ln -s /etc/passwd {DIRECTORY}", f"mkfifo {DIRECTORY}"])
def test_something_else_stands_there(host, instead):
    host.sh(instead)
    run = host.run_task("CreateMailboxDir")
    check_screen(run, "CreateMailboxDir/mkdir_failed")
    assert (run.status, run.changes) == (0, {})
    assert run.reminders == create_reminders(DIRECTORY)


@pytest.mark.parametrize("left", [
    f"mkdir {DIRECTORY}.new", f"mkdir -p {DIRECTORY}.new/kept",
    f"echo kept > {DIRECTORY}.new", f"ln -s nowhere {DIRECTORY}.new"])
def test_the_name_beside_it_is_taken(host, left):
    host.sh(left)
    run = host.run_task("CreateMailboxDir")
    assert "Creating Mailbox directory.... OK\n" in run.text
    made = run.changes.pop(DIRECTORY)
    assert (made.kind, made.mode, made.owner) == ("created", 0o770, "vmail")
    assert set(run.changes) <= {DIRECTORY + ".new"}
    assert host.exists(DIRECTORY + ".new") == (not left.startswith("mkdir /"))


def test_mkdir_failed(host):
    run = host.run_task("CreateMailboxDir", env=environment(
        "fail", 1, calls="mkdir", errno="ENOSPC"))
    check_screen(run, "CreateMailboxDir/mkdir_failed")
    assert (run.status, run.changes) == (0, {})


@pytest.mark.parametrize("error", ["EPERM", "EIO"])
def test_chown_failed(host, error):
    run = host.run_task("CreateMailboxDir", env=environment(
        "fail", 1, calls="fchown", errno=error))
    check_screen(run, "CreateMailboxDir/chown_failed")
    assert (run.status, run.show_stoppers, run.prompts) == (0, 0, [])
    assert run.reminders == [
        f"Set owner/group of {DIRECTORY}/ to: vmail/vmail", ""]
    assert run.changes[DIRECTORY].owner == "root"
