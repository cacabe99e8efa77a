"""Module databases that an upgrade brought."""

import pytest

from databases import CONFIG, dump, load, sound
from faults import counted_calls, environment
from harness import check_screen

ODD = ("/Config\nKeep\n\tb\xe4d \\x01\n\tline\\r\\n\n\ttrailing  \n\t\n"
       "Lists\n").encode("latin-1").decode("utf-8", "surrogateescape")


def preserve(host, *lines):
    host.write(f"{CONFIG}/__PRESERVE__", "\n".join(lines) + "\n",
               owner="vmail", group="vmail")


def update(host, **more):
    return host.run_task("UpdateConfiguration", **more)


def requests(host):
    return [name for name in host.listdir("/opt/vellumcraft/control")]


def test_updated(host):
    for name in ("WWW-Server", "MTA-Accounts", "Dispatch"):
        load(host, name, "/Config\nKeep\n\told\nOther\n\told\n")
        load(host, name + ".install",
             "/Config\nKeep\n\tnew\nOther\n\tnew\nAdded\n\tnew\n")
    preserve(host, "Dispatch/Config/Keep", "WWW-Server/Config/Keep",
             "WWW-Server/Config/Missing", "MTA-Accounts/Config/Keep")
    run = update(host)
    check_screen(run, "UpdateConfiguration/updated")
    assert (run.status, run.reminders, run.show_stoppers) == (0, [], 0)
    for name in ("WWW-Server", "Dispatch"):
        assert dump(host, name) == (
            "/Config\nAdded\n\tnew\nKeep\n\told\nOther\n\tnew\n")
        assert dump(host, name + ".backup") == (
            "/Config\nKeep\n\told\nOther\n\told\n")
        assert not host.exists(f"{CONFIG}/{name}.install")
    # Never installed.
    assert dump(host, "MTA-Accounts") == (
        "/Config\nKeep\n\told\nOther\n\told\n")
    assert host.exists(f"{CONFIG}/MTA-Accounts.install")
    names = requests(host)
    assert len(names) == 1 and names[0].startswith("ComputeSizes.")
    assert names[0].endswith("-Control")
    path = f"/opt/vellumcraft/control/{names[0]}"
    assert host.mode(path) == 0o660
    assert host.read(path) == (b"Function: Mailbox-Deliver\n"
                               b"Control-Type: Request\n"
                               b"Request-Type: ComputeSizes\n"
                               b"Priority: 1\n")


def test_nothing_to_install(host):
    preserve(host, "Dispatch/Config/Keep")
    run = update(host)
    assert (run.status, run.output, run.changes) == (0, b"", {})


@pytest.mark.parametrize("make_list", [
    lambda host: None,
    lambda host: host.write(f"{CONFIG}/__PRESERVE__", ""),
    lambda host: host.mkdir(f"{CONFIG}/__PRESERVE__")])
def test_without_a_preserve_list_nothing_is_installed(host, make_list):
    load(host, "Dispatch", "/Config\n")
    load(host, "Dispatch.install", "/Config\nNew\n")
    make_list(host)
    run = update(host)
    assert (run.status, run.output, run.changes) == (0, b"", {})


def test_odd_lines_and_paths(host):
    load(host, "X", "/\nTop\n\told\n/a/b\nDeep\n\told\n/Config\nK\n\told\n")
    load(host, "X.install",
         "/\nTop\n\tnew\n/a/b\nDeep\n\tnew\n/Config\nK\n\tnew\n")
    host.write(f"{CONFIG}/.install", "no module")
    preserve(host, "no slash", "", "X/", "X/Top", "X/a/b/Deep/", "/Config/K",
             "X/None/Here")
    run = update(host)
    assert run.text == "Updating module configurations....\n     X\ndone\n"
    assert dump(host, "X") == (
        "/\nTop\n\told\n/Config\nK\n\tnew\n/a/b\nDeep\n\told\n")
    assert host.exists(f"{CONFIG}/.install")


def test_values_survive_as_they_are(host):
    load(host, "X", ODD)
    load(host, "X.install", "/Config\nKeep\n\tnew\nLists\n\tnew\n")
    preserve(host, "X/Config/Keep", "X/Config/Lists")
    assert update(host).status == 0
    assert dump(host, "X") == ODD


def test_modules_come_in_order_of_their_bytes(host):
    for name in ("b", "B", "a"):
        load(host, name, "/\n")
        load(host, name + ".install", "/\n")
    preserve(host, "x/y")
    assert update(host).text == (
        "Updating module configurations....\n     B\n     a\n     b\ndone\n")


def test_renames_fail(host):
    """A backup that can't be made, an update that can't be installed, and one
    that then can't be taken back."""
    for name in ("Dispatch", "POP", "WWW-Server"):
        load(host, name, "/Config\nKeep\n\told\n")
        load(host, name + ".install", "/Config\nKeep\n\tnew\n")
    preserve(host, "x/y")
    host.mkdir(f"{CONFIG}/Dispatch.backup")
    # In a directory with the sticky bit others' files can't be renamed.
    host.sh(f"chown root {CONFIG} {CONFIG}/POP.install; chmod 1770 {CONFIG}")
    # Renames in order: Dispatch away; POP away, in, back; WWW-Server away, in,
    # back.
    run = update(host, env=environment("fail", 6, calls="rename", times=2))
    check_screen(run, "UpdateConfiguration/renames_fail")
    assert run.status == 0 and run.show_stoppers == 1
    assert run.reminders == [
        f"cd {CONFIG}", "mv Dispatch.install Dispatch", "",
        f"cd {CONFIG}", "mv POP.install POP", "",
        f"cd {CONFIG}", "mv WWW-Server.install WWW-Server", ""]
    for name in ("Dispatch", "POP", "WWW-Server.backup"):
        assert dump(host, name) == "/Config\nKeep\n\told\n"
    for name in ("Dispatch", "POP", "WWW-Server"):
        assert dump(host, name + ".install") == "/Config\nKeep\n\tnew\n"


def test_a_database_that_can_be_neither_installed_nor_restored(host):
    load(host, "POP", "/Config\nKeep\n\told\n")
    load(host, "POP.install", "/Config\nKeep\n\tnew\n")
    preserve(host, "POP/Config/Keep")
    run = update(host, env=environment("fail", 2, calls="rename", times=2))
    assert run.show_stoppers == 1
    assert run.reminders == [f"cd {CONFIG}", "mv POP.install POP", ""]
    assert run.status == 0
    assert "reminded to install it manually" in run.text
    # Nothing is lost: both wait under their other names.
    assert dump(host, "POP.backup") == "/Config\nKeep\n\told\n"
    assert dump(host, "POP.install") == "/Config\nKeep\n\told\n"


@pytest.mark.parametrize("break_it", [
    "chmod 440 {0}.install", "echo x > {0}.install",
    "chown root:root {0}.install; chmod 600 {0}.install"])
def test_settings_cannot_be_copied(host, break_it):
    load(host, "Dispatch", "/Config\nKeep\n\told\n")
    load(host, "Dispatch.install", "/Config\nKeep\n\tnew\n")
    load(host, "Later", "/\n")
    load(host, "Later.install", "/\n")
    preserve(host, "Dispatch/Config/Keep")
    host.sh(break_it.format(f"{CONFIG}/Dispatch"))
    run = update(host)
    check_screen(run, "UpdateConfiguration/cannot_preserve")
    assert run.status == 255 and run.reminders == []
    assert dump(host, "Dispatch") == "/Config\nKeep\n\told\n"
    assert host.exists(f"{CONFIG}/Later.install")
    assert requests(host) == []


def test_a_full_disk_stops_the_update(host):
    host.sh("mount -t tmpfs -o size=64k,mode=0750,uid=950,gid=950 none "
            + CONFIG)
    load(host, "Dispatch", "/Config\nKeep\n\t" + "x" * 20000 + "\n")
    load(host, "Dispatch.install", "/Config\nKeep\n\tnew\n")
    preserve(host, "Dispatch/Config/Keep")
    host.sh(f"dd if=/dev/zero of={CONFIG}/fill bs=4096 || true")
    run = update(host)
    check_screen(run, "UpdateConfiguration/cannot_preserve")
    assert sound(host, "Dispatch", "Dispatch.install")
    assert "x" * 20000 in dump(host, "Dispatch")


def test_a_run_that_is_killed_at_any_call_loses_no_setting(host):
    def prepare():
        host.sh(f"rm -rf {CONFIG}/Dispatch*")
        load(host, "Dispatch", "/Config\nKeep\n\told\n")
        load(host, "Dispatch.install", "/Config\nKeep\n\tnew\nAdded\n")
        preserve(host, "Dispatch/Config/Keep")
    at, killed = 0, 0
    while True:
        at += 1
        prepare()
        run = update(host, env=environment("kill", at, paths=CONFIG))
        if run.status != -9:
            break
        killed += 1
        names = [name for name in ("Dispatch", "Dispatch.backup")
                 if host.exists(f"{CONFIG}/{name}")]
        assert any("\told\n" in dump(host, name) for name in names), at
        assert sound(host, *names), at
    assert killed > 5 and run.status == 0


def test_a_signal_at_any_call_leaves_every_module_a_database(host):
    def run(env):
        host.sh(f"rm -rf {CONFIG}/*")
        load(host, "Dispatch", "/Config\nKeep\n\told\n")
        load(host, "Dispatch.install", "/Config\nKeep\n\tnew\nAdded\n")
        preserve(host, "Dispatch/Config/Keep")
        return update(host, env=env)

    calls = counted_calls(host, run, paths=CONFIG + "/Dispatch")
    assert len([call for call in calls if call[0] == "rename"]) == 2
    seen = set()
    for at, call in enumerate(calls, 1):
        done = run(environment("signal", at, paths=CONFIG + "/Dispatch",
                               signal=(1, 2, 3, 15)[at % 4]))
        assert done.status == 3, (at, call)
        state = dump(host, "Dispatch")
        assert state in ("/Config\nKeep\n\told\n",
                         "/Config\nAdded\nKeep\n\told\n"), (at, call)
        # Installed and backed up, or neither.
        backed_up = host.exists(f"{CONFIG}/Dispatch.backup")
        assert ("Added" in state) == backed_up, (at, call)
        assert host.exists(f"{CONFIG}/Dispatch.install") != backed_up
        seen.add(backed_up)
    assert seen == {False, True}


def test_two_requests_from_one_process_share_their_name(host):
    # The second update of a run would replace the first request; here two runs
    # with different process ids leave two.
    for _ in range(2):
        load(host, "Dispatch", "/Config\n")
        load(host, "Dispatch.install", "/Config\n")
        preserve(host, "x/y")
        assert update(host).status == 0
    assert len(requests(host)) == 2


def test_a_spool_that_is_missing_is_not_made(host):
    load(host, "Dispatch", "/Config\n")
    load(host, "Dispatch.install", "/Config\n")
    preserve(host, "x/y")
    host.sh("rmdir /opt/vellumcraft/control")
    run = update(host)
    assert run.status == 0 and run.text.endswith("done\n")
    assert not host.exists("/opt/vellumcraft/control")
