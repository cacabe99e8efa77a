"""The features through which the server is administered from afar."""

import pytest

from databases import dump, load, sound, values
from harness import check_screen

CONFIG = "/opt/vellumcraft/config"
NAMES = ("WWW-Server", "Dispatch", "Account-Manager")
RESTRICTED = "/Config\nWWWAccess\n\texample.com\n\t10.1.2.0/24\n"


def settings(host):
    return {key: values(host, name, "/Config", key) for name, key in (
        ("WWW-Server", "Socket"), ("WWW-Server", "WWWAccess"),
        ("Dispatch", "EmailConfig"), ("Dispatch", "DefaultDomain"),
        ("Account-Manager", "SuppressGreeting"))}


def configure(host, answers=(), **more):
    return host.run_task("ConfigureFeatures", answers, **more)


@pytest.mark.parametrize("answer", ["", "no", "x"])
def test_unchanged(host, answer):
    run = configure(host, [answer])
    check_screen(run, "ConfigureFeatures/unchanged")
    assert run.status == 0 and run.state["www_port"] == 80
    # An empty completion domain is set all the same; nothing else is.
    assert settings(host) == {
        "Socket": None, "WWWAccess": None, "EmailConfig": None,
        "DefaultDomain": ["mail.example.com"], "SuppressGreeting": None}
    for name in NAMES:
        path = f"{CONFIG}/{name}"
        assert run.changes[path].kind == "created"
        assert run.changes[path].mode == 0o640
        assert run.changes[path].owner == run.changes[path].group == "vmail"
    assert len(run.changes) == 3 and sound(host, *NAMES)


def test_restrictions_removed(host):
    load(host, "WWW-Server", RESTRICTED)
    run = configure(host, ["yes", "0", "8080", "n", "", "", "y"])
    check_screen(run, "ConfigureFeatures/restrictions_removed")
    assert run.status == 0
    assert settings(host) == {
        "Socket": ["80"], "WWWAccess": [], "EmailConfig": ["yes"],
        "DefaultDomain": ["mail.example.com"], "SuppressGreeting": ["no"]}
    again = configure(host)
    assert "allowed from:    everywhere\n" in again.text


def test_everything_changed_and_shown_again(host):
    run = configure(host, ["y", "8080", "", "n", "n"])
    assert run.status == 0 and run.state["www_port"] == 8080
    assert settings(host) == {
        "Socket": ["8080"], "WWWAccess": None, "EmailConfig": ["no"],
        "DefaultDomain": ["mail.example.com"], "SuppressGreeting": ["yes"]}
    again = configure(host, ["y", "", "", "y", "y"])
    for line in ("configuration: 8080\n", "via E-mail:               no\n",
                 "new users:          no\n",
                 "already set to \"mail.example.com\".\n",
                 "Allow E-mail configuration of Vellumcraft : yes/no/quit "
                 "[no] ", "Enable greeting forms: yes/no/quit [no] "):
        assert line in again.text
    # A port other than 80 is not argued about.
    assert "Since the WWW" not in again.text
    assert settings(host)["EmailConfig"] == ["yes"]
    assert settings(host)["SuppressGreeting"] == ["no"]


@pytest.mark.parametrize("port, accepted", [
    ("1", True), ("65535", True), ("80.9", True), ("0", False),
    ("65536", False), ("web", False), ("nan", False), ("inf", False),
    ("0x50", False), ("-1", False), ("99999999999999999999", False)])
def test_ports(host, port, accepted):
    run = configure(host, ["y", port, "", ""])
    refused = run.text.count("Please enter a valid port number")
    assert refused == (0 if accepted else 1)
    if accepted:
        assert values(host, "WWW-Server", "/Config", "Socket") == [port]
        assert run.state["www_port"] == int(float(port))
        # The text as typed, the port in the address.
        number = int(float(port))
        shown = "" if number == 80 else f":{number}"
        assert f"will use port {port} for WWW" in run.text
        assert f"\n\thttp://mail.example.com{shown}\n\n" in run.text


def test_port_80_is_asked_about(host):
    run = configure(host, ["y", "80", ""])
    assert "Are you sure you want to use port 80? yes/no/quit [yes]" in run.text


@pytest.mark.parametrize("access, shown", [
    ("\tnone\n", "nowhere"), ("\ta\n\tnone\n\tb\n", "nowhere"),
    ("", "everywhere"),
    ("\ta\n\tb\n", "a\r\n" + " " * 50 + "b")])
def test_access_as_it_is_shown(host, access, shown):
    load(host, "WWW-Server", "/Config\nWWWAccess\n" + access)
    run = configure(host, ["y", "8080", "", "no"])
    assert f"allowed from:    {shown}\n\n" in run.output.decode()
    asked = "Remove access restrictions" in run.text
    assert asked == (shown != "everywhere")
    assert dump(host, "WWW-Server") == (
        "/Config\nSocket\n\t8080\nWWWAccess\n" + access)


@pytest.mark.parametrize("stored, allowed", [
    ("no", "no"), ("yes", "yes"), ("No", "yes"), ("", "yes")])
def test_only_an_exact_no_forbids_mail(host, stored, allowed):
    load(host, "Dispatch", f"/Config\nEmailConfig\n\t{stored}\n")
    assert f"via E-mail:               {allowed}\n" in configure(host).text


@pytest.mark.parametrize("domain, kept", [
    ("\tother.org\n\tx\n", "already set to \"other.org,x\"."),
    ("", "being set to \"mail.example.com\"."),
    ("\t\n\tx\n", "being set to \"mail.example.com\".")])
def test_completion_domain(host, domain, kept):
    load(host, "Dispatch", "/Config\nDefaultDomain\n" + domain)
    assert f"Your Address Completion Domain was {kept}" in configure(
        host).text.replace("is being", "was being")


@pytest.mark.parametrize("answers", [
    ["q"], ["y", "8080", "quit"], ["y", "8080", "", "q"],
    ["y", "8080", "", "", "q"]])
def test_quit(host, answers):
    # With restrictions there is one question more.
    run = configure(host, answers)
    assert run.status == 255
    assert sound(host, *NAMES)


def test_quit_at_the_restrictions(host):
    load(host, "WWW-Server", RESTRICTED)
    assert configure(host, ["y", "8080", "", "q"]).status == 255
    assert values(host, "WWW-Server", "/Config", "WWWAccess") == [
        "example.com", "10.1.2.0/24"]


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("break_it", [
    "echo no database > {0}", "mkdir {0}", ": > {0}",
    "echo > {0}; chmod 0 {0}; chown root {0}", "ln -s /etc/shadow {0}"])
def test_a_database_cannot_be_opened(host, name, break_it):
    path = f"{CONFIG}/{name}"
    host.sh(break_it.format(path))
    run = configure(host)
    check_screen(run, "ConfigureFeatures/cannot_open")
    assert run.status == 255
    assert path not in run.changes


@pytest.mark.parametrize("break_it", [
    "rm -r /opt/vellumcraft/config", "chmod 0 /opt/vellumcraft/config",
    "chown root:root /opt/vellumcraft/config"])
def test_the_directory_is_wrong(host, break_it):
    host.sh(break_it)
    check_screen(configure(host), "ConfigureFeatures/cannot_open")


def test_a_full_disk_is_noticed_by_nobody_but_harms_nothing(host):
    host.sh(f"mount -t tmpfs -o size=64k,mode=0750,uid=950,gid=950 none "
            f"{CONFIG}")
    for name in NAMES:
        load(host, name, "/Config\nKeep\n\tme\n")
    host.sh(f"dd if=/dev/zero of={CONFIG}/fill bs=1 count=100000 || true")
    run = configure(host, ["y", "8080", "", "n", "n"])
    assert run.status == 0
    assert sound(host, *NAMES)
    for name in NAMES:
        assert "Keep\n\tme\n" in dump(host, name)


@pytest.mark.parametrize("number", [1, 2, 3, 15])
@pytest.mark.parametrize("prompt", [
    "Do you want to change this", "World Wide Web port for", "Is this OK?",
    "Allow E-mail", "Enable greeting"])
def test_signals_at_prompts(host, number, prompt):
    run = configure(host, ["y", "8080"], signal_at={prompt: number})
    assert run.status == 3
    assert run.text.rsplit("\n", 1)[-1].startswith(prompt)
    assert sound(host, *NAMES)
