"""The services database: what is missing, asked for, added and backed up."""

import pytest

from faults import (every_call_fails, every_call_is_interrupted,
                    every_call_kills)
from harness import check_screen

SERVICES = "/etc/services"
BLOCK = (b"##\n"
         b"## Services added during installation of Vellumcraft.\n"
         b"## Sorry that they aren't in order....\n"
         b"##\n")
ENTRIES = b"smtp       25/tcp\npop3       110/tcp\nfinger     79/tcp\n"
KNOWN = b"smtp 25/tcp mail\npop3 110/tcp pop-3\nfinger 79/tcp\n"
OTHERS = b"# Network services\n\nssh\t22/tcp\n"
ADDED = b"# Network services\n" + BLOCK + ENTRIES + b"\nssh\t22/tcp\n"
REMINDERS = ["Add to services database:    smtp       25/tcp",
             "Add to services database:    pop3       110/tcp",
             "Add to services database:    finger     79/tcp", ""]


def test_all_known(host):
    host.write(SERVICES, KNOWN)
    run = host.run_task("AddServices")
    check_screen(run, "AddServices/known")
    assert (run.status, run.reminders, run.changes) == (0, [], {})


def test_another_port_or_an_alias_counts_as_known(host):
    host.write(SERVICES, b"mailer 25/tcp smtp\npop3 1110/tcp\nfinger 79/tcp\n")
    check_screen(host.run_task("AddServices"), "AddServices/known")


def test_another_protocol_or_name_counts_as_missing(host):
    host.write(SERVICES, b"smtp 25/tcp\npop3 110/udp\npop-3 110/tcp\n"
                         b"finger 79/tcp\n")
    run = host.run_task("AddServices")
    check_screen(run, "AddServices/one_added")
    assert host.read(SERVICES).startswith(BLOCK + b"pop3       110/tcp\nsmtp")


@pytest.mark.parametrize("answer", ["", "yes", "Y", "yoghurt"])
def test_added(host, answer):
    host.write(SERVICES, OTHERS)
    run = host.run_task("AddServices", answers=[answer])
    check_screen(run, "AddServices/added")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert run.changed() == {SERVICES: "changed", SERVICES + ".bak": "created"}
    file, backup = run.changes[SERVICES], run.changes[SERVICES + ".bak"]
    assert file.after == ADDED and backup.after == OTHERS
    assert (file.mode, file.owner, file.group) == (0o644, "root", "root")
    assert (backup.mode, backup.owner, backup.group) == (0o660, "root", "vmail")
    # What was added is known afterwards.
    check_screen(host.run_task("AddServices"), "AddServices/known")


@pytest.mark.parametrize("answer", ["q", "Quit"])
def test_quit(host, answer):
    host.write(SERVICES, OTHERS)
    run = host.run_task("AddServices", answers=[answer])
    check_screen(run, "AddServices/added")
    assert (run.status, run.reminders, run.changes) == (255, [], {})


@pytest.mark.parametrize("answers, status",
                         [(["no", ""], 0), ([" yes", "n"], 255),
                          (["x", "quit"], 255)])
def test_declined(host, answers, status):
    host.write(SERVICES, OTHERS)
    run = host.run_task("AddServices", answers=answers)
    check_screen(run, "AddServices/declined")
    assert (run.status, run.reminders, run.changes) == (status, REMINDERS, {})
    assert run.show_stoppers == 0


def test_failed_when_there_is_no_file(host):
    host.remove(SERVICES)
    run = host.run_task("AddServices")
    check_screen(run, "AddServices/failed")
    assert (run.status, run.reminders, run.changes) == (0, REMINDERS, {})


def test_failed_when_another_editor_has_the_file(host):
    host.write(SERVICES, OTHERS)
    host.sh(f"flock {SERVICES} sleep 100 </dev/null >/dev/null 2>&1 & "
            f"while flock -n {SERVICES} true; do :; done")
    run = host.run_task("AddServices")
    check_screen(run, "AddServices/failed")
    assert run.changes == {}


def test_backups_are_numbered_and_never_overwritten(host):
    host.write(SERVICES, OTHERS)
    host.write(SERVICES + ".bak", "old")
    host.symlink("/nonexistent", SERVICES + ".bak1")
    run = host.run_task("AddServices")
    assert run.changed() == {SERVICES: "changed", SERVICES + ".bak2": "created"}


def test_a_read_only_file_is_edited_and_stays_read_only(host):
    host.write(SERVICES, OTHERS, mode=0o444, owner="vmail", group="mail")
    run = host.run_task("AddServices")
    check_screen(run, "AddServices/added")
    change = run.changes[SERVICES]
    assert (change.mode, change.owner, change.group) == (0o444, "vmail", "mail")
    assert change.after == ADDED


def test_links_lead_to_the_file_that_is_edited(host):
    host.write("/srv/real/services", OTHERS)
    host.symlink("../srv/real/services", SERVICES)
    run = host.run_task("AddServices")
    assert b"/srv/real/services file" in run.output
    assert run.changed() == {"/srv/real/services": "changed",
                             "/srv/real/services.bak": "created"}
    assert host.readlink(SERVICES) == "../srv/real/services"


def test_whatever_fails_the_file_is_old_or_new(host):
    every_call_fails(host, "AddServices", SERVICES, OTHERS, ADDED)


@pytest.mark.parametrize("mode", ["kill", "torn"])
def test_whatever_kills_it_the_file_or_its_backup_is_whole(host, mode):
    every_call_kills(host, "AddServices", SERVICES, OTHERS, ADDED, mode)


def test_an_interrupt_comes_before_or_after_the_edit(host):
    every_call_is_interrupted(host, "AddServices", SERVICES, OTHERS, ADDED)
