"""The host tasks against a real inetd, real mail servers, netstat and ps.

The Debian packages are downloaded once into the build directory and unpacked on
the throw-away hosts only; nothing is installed on this machine.
"""

import re
import socket

import pytest

from harness import HostError, check_screen
from real_packages import unpack

SENDMAIL = "/usr/lib/sendmail"
TARGET = "../../opt/vellumcraft/bin/sendmail"


def account(host, name, uid):
    host.user(name, uid, gid=uid, home="/nonexistent", make_home=False)
    host.group(name, uid)


def start(host, command):
    """Starts a daemon that leaves nothing of ours open."""
    host.sh(f"{command} </dev/null >/dev/null 2>&1")


def wait_for(host, condition):
    host.sh(f"for i in $(seq 100); do {condition} && exit; sleep 0.05; done;"
            " exit 1")


def listens(port):
    return f"grep -q ':{port:04X} .* 0A ' /proc/net/tcp /proc/net/tcp6"


def greeting(host, port):
    """The first line that a server says; None when nobody answers."""
    try:
        return host.sh("bash -c 'exec 2>/dev/null; exec 3<>/dev/tcp/127.0.0.1/"
                       f"{port} || exit; head -1 <&3'").strip()
    except HostError:
        return None


def queue_message(host):
    host.sh(f"{SENDMAIL} -oi bob@example.net",
            stdin=b"Subject: waiting\n\ntext\n")


def queue_listing(host):
    return host.sh(f"{SENDMAIL} -bp").encode()


def shown_listing(run):
    after = run.output.split(b"'mailq' command:\n\n")[1]
    return after.split(b"\nYou should have sendmail deliver")[0]


def check_replaced(host, run, old):
    """The queue was shown, given up, and the link is in place."""
    assert run.output.endswith(b"quit [yes] \ndone\n")
    assert (run.status, run.reminders) == (0, [])
    assert host.readlink(SENDMAIL) == TARGET
    assert host.readlink(SENDMAIL + ".bak") == old


def test_a_real_inetd_stops_the_services(host):
    unpack(host, "openbsd-inetd")
    host.write("/etc/inetd.conf", "".join(
        f"{service} stream tcp nowait root /bin/echo echo {service}\n"
        for service in ("smtp", "pop3", "8119")))
    start(host, "/usr/sbin/inetd")
    wait_for(host, listens(8119))
    assert [greeting(host, port) for port in (25, 110, 8119)] == [
        "smtp", "pop3", "8119"]

    run = host.run_task("EditInetdConf")
    check_screen(run, "EditInetdConf/edited")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    wait_for(host, f"! {{ {listens(25)} || {listens(110)}; }}")
    assert [greeting(host, port) for port in (25, 110, 8119)] == [
        None, None, "8119"]
    check_screen(host.run_task("KillServers"), "KillServers/none")


def test_a_real_sendmail(host):
    unpack(host, "sendmail-bin")
    host.write("/srv/sendmail.mc", """\
include(`/usr/share/sendmail/cf/m4/cf.m4')dnl
OSTYPE(`linux')dnl
define(`confPID_FILE', `/run/sendmail.pid')dnl
define(`ALIAS_FILE', `')dnl
FEATURE(`no_default_msa')dnl
DAEMON_OPTIONS(`Name=MTA, Addr=127.0.0.1')dnl
MAILER(`local')dnl
MAILER(`smtp')dnl
""")
    host.sh("mkdir -p /etc/mail /var/spool/mqueue;"
            "chmod 700 /var/spool/mqueue;"
            "m4 /srv/sendmail.mc >/etc/mail/sendmail.cf;"
            "cp /etc/mail/sendmail.cf /etc/mail/submit.cf;"
            "cp -p /usr/libexec/sendmail/sendmail /usr/sbin/sendmail-mta;"
            "ln -s ../sbin/sendmail-mta /usr/lib/sendmail")
    host.sh(f"{SENDMAIL} -Am -odd -oi bob@example.net",
            stdin=b"Subject: waiting\n\ntext\n")
    start(host, "/usr/sbin/sendmail-mta -bd")
    wait_for(host, listens(25))

    run = host.run_task("KillSendmail")
    check_screen(run, "KillSendmail/killed")
    wait_for(host, f"! {listens(25)}")
    listing = queue_listing(host)
    run = host.run_task("InstallSendmail", answers=["no"])
    assert b"bob@example.net" in listing and shown_listing(run) == listing
    check_replaced(host, run, "../sbin/sendmail-mta")
    check_screen(host.run_task("KillServers"), "KillServers/none")


def stop_by_name(host, name):
    """Its name isn't known to be a mail server's: it is asked for."""
    check_screen(host.run_task("KillSendmail"), "KillSendmail/none")
    run = host.run_task("KillServers", answers=["yes", name])
    assert b"smtp      (port=25)" in run.output
    listing = run.text.split("your system:")[1].split("Please specify")[0]
    assert name in listing.split()
    assert run.output.endswith(f"\n        Killed {name}\n\n".encode())
    assert run.reminders == [f"Prevent boot startup of '{name}'", ""]
    assert run.show_stoppers == 0
    wait_for(host, f"! {listens(25)}")
    check_screen(host.run_task("KillServers"), "KillServers/none")


def test_a_real_postfix(host):
    unpack(host, "postfix")
    account(host, "postfix", 951)
    host.group("postdrop", 952)
    host.write("/etc/postfix/main.cf", """\
compatibility_level = 3.6
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
myhostname = mail.example.com
mydestination =
alias_maps =
alias_database =
maillog_file = /var/log/postfix.log
setgid_group = postdrop
mail_owner = postfix
daemon_directory = /usr/lib/postfix/sbin
shlib_directory = /usr/lib/postfix
data_directory = /var/lib/postfix
defer_transports = smtp
""")
    host.sh("cp /usr/share/postfix/master.cf.dist /etc/postfix/master.cf;"
            "mkdir -p /var/lib/postfix; chown postfix /var/lib/postfix;"
            "chgrp postdrop /usr/sbin/postdrop /usr/sbin/postqueue;"
            "chmod 2755 /usr/sbin/postdrop /usr/sbin/postqueue;"
            "postfix check 2>/dev/null")
    start(host, "postfix start")
    wait_for(host, listens(25))
    queue_message(host)
    wait_for(host, f"{SENDMAIL} -bp | grep -q bob@example.net")

    run = host.run_task("InstallSendmail", answers=["no"])
    assert b"bob@example.net" in shown_listing(run)
    check_replaced(host, run, "../sbin/sendmail")
    stop_by_name(host, "master")


def test_a_real_exim(host):
    unpack(host, "exim4-daemon-light")
    account(host, "Debian-exim", 953)
    host.write("/etc/exim4/exim4.conf", """\
primary_hostname = mail.example.com
local_interfaces = 127.0.0.1
disable_ipv6 = true
host_lookup =
keep_environment =
queue_only = true
exim_user = Debian-exim
exim_group = Debian-exim
log_file_path = /var/log/exim4/%slog
begin routers
begin transports
""")
    host.sh("mkdir -p /var/spool/exim4 /var/log/exim4;"
            "chown Debian-exim:Debian-exim /var/spool/exim4 /var/log/exim4")
    queue_message(host)
    start(host, "/usr/sbin/exim4 -bd")
    wait_for(host, listens(25))

    listing = queue_listing(host)
    run = host.run_task("InstallSendmail", answers=["no"])
    assert b"bob@example.net" in listing and shown_listing(run) == listing
    check_replaced(host, run, "../sbin/exim4")
    stop_by_name(host, "exim4")


def busy_ports(run):
    return re.findall(r"\(port=(\d+)\)", run.text)


@pytest.mark.parametrize("family", [socket.AF_INET, socket.AF_INET6])
def test_listeners_of_both_protocols_as_netstat_has_them(host, family):
    address = "127.0.0.1" if family == socket.AF_INET else "::1"
    unpack(host, "net-tools")
    host.sh("/usr/bin/python3 -c 'import socket, time\n"
            f"a = [socket.create_server((\"{address}\", port),"
            f" family=socket.AddressFamily({int(family)}))"
            " for port in (25, 79)]\ntime.sleep(100)'"
            " </dev/null >/dev/null 2>&1 &")
    wait_for(host, listens(79))
    netstat = host.sh("command -v netstat").strip()
    assert set(re.findall(r":(\d+) .*LISTEN", host.sh("netstat -ltn"))) == {
        "25", "79"}
    assert busy_ports(host.run_task("KillServers")) == ["25", "79"]
    host.remove(netstat)
    assert busy_ports(host.run_task("KillServers")) == ["25", "79"]


def test_the_process_table_is_the_same_with_and_without_ps(host):
    unpack(host, "procps")
    for name in ("vctest one", "vctest-two", "(sd-pam)", "a" * 15, "\xe4\xff"):
        host.daemon(name, ports=[25] if name == "vctest-two" else [])

    def names():
        run = host.run_task("KillServers")
        return run.text.split("your system:")[1].split("Please specify")[0]

    with_ps = names()
    host.remove("/usr/bin/ps")
    assert names() == with_ps
    assert "vctest-two" in with_ps and "????" in with_ps
