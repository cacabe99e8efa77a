"""The Debian package: installed, used, upgraded, removed and purged by dpkg."""

import os
import re
import shutil
import subprocess

import pytest

from harness import BUILD, REPO, Host

HOME = "/opt/vellumcraft"
DATABASES = ("Account-Manager", "Dispatch", "MTA-Accounts", "WWW-Server")
# What dpkg, adduser and the C library keep for themselves.
OWN = re.compile(r"/etc/(passwd|group|shadow|gshadow|subuid|subgid)-$"
                 r"|/etc/\.pwd\.lock$|/etc/ld\.so\.cache$"
                 r"|/var/(lib/dpkg|log|cache)(/|$)|/(tmp|dev|run)(/|$)")


def build(directory):
    done = subprocess.run(
        [str(REPO / "packaging" / "build-deb")], cwd=directory,
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, text=True, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    return build(tmp_path_factory.mktemp("package"))


@pytest.fixture(scope="module")
def successor(package, tmp_path_factory):
    """The same with a higher version and a new setting of one module."""
    directory = tmp_path_factory.mktemp("successor")
    tree = directory / "tree"
    subprocess.run(["dpkg-deb", "-R", package, str(tree)], check=True)
    control = tree / "DEBIAN" / "control"
    control.write_text(control.read_text().replace(
        "Version: 1.0.0", "Version: 1.1.0"))
    text = tree / "opt/vellumcraft/share/config/Dispatch"
    text.write_text(text.read_text() + "QueueSize\n\t1000\n")
    result = directory / "successor.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", "-Znone",
                    str(tree), str(result)], check=True,
                   stdout=subprocess.DEVNULL)
    shutil.rmtree(tree)
    return str(result)


@pytest.fixture(name="fresh")
def fresh_host():
    """A host that has never seen a mail server."""
    with Host(prepare=False) as host:
        host.sh("hostname mail; rm -rf /opt/vellumcraft /etc/vellumcraft.conf"
                " /etc/inetd.conf /var/lib/vellumcraft-setup"
                " /usr/lib/sendmail /usr/sbin/sendmail /var/mail;"
                " mkdir /var/mail; chgrp mail /var/mail; chmod 2775 /var/mail")
        host.write("/etc/hosts", "127.0.0.1 localhost\n"
                   "192.0.2.7 mail.example.com mail\n")
        host.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\n"
                   "shadow: files\nhosts: files\nservices: files\n")
        host.sh("sed -i '/^[^:]*:[^:]*:[1-9][0-9][0-9][0-9]:/d' /etc/passwd")
        yield host


def traces(host):
    """{path: kind} of what is another way than at the last mark."""
    return {path: change.kind for path, change in host.changes().items()
            if not OWN.search(path)}


def traces_of_purged(host):
    """The same when the last package has gone from /opt: dpkg itself then takes
    the empty directory away."""
    left = traces(host)
    if left.get("/opt") == "removed":
        del left["/opt"]
    return left


def dpkg(host, *arguments):
    return host.sh("dpkg " + " ".join(f"'{word}'" for word in arguments)
                   + " 2>&1")


def test_lintian_finds_nothing(package):
    """Not even that a program lacks a protection against attacks; the compiler
    cuts texts into pieces, some of which look like misspelt words."""
    done = subprocess.run(
        ["lintian", "--allow-root", "--fail-on", "error,warning,info",
         "--display-info", "--suppress-tags", "spelling-error-in-binary",
         package],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        check=False)
    assert done.returncode == 0, done.stdout


def test_it_brings_programs_manuals_and_an_example(package):
    listing = subprocess.run(["dpkg-deb", "-c", package], check=True, text=True,
                             stdout=subprocess.PIPE).stdout
    paths = {line.split()[5] for line in listing.splitlines()}
    for path in ("bin/Install", "bin/AddUserAccounts", "bin/vcdb",
                 "bin/rehearse"):
        assert f".{HOME}/{path}" in paths
    for manual in ("man8/Install.8", "man8/AddUserAccounts.8", "man8/vcdb.8",
                   "man8/rehearse.8", "man5/vellumcraft.conf.5"):
        assert f"./usr/share/man/{manual}.gz" in paths
    assert ("./usr/share/doc/vellumcraft-setup/examples/"
            "vellumcraft.conf.example") in paths
    assert " root/root " in listing
    assert all(line.split()[1] == "root/root" for line in listing.splitlines())


def test_nothing_is_left_when_nobody_used_it(fresh, package, successor):
    fresh.ask("mark")

    dpkg(fresh, "-i", package)
    assert fresh.read("/etc/vellumcraft.conf") == (
        b"DomainName=example.com\nVellumcraft=/opt/vellumcraft\n"
        b"ProgramDir=/opt/vellumcraft\n"
        b"MailboxDir=/opt/vellumcraft/mailboxes\nMailUserName=vmail\n")
    owner = fresh.sh("id -un vmail; id -gn vmail; id -Gn vmail").split()
    assert owner == ["vmail", "vmail", "vmail"]
    assert fresh.sh(f"stat -c '%a %U:%G %n' {HOME} {HOME}/*"
                    f" {HOME}/deferred/Install {HOME}/config/*") == "".join(
        line + "\n" for line in (
            f"755 root:root {HOME}", f"755 root:root {HOME}/bin",
            f"750 vmail:vmail {HOME}/config",
            f"770 vmail:vmail {HOME}/control",
            f"770 vmail:vmail {HOME}/deferred",
            f"770 vmail:vmail {HOME}/messages",
            f"755 root:root {HOME}/share",
            f"770 vmail:vmail {HOME}/deferred/Install",
            *(f"640 vmail:vmail {HOME}/config/{name}" for name in DATABASES),
            f"640 vmail:vmail {HOME}/config/__PRESERVE__"))
    for name in DATABASES:
        assert fresh.sh(f"{HOME}/bin/vcdb check {HOME}/config/{name}") is not None
        assert fresh.sh(f"{HOME}/bin/vcdb dump {HOME}/config/{name}") == (
            fresh.read(f"{HOME}/share/config/{name}").decode())

    dpkg(fresh, "-i", package)
    assert not fresh.exists(f"{HOME}/config/Dispatch.install")
    dpkg(fresh, "-i", successor)
    assert fresh.exists(f"{HOME}/config/Dispatch.install")
    dpkg(fresh, "-r", "vellumcraft-setup")
    assert not fresh.exists(f"{HOME}/bin")
    assert fresh.exists(f"{HOME}/config/Dispatch")
    assert fresh.exists("/etc/vellumcraft.conf")
    dpkg(fresh, "--purge", "vellumcraft-setup")

    assert traces_of_purged(fresh) == {}


def test_what_the_administrator_made_is_used_and_stays(fresh, package):
    fresh.group("letters", 2950)
    fresh.user("letters", 2950, 2950, make_home=False)
    fresh.write("/etc/vellumcraft.conf",
                "DomainName=example.com\nVellumcraft=/srv/letters\n"
                "ProgramDir=/opt/vellumcraft\nMailboxDir=/srv/letters/boxes\n"
                "MailUserName=letters\n", 0o600)
    fresh.mkdir("/srv/letters/config", 0o700, "letters", "letters")
    as_owner = "setpriv --reuid letters --regid letters --clear-groups"
    fresh.sh(f"{as_owner} '{BUILD}/vcdb' load /srv/letters/config/Dispatch",
             b"/Config\nEmailConfig\n\tyes\n")
    fresh.write("/srv/letters/config/__PRESERVE__",
                "Dispatch/Config/EmailConfig\n", 0o640, "letters", "letters")
    fresh.ask("mark")

    dpkg(fresh, "-i", package)
    assert {kind for path, kind in traces(fresh).items()} == {"created"}
    assert fresh.exists("/srv/letters/config/Dispatch.install")
    assert fresh.exists("/srv/letters/config/WWW-Server")

    dpkg(fresh, "--purge", "vellumcraft-setup")
    assert traces_of_purged(fresh) == {}
    assert fresh.sh("id -un letters") == "letters\n"


def test_an_edited_configuration_survives_a_purge(fresh, package):
    fresh.ask("mark")
    dpkg(fresh, "-i", package)
    edited = fresh.read("/etc/vellumcraft.conf") + b"HostName=mx\n"
    fresh.write("/etc/vellumcraft.conf", edited)
    dpkg(fresh, "-i", package)
    output = dpkg(fresh, "--purge", "vellumcraft-setup")
    assert ("vellumcraft-setup: /etc/vellumcraft.conf stays; it was edited\n"
            in output)
    assert traces_of_purged(fresh) == {"/etc/vellumcraft.conf": "created"}
    assert fresh.read("/etc/vellumcraft.conf") == edited

    # It is used again, and it stays another time without a word.
    dpkg(fresh, "-i", package)
    assert "stays" not in dpkg(fresh, "--purge", "vellumcraft-setup")
    assert fresh.read("/etc/vellumcraft.conf") == edited


def answer_installation(host):
    """Types the answers of an administrator on a terminal."""
    return host.run(f"{HOME}/bin/Install", terminal=True, cwd=HOME, answers={
        "Postmaster password:": "secret1"}, timeout=60)


def test_an_installation_survives_upgrade_and_purge(fresh, package, successor):
    dpkg(fresh, "-i", package)
    fresh.sh(f"cp '{BUILD}/standin_daemon' {HOME}/vellumcraft;"
             f" cp '{BUILD}/standin_daemon' {HOME}/bin/sendmail")
    fresh.user("ann", 1001, gecos="Ann Smith", mail=b"From bob@example.org "
               b"Fri Nov 20 10:00:00 2026\nSubject: Lunch\n\nNoon?\n\n")

    run = answer_installation(fresh)
    assert run.status == 0, run.text
    assert "Installation is complete." in run.text
    assert "(Ann Smith)....created" in run.text
    fresh.sh(f"setpriv --reuid vmail --regid vmail --clear-groups"
             f" {HOME}/bin/vcdb set {HOME}/config/Dispatch /Config"
             f" DefaultDomain sales.example.com")

    output = dpkg(fresh, "-i", successor)
    assert "run Install to take over the new Dispatch settings" in output
    run = answer_installation(fresh)
    assert run.status == 0, run.text
    assert "     Dispatch\ndone\n" in run.text
    dump = fresh.sh(f"{HOME}/bin/vcdb dump {HOME}/config/Dispatch")
    assert "DefaultDomain\n\tsales.example.com\n" in dump
    assert "QueueSize\n\t1000\n" in dump

    accounts = fresh.read(f"{HOME}/config/Accounts")
    output = dpkg(fresh, "--purge", "vellumcraft-setup")
    assert f"{HOME} and its owner vmail stay" in output
    assert fresh.read(f"{HOME}/config/Accounts") == accounts
    assert fresh.sh("id -un vmail") == "vmail\n"
    assert not fresh.exists("/var/lib/vellumcraft-setup")
    assert not fresh.exists(f"{HOME}/bin/Install")
    assert not fresh.exists("/etc/vellumcraft.conf")


def test_a_wrong_option_is_refused():
    done = subprocess.run(
        [str(REPO / "packaging" / "build-deb"), "--bogus"], text=True,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
        env=dict(os.environ))
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("usage: packaging/build-deb ")
