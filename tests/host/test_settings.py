"""The system configuration file and the identity of host and mail owner."""

import pytest

from faults import environment
from harness import check_screen

CONF = "/etc/vellumcraft.conf"
SETTINGS = {"DomainName": "example.com", "Vellumcraft": "/opt/vellumcraft",
            "ProgramDir": "/opt/vellumcraft",
            "MailboxDir": "/opt/vellumcraft/mailboxes",
            "MailUserName": "vmail", "HostName": "mail"}


def conf(end="\n", **changes):
    return "".join(f"{key}={value}{end}" for key, value in
                   dict(SETTINGS, **changes).items() if value is not None)


def host_name(host, *args):
    """The host name that a run settled: the completion report names it."""
    run = host.run_task("WarnAdmin", args=args)
    assert run.status == 0, run.text
    return run.text.split("http://")[1].split("\n")[0]


def refused(host, screen, args=(), **more):
    run = host.run("Install", args=args, **more)
    check_screen(run, f"ReadSettings/{screen}")
    assert (run.status, run.changes, run.started) == (255, {}, [])


def test_missing(host):
    host.remove(CONF)
    refused(host, "missing")


def test_a_dangling_link_is_missing(host):
    host.remove(CONF)
    host.symlink("/etc/nowhere", CONF)
    refused(host, "missing")


def test_a_directory_cannot_be_read(host):
    host.remove(CONF)
    host.mkdir(CONF)
    refused(host, "unreadable")


@pytest.mark.parametrize("call", ["open", "read"])
def test_unreadable(host, call):
    refused(host, "unreadable", env=environment(
        "fail", 1, program="Install", errno="EIO", calls=call, paths=CONF))


@pytest.mark.parametrize("line", ["", "{}=\n", "{} = x\n", "{}= x\n", "{}\n",
                                  " {}=x\n", "{}Path=x\n{}=x\n"])
def test_a_setting_without_a_value_is_missing(host, line):
    # The bare short name resolves, so that a missing domain comes this far.
    host.write("/etc/hosts", "127.0.0.1 localhost\n192.0.2.7 mail "
               "mail.example.com\n")
    for key in ("DomainName", "Vellumcraft", "ProgramDir", "MailboxDir",
                "MailUserName"):
        host.write(CONF, line.replace("{}", key) + conf(**{key: None}))
        refused(host, "incomplete")


def test_an_empty_file_has_no_address(host):
    host.write(CONF, "")
    host.sh("hostname nowhere")
    refused(host, "no_address_without_domain")


def test_no_address(host):
    host.config(HostName="nowhere")
    refused(host, "no_address")


def test_no_address_names_the_file_of_the_address(host):
    host.write(CONF + "-127.0.0.1", conf(HostName="nowhere"))
    refused(host, "no_address_for_address", args=["127.0.0.1"])


def test_the_system_does_not_tell_its_name(host):
    host.config(HostName=None)
    refused(host, "no_node_name", env=environment(
        "fail", 1, program="Install", errno="EFAULT", calls="uname"))


def test_owner_unknown(host):
    host.config(MailUserName="nobodyhere")
    refused(host, "owner_unknown")


def test_group_unknown(host):
    host.user("postman", uid=951, gid=8123, home="/")
    host.config(MailUserName="postman")
    refused(host, "group_unknown")


@pytest.mark.parametrize("content", [
    conf(), conf().rstrip("\n"), conf("\r\n"), conf(" trailing text\n"),
    conf("\t\n"), conf() + conf(DomainName="second.org", HostName="second"),
    "# comment\n\n" + conf() + "\n\n", "x" * 300000 + "\n" + conf(),
    conf() + "x" * 300000, "domainname=other\n" + conf()])
def test_forms_of_the_file(host, content):
    host.write(CONF, content)
    assert host_name(host) == "mail.example.com"


@pytest.mark.parametrize("configured", [
    "mail.sales.other.org", "mail.", "mail.example.com"])
def test_only_the_first_label_is_kept(host, configured):
    host.config(HostName=configured)
    assert host_name(host) == "mail.example.com"


def test_without_a_name_the_system_is_asked(host):
    host.config(HostName=None)
    host.sh("hostname mail.elsewhere.org")
    assert host_name(host) == "mail.example.com"
    host.config(HostName="")
    assert host_name(host) == "mail.example.com"


def test_without_a_name_the_address_is_asked(host):
    host.write("/etc/hosts", "127.0.0.1 localhost localhost.example.com\n"
               "192.0.2.7 mail.other.org mail.example.com\n")
    for address in ("127.0.0.1", "192.0.2.7"):
        host.write(f"{CONF}-{address}", conf(HostName=None))
    assert host_name(host, "127.0.0.1") == "localhost.example.com"
    assert host_name(host, "192.0.2.7") == "mail.example.com"


def test_a_configured_name_goes_before_the_address(host):
    host.write(f"{CONF}-127.0.0.1", conf())
    assert host_name(host, "127.0.0.1") == "mail.example.com"


def test_the_server_gets_the_settings_without_slashes(host):
    host.write("/opt/vellumcraft/vellumcraft",
               "#!/bin/sh\nenv > /dev/shm/environment\n", mode=0o755)
    host.run_task("StartDaemon")
    lines = host.read("/dev/shm/environment").decode().splitlines()
    assert set(lines) >= {
        "DomainName=example.com", "HostName=mail.example.com",
        "MailboxDir=/opt/vellumcraft/mailboxes", "ModuleName=Install",
        "Vellumcraft=/opt/vellumcraft", "ProgramDir=/opt/vellumcraft"}
