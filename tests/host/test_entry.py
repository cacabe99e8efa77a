"""Who may start the program, under which name, and what its arguments mean."""

import pytest

from faults import environment
from harness import BUILD, check_screen

ADD_NAMES = ["AddUserAccounts", "./AddUserAccounts",
             "/opt/vellumcraft/bin/AddUserAccounts", "-AddUserAccounts",
             "MyAddUserAccounts"]
INSTALL_NAMES = ["Install", "/x/AddUserAccounts/Install", "AddUserAccounts2",
                 "adduseraccounts", "AddUserAccounts "]


def test_only_root_may_start_it(host):
    host.user("ann", uid=1001)
    for name in ADD_NAMES + INSTALL_NAMES:
        run = host.run("Install", user="ann", argv0=name, cwd="/")
        mode = "add_accounts" if name in ADD_NAMES else "install"
        check_screen(run, f"Start/root_to_{mode}")
        assert (run.status, run.changes, run.errors) == (255, {}, b""), name


def test_the_link_names_the_mode(host):
    host.user("ann", uid=1001)
    run = host.run("AddUserAccounts", user="ann", cwd="/")
    check_screen(run, "Start/root_to_add_accounts")
    assert run.status == 255


def test_the_real_user_decides_not_the_effective_one(host):
    host.user("ann", uid=1001)
    host.sh(f"cp {BUILD}/Install /tmp/suid && chmod 4755 /tmp/suid")
    run = host.run("/tmp/suid", user="ann", cwd="/")
    check_screen(run, "Start/root_to_install")
    assert run.status == 255


def test_declining_the_first_question_runs_no_task(host):
    for answer in ("no", "n", "NO", "quit", "Q"):
        run = host.run("Install", answers=[answer])
        check_screen(run, "FullInstall/declined")
        assert (run.status, run.changes, run.started) == (255, {}, [])
        assert run.errors == b""


def test_another_answer_is_asked_again(host):
    run = host.run("Install", answers=["maybe", " yes", "1", "n"])
    check_screen(run, "FullInstall/asked_again")
    assert run.status == 255


def test_what_is_no_address_of_a_host_is_ignored(host):
    for argument in ("-v", "word", "localhost", "999.1.1.1", "192.0.2",
                     "192.0.2.99", "", "127.0.0.1 ", "0x7f.0.0.1", "::1"):
        run = host.run("Install", answers=["no"], args=[argument, "127.0.0.1"])
        check_screen(run, "FullInstall/declined")
        assert run.status == 255, argument


@pytest.mark.parametrize("address", ["127.0.0.1", "192.0.2.7"])
def test_an_address_selects_its_own_configuration(host, address):
    host.sh(f"mv /etc/vellumcraft.conf /etc/vellumcraft.conf-{address}")
    run = host.run("Install", answers=["no"], args=[address, "more"])
    check_screen(run, "FullInstall/declined")
    assert run.status == 255


def test_a_missing_configuration_of_an_address_is_not_replaced(host):
    run = host.run("Install", args=["127.0.0.1"])
    check_screen(run, "ReadSettings/missing_for_address")
    assert run.status == 255


def test_what_is_made_is_closed_to_others(host):
    """The mask applies, and the identity is the mail owner's with its group."""
    host.write("/opt/vellumcraft/config/probe.install", b"")
    run = host.run_task("SetupSpecialAccounts")
    made = run.changes["/opt/vellumcraft/config/Accounts"]
    assert (made.owner, made.group, made.mode) == ("vmail", "vmail", 0o640)


@pytest.mark.parametrize("at", [1, 2, 3])
def test_an_identity_that_is_refused_ends_the_run(host, at):
    env = environment("fail", at, program="Install", errno="EPERM",
                      calls="seteuid,setegid,setresuid,setresgid,setgroups")
    run = host.run("Install", env=env)
    assert run.status == 255
    assert b"identity of the mail system's owner (vmail)" in run.output
    assert b"continue?" not in run.output and run.changes == {}


def test_run_task_explains_its_usage(host):
    for name in ("", "Nonsense", "Nothing+Nonsense"):
        run = host.run("run_task", args=[name])
        assert run.status == 2 and b"usage: run_task NAME" in run.errors
    assert host.run_task("Nothing+Nothing").state == {
        "reminders": [], "show_stoppers": 0, "running": 0, "www_port": 80}


def test_a_limit_of_file_sizes_is_reported_and_kills_nobody(host):
    """As a full disk; what is there stays whole, and a later run goes on."""
    host.write("/etc/inetd.conf", "smtp stream tcp nowait root smtpd smtpd\n" +
               "#" * 4000 + "\n")
    host.daemon("inetd")
    host.user("ann", uid=1001, mail=b"From a Mon\nSubject: s\n\nhello\n")
    before = host.read("/etc/inetd.conf")
    for limit in (0, 3000, 30000):
        run = host.run("Install", limits={"RLIMIT_FSIZE": limit},
                       until="Starting vellumcraft")
        assert run.status in (-9, 255) and run.errors == b"", limit
        assert host.read("/etc/inetd.conf") in (before, b"#" + before), limit
        assert host.read("/var/mail/ann"), limit
    run = host.run("Install")
    assert run.status == 0, run.text
    assert host.read("/etc/inetd.conf") == b"#" + before
