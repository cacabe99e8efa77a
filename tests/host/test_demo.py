"""./run-demo: the installation on a throw-away host, answered by itself."""

import os
import re
import subprocess

import pytest

from harness import REPO


def run_demo(*arguments):
    return subprocess.run([str(REPO / "run-demo"), *arguments],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=600, check=False,
                          text=True, cwd="/")


@pytest.fixture(scope="module")
def demo():
    before = {path: os.lstat(path) for path in (
        "/etc", "/etc/passwd", "/usr/lib", "/var/mail", "/opt")}
    done = run_demo()
    for path, status in before.items():
        now = os.lstat(path)
        assert (now.st_mtime_ns, now.st_mode, now.st_ino) == (
            status.st_mtime_ns, status.st_mode, status.st_ino), path
    return done


def section(done, title):
    """The lines of one section of the report."""
    text = done.stderr.split(f"\n{title}:", 1)[1]
    return [line.strip() for line in re.match(
        r" none\n|\n((?:  .*\n)*)", text).group(0).splitlines() if line.strip()]


def test_it_ends_with_the_installers_status(demo):
    assert demo.returncode == 0, demo.stdout + demo.stderr


def test_the_dialogue_is_shown_with_its_answers(demo):
    assert "Do you want to continue? yes/no/quit [yes] \n" in demo.stdout
    assert "Do you want to deliver the queue now? yes/no/quit [yes] no\n" in (
        demo.stdout)
    assert "stand-in for the real server" in demo.stdout
    assert "Installation is complete." in demo.stdout


def test_the_files_it_changed_are_listed(demo):
    files = section(demo, "Files")
    for line in (
            "changed  0644  root:root  /etc/inetd.conf, content",
            "created  0770  vmail:vmail  /opt/vellumcraft/mailboxes/",
            "moved  0755  root:root  /usr/lib/sendmail.bak, "
            "from /usr/lib/sendmail",
            "changed  2775  root:mail  /var/mail/, mode was 0775"):
        assert line in files
    assert any("/usr/lib/sendmail -> ../../opt/vellumcraft/bin/sendmail" in line
               for line in files)


def test_users_got_accounts_and_their_mail_was_moved(demo):
    assert "    ann@example.com (Ann Smith)....created\n" in demo.stdout
    assert "Skipping frank (no home directory)\n" in demo.stdout
    assert "Postmaster password: secret1\n" in demo.stdout
    files = section(demo, "Files")
    for login in ("ann", "carol", "dave", "grace"):
        assert f"removed  0660  {login}:mail  /var/mail/{login}" in files
    messages = [line for line in files if re.search(
        r"created  0\d+  vmail:vmail  /opt/vellumcraft/mailboxes/.*/in/.", line)]
    assert len(messages) == 8


def test_settings_survived_the_new_module_databases(demo):
    assert "     Dispatch\n     WWW-Server\ndone\n" in demo.stdout
    files = section(demo, "Files")
    for module in ("Account-Manager", "Dispatch", "WWW-Server"):
        name = f"/opt/vellumcraft/config/{module}"
        assert f"moved  0640  vmail:vmail  {name}.backup, from {name}" in files
    assert not any("MTA-Accounts" in line for line in files)


def test_the_processes_it_signalled_and_started_are_listed(demo):
    signalled = [line.split()[1:3]
                 for line in section(demo, "Processes signalled")]
    assert signalled == [["inetd", "SIGHUP"], ["sendmail", "SIGTERM"]]
    assert [line.split()[1] for line in section(demo, "Processes started")] == [
        "vellumcraft"]
    assert [line.split()[1] for line in section(demo, "Processes ended")] == [
        "sendmail"]
    ports = [line.split() for line in section(demo, "Ports listened on")]
    assert sorted(words[3] for words in ports if words[4] == "vellumcraft") == [
        "110", "25", "79"]


def test_a_second_installation_finds_the_server_running():
    done = run_demo("--twice")
    assert done.returncode == 0, done.stdout + done.stderr
    first, second = done.stdout.split("---- The same installation once more")
    assert "Vellumcraft is running" not in first
    assert "Checking for active server processes.... Vellumcraft is running\n" \
        in second
    assert [line.split()[1] for line in section(done, "Processes started")] == [
        "vellumcraft"]


def test_a_wrong_option_is_refused():
    done = run_demo("--bogus")
    assert done.returncode == 2
    assert done.stderr == "usage: ./run-demo [--twice]\n"


def test_a_container_without_name_spaces_is_told_so():
    done = subprocess.run(
        ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin",
         str(REPO / "run-demo")], stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=600,
        check=False, text=True, cwd="/")
    assert done.returncode == 125
    assert done.stderr.startswith(
        "rehearse: needs the right to make name spaces (a container may lack "
        "it); nothing was run")
