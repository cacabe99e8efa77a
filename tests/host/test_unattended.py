"""The examples of docs/unattended.md, as they stand there."""

import re

import pytest

from harness import BUILD, REPO

PAGE = (REPO / "docs/unattended.md").read_text()


def example(name):
    return re.search(rf"<!-- {name} -->\n```\w*\n(.*?)```", PAGE, re.S).group(1)


@pytest.fixture(name="ready")
def ready_host(host):
    host.install_server()
    host.sh(f"mkdir -p /opt/vellumcraft/bin; cp '{BUILD}/Install'"
            " /opt/vellumcraft/bin/;"
            f" cp '{BUILD}/standin_daemon' /opt/vellumcraft/bin/sendmail")
    for module in ("Account-Manager", "Dispatch", "WWW-Server"):
        host.sh(f"'{BUILD}/vcdb' load /opt/vellumcraft/config/{module}"
                f" <'{REPO}/packaging/config/{module}';"
                f" chown vmail:vmail /opt/vellumcraft/config/{module}")
    return host


def run(host, command, status):
    """Runs it as the page does, output to a file; the output."""
    host.sh("cd /opt/vellumcraft && umask 077;"
            " export POSTMASTER_PASSWORD=secret1;"
            f" timeout 60 {command} >/root/installation.log 2>&1;"
            f" test $? = {status}")
    return host.read("/root/installation.log").decode()


def check_installed(host, output):
    assert "Postmaster account setup completed." in output
    assert "Installation is complete." in output
    assert "ERROR" not in output
    dump = host.sh(f"'{BUILD}/vcdb' dump /opt/vellumcraft/config/Accounts")
    assert "/Postmaster\n" in dump and "/Root\n" in dump
    assert host.stat("/opt/vellumcraft/mailboxes").st_uid == 950


def test_a_plain_file_answers_everything(ready):
    ready.write("/root/answers", example("answers"), 0o600)
    check_installed(ready, run(ready, "bin/Install </root/answers", 0))


def test_expect_answers_everything(ready):
    ready.write("/root/installation.exp", example("expect"), 0o600)
    check_installed(ready, run(ready, "expect /root/installation.exp", 0))


def test_expect_ends_with_the_installers_status(ready):
    ready.config(MailUserName=None)
    ready.write("/root/installation.exp", example("expect"), 0o600)
    output = run(ready, "expect /root/installation.exp", 255)
    assert "is missing information" in output
