"""Other servers on the mail server's ports."""

import pytest

from harness import check_screen

LISTED = ["agetty", "dovecot", "master", "sshd"]
NEVER_OFFERED = [
    "sched", "swapper", "init", "pageout", "pagedaemon", "fsflush", "Install",
    "biod", "cmdtool", "cron", "csh", "in.named", "ksh", "listen", "lockd",
    "lpsched", "openwin", "ps", "sh", "statd", "syslogd", "tcsh", "vi",
    "xinit", "xnews"]
SHUTDOWN = ["Shutdown server:    smtp      (port=25)",
            "Shutdown server:    pop3      (port=110)", ""]


def show_processes(host, names):
    lines = "".join(f"echo ' 400{n:04} ?        00:00:00 {name}'\n"
                    for n, name in enumerate(names))
    host.write("/usr/bin/ps", "#!/bin/sh\necho '   PID TTY  TIME CMD'\n" +
               lines, mode=0o755)


def test_no_busy_port(host):
    host.daemon("other", ports=[24, 250, 2511, 1110, 80])
    run = host.run_task("KillServers")
    check_screen(run, "KillServers/none")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert run.changes == {}


@pytest.mark.parametrize("name", ["vellumcraft", "vellumcr", "vellumcraf"])
def test_the_server_itself(host, name):
    server = host.daemon(name, ports=[] if name == "vellumcraft" else [25])
    run = host.run_task("KillServers")
    check_screen(run, "KillServers/running")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    assert run.state["running"] == 1
    assert server.signals(0.1) == []


@pytest.mark.parametrize("name", ["vellumc", "vellumcrafts", "xvellumcraft"])
def test_names_like_the_servers(host, name):
    host.daemon(name, ports=[25])
    run = host.run_task("KillServers")
    assert b"You have active servers" in run.output
    assert run.state["running"] == 0


def test_the_processes_of_the_server_are_counted(host):
    host.daemon("other", ports=[25])
    show_processes(host, ["vellumcr", "sh", "vellumcraft", "vellumcraft x"])
    assert host.run_task("KillServers").state["running"] == 2


@pytest.mark.parametrize("answer", ["", " ", ",", " , ,\t"])
def test_nothing_is_killed_without_a_name(host, answer):
    daemon = host.daemon("other", ports=[25, 110])
    show_processes(host, reversed(LISTED + ["master"]))
    run = host.run_task("KillServers", answers=["", answer])
    check_screen(run, "KillServers/four_names")
    assert (run.status, run.reminders) == (0, SHUTDOWN)
    assert run.show_stoppers == 1
    assert daemon.signals(0.1) == []


def test_the_fifth_name_begins_a_row(host):
    host.daemon("other", ports=[25, 110])
    show_processes(host, LISTED + ["systemd-journal"])
    run = host.run_task("KillServers")
    check_screen(run, "KillServers/five_names")


def test_names_that_are_never_offered(host):
    host.daemon("other", ports=[25, 110, 79])
    show_processes(host, NEVER_OFFERED)
    check_screen(host.run_task("KillServers"), "KillServers/no_names")
    show_processes(host, NEVER_OFFERED + ["a"])
    check_screen(host.run_task("KillServers"), "KillServers/one_name")


@pytest.mark.parametrize("answer", ["no", "q", " yes", "list"])
def test_the_list_is_shown_for_yes_only(host, answer):
    host.daemon("other", ports=[25, 110])
    run = host.run_task("KillServers", answers=[answer])
    check_screen(run, "KillServers/unlisted")
    assert (run.status, run.reminders) == (0, SHUTDOWN)


@pytest.mark.parametrize("names", ["master, inetd nosuch", "master inetd,nosuch",
                                   " ,master\tinetd,, nosuch , "])
def test_one_result_a_name(host, names):
    master = host.daemon("master", ports=[25])
    inetd = host.daemon("inetd", ports=[110])
    run = host.run_task("KillServers", answers=["no", names])
    check_screen(run, "KillServers/killed")
    assert run.reminders == [
        "Prevent boot startup of 'master'",
        "Kill program (and prevent boot startup): nosuch", ""]
    assert (run.status, run.show_stoppers) == (0, 1)
    assert master.signals() == [15] and not master.alive()
    assert inetd.signals() == [1] and inetd.alive()


def test_killed_servers_do_not_block_the_server_start(host):
    host.daemon("master", ports=[25])
    host.daemon("inetd", ports=[110])
    run = host.run_task("KillServers", answers=["no", "master inetd"])
    assert run.show_stoppers == 0
    assert run.reminders == ["Prevent boot startup of 'master'", ""]


def test_inetd_that_can_not_be_reset_does_not_block_the_start(host):
    host.daemon("other", ports=[25])
    run = host.run_task("KillServers", answers=["no", "inetd"])
    check_screen(run, "KillServers/inetd_not_reset")
    assert run.reminders == ["Kill -HUP [inetd-pid]", ""]
    assert run.show_stoppers == 0


def test_long_names(host):
    journal = host.daemon("systemd-journal", ports=[25])
    login = host.daemon("systemd-logind")
    cut = host.daemon("longname")
    run = host.run_task(
        "KillServers", answers=["no", "systemd-journald longname-daemon"])
    assert b"Killed systemd-journald\n        Killed longname-daemon\n" \
        in run.output
    assert journal.signals() == [15] and cut.signals() == [15]
    assert login.signals(0.1) == []
