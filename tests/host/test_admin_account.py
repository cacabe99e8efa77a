"""Postmaster and root."""

import re

import pytest

from databases import account, dump, load, sound
from faults import counted_calls, environment
from harness import SCREENS, check_screen, squeeze

PATH = "/opt/vellumcraft/config/Accounts"
EXISTING = """\
/Ann
SMTP-Address
\tann@example.com
\tann@mail.example.com
/Postmaster
Access-Domains
\texample.com
\t10.1.2.3/24
Account-Delivery
\tAnn
\tGone
Channel-Delivery
\tSMTP bob@elsewhere.org
\tOther channel
Name
\tMail Administrator
Password
\told secret
SMTP-Address
\tPostmaster@mail.example.com
"""


def change(host, answers, **more):
    return host.run_task("SetupAdminAccount", ["y", *answers], **more)


def test_new(host):
    run = host.run_task("SetupAdminAccount", ["secret1"])
    check_screen(run, "SetupAdminAccount/new")
    assert run.status == 0 and run.changed() == {PATH: "created"}
    assert host.mode(PATH) == 0o640
    assert run.changes[PATH].owner == run.changes[PATH].group == "vmail"
    password = account(host, "Root", "Password")[0]
    assert re.fullmatch("([bcdlmnprst][aeio]){2}[bcdlmnprst][1-9]", password)
    assert dump(host, "Accounts").replace(password, "GENERATED") == """\
/Postmaster
Access-Domains
Account-Delivery
\tRoot
Channel-Delivery
Manager-Delivery
Name
\tMail Administrator
Password
\tsecret1
SMTP-Address
\tPostmaster@mail.example.com
SMTP-RewriteStyle
\tcomment
/Root
Access-Domains
Local-Delivery
\tUNIX
Name
\tSystem Administrator
Password
\tGENERATED
SMTP-Address
\troot@mail.example.com
SMTP-RewriteStyle
\tcomment
UNIX-UserName
\troot
"""
    assert sound(host, "Accounts")


def test_new_where_root_was_imported(host):
    load(host, "Accounts", "/root-2\nSMTP-Address\n\tROOT@mail.example.com\n")
    run = host.run_task("SetupAdminAccount", ["secret1"])
    expected = (SCREENS / "SetupAdminAccount/new_root_has_account.txt"
                ).read_bytes().replace(b"[root@", b"[ROOT@")
    assert run.output == expected
    assert account(host, "Postmaster", "Account-Delivery") == ["root-2"]
    assert account(host, "Root", "Name") is None


@pytest.mark.parametrize("answer", ["", "no", "N", "maybe", " y"])
def test_existing_left_as_it_is(host, answer):
    load(host, "Accounts", EXISTING)
    run = host.run_task("SetupAdminAccount", [answer])
    check_screen(run, "SetupAdminAccount/existing")
    assert run.status == 0
    assert dump(host, "Accounts") == EXISTING


@pytest.mark.parametrize("answer", ["q", "Quit"])
def test_quit(host, answer):
    load(host, "Accounts", EXISTING)
    run = host.run_task("SetupAdminAccount", [answer])
    check_screen(run, "SetupAdminAccount/existing")
    assert run.status == 255


def test_changed(host):
    load(host, "Accounts", EXISTING)
    run = change(host, ["abcde", "abcdef", "example.com, 10.1.2", "",
                        "<>, ann, nosuch"])
    # "ann" is completed with the host name and found.
    check_screen(run, "SetupAdminAccount/changed")
    assert run.status == 0
    assert account(host, "Postmaster", "Password") == ["abcdef"]
    assert account(host, "Postmaster", "Access-Domains") == ["example.com"]
    assert account(host, "Postmaster", "Account-Delivery") == ["Ann"]
    assert account(host, "Postmaster", "Channel-Delivery") == []
    # The next run shows what this one has set.
    run = host.run_task("SetupAdminAccount")
    assert (b"    Access Domains:  example.com\n\n"
            b"    Postmasters:     ann@example.com\n\n") in run.output


def test_no_valid_address(host):
    load(host, "Accounts", EXISTING)
    run = change(host, ["abcde", "abcdef", "example.com, 10.1.2", "",
                        "<>, nosuch"])
    check_screen(run, "SetupAdminAccount/no_valid_address")
    assert run.status == 0
    assert account(host, "Postmaster", "Password") == ["abcdef"]
    assert account(host, "Postmaster", "Account-Delivery") == ["Ann", "Gone"]
    assert account(host, "Postmaster", "Channel-Delivery") == [
        "SMTP bob@elsewhere.org", "Other channel"]


@pytest.mark.parametrize("password, accepted", [
    ("abcdef", True), ("abcde", False), (" abcdef", False),
    ("\tabcdef", False), ("", False), ("abc de", True), ("abcdef ", True),
    (b"p\xe4ss\\w", True)])
def test_passwords(host, password, accepted):
    load(host, "Accounts", EXISTING)
    run = change(host, [password, "another", "", ""])
    assert (run.output.count(b"Please enter a new password") == 0) == accepted
    kept = account(host, "Postmaster", "Password")[0]
    if accepted and isinstance(password, str):
        assert kept == password
    elif not accepted:
        assert kept == "another"


@pytest.mark.parametrize("entry, kept", [
    ("10.1.2.3/24", ["10.1.2.3/24"]), ("10.1.2.3", ["10.1.2.3"]),
    ("a.example,b.example c.example",
     ["a.example", "b.example", "c.example"]),
    ("mail", ["mail"]), ("[10.1.2.3]", ["[10.1.2.3]"]), (",", []),
    ("999.1.2.3xyz", ["999.1.2.3xyz"])])
def test_access_domains_that_are_understood(host, entry, kept):
    load(host, "Accounts", EXISTING)
    run = change(host, ["abcdef", entry, ""])
    assert b"Invalid" not in run.output
    assert account(host, "Postmaster", "Access-Domains") == kept


def test_access_domains_that_are_not(host):
    load(host, "Accounts", EXISTING)
    run = change(host, ["abcdef", "10.1.2 -x", "a_b", "", ""])
    assert run.text.count("Invalid Access-Domain: ") == 3
    assert account(host, "Postmaster", "Access-Domains") == []


@pytest.mark.parametrize("typed, accounts, channels, said", [
    ("ann", ["Ann"], [], ""),
    ("ann@mail", ["Ann"], [], ""),
    ("ANN@Example.Com", ["Ann"], [], ""),
    ("Ann Smith <ann@example.com>", ["Ann"], [], ""),
    ("\"Smith, Ann\" <bob@x.org>", [], ["SMTP bob@x.org"], ""),
    ("ann@x.org (Ann, home)", [], ["SMTP ann@x.org"], ""),
    ("staff: ann, bob@x.org;", ["Ann"], ["SMTP bob@x.org"], ""),
    ("\"john doe\"@x.org", [], ["SMTP \"john doe\"@x.org"], ""),
    ("user%gw@x.org", [], ["SMTP user%gw@x.org"], ""),
    ("host!user@x.org", [], ["SMTP host!user@x.org"], ""),
    ("bob@[192.0.2.7]", [], ["SMTP bob@[192.0.2.7]"], ""),
    ("ab@x", [], ["SMTP ab@x.example.com"], ""),
    ("<@r.org:bob@x.org>", [], ["SMTP <@r.org:bob@x.org>"], ""),
    ("nosuch@sales", [], ["SMTP nosuch@sales.example.com"], ""),
    ("nosuch@EXAMPLE.com, ann", ["Ann"], [],
     "Address doesn't refer to a local account: nosuch@EXAMPLE.com\n"),
    ("ab, ann", ["Ann"], [],
     "Address doesn't refer to a local account: ab@mail.example.com\n"),
    *[(f"{bad}, ann", ["Ann"], [], "Null address ignored.\n")
      for bad in ("bob smith", "bob@", "@x.org", "a@b@c", "ann;bob", "<>")],
])
def test_postmasters(host, typed, accounts, channels, said):
    load(host, "Accounts", EXISTING)
    run = change(host, ["abcdef", "", typed])
    assert account(host, "Postmaster", "Account-Delivery") == accounts
    assert account(host, "Postmaster", "Channel-Delivery") == channels
    after = run.text[run.text.rindex("Postmasters: ["):]
    assert after[after.index("\n") + 1:] == (
        said + "\nPostmaster account setup completed.\n\n")


def test_cannot_access(host):
    load(host, "Accounts", EXISTING)
    host.sh(f"chmod 440 {PATH}")
    run = host.run_task("SetupAdminAccount")
    check_screen(run, "SetupAdminAccount/cannot_access")
    assert run.status == 255 and dump(host, "Accounts") == EXISTING


@pytest.mark.parametrize("break_it", [
    "chown root:root /opt/vellumcraft/config;"
    " chmod 755 /opt/vellumcraft/config",
    "rm -r /opt/vellumcraft/config",
    f"echo no database > {PATH}; chown vmail {PATH}",
    f"mkdir {PATH}",
    "mount --bind /opt/vellumcraft/config /opt/vellumcraft/config;"
    " mount -o remount,ro,bind /opt/vellumcraft/config"])
def test_cannot_create(host, break_it):
    host.sh(break_it)
    run = host.run_task("SetupAdminAccount")
    check_screen(run, "SetupAdminAccount/cannot_create")
    assert run.status == 255 and run.changes == {}


def failures_from(host, answers, prepare, calls):
    """{screen: (n, dump)} of runs in which stores fail from the n-th on."""
    screens = {}
    for at in range(1, calls):
        prepare()
        run = host.run("run_task", answers, ["SetupAdminAccount"],
                       env=environment("fail", at, paths=PATH, times=0,
                                       calls="write,pwrite,pwritev",
                                       errno="ENOSPC"))
        assert sound(host, "Accounts") or not host.exists(PATH), at
        state = dump(host, "Accounts") if host.exists(PATH) else ""
        screens.setdefault(run.output, []).append((at, run.status, state))
    return screens


def screen(name):
    return (SCREENS / f"SetupAdminAccount/{name}.txt").read_bytes()


def test_a_disk_that_fills_up_while_accounts_are_made(host):
    def remove():
        host.sh(f"rm -f {PATH}*")
    seen = failures_from(host, ["secret1"], remove, 18)
    for name, status in (("cannot_create", 255), ("cannot_create_root", 255),
                         ("cannot_deliver_to_root", None), ("new", 0)):
        assert screen(name) in seen or name == "cannot_deliver_to_root", name
        for at, got, _ in seen.get(screen(name), []):
            assert status in (None, got), (name, at)
    for output, runs in seen.items():
        for at, status, state in runs:
            # Never half an account.
            assert ("/Root\n" not in state) or "UNIX-UserName" in state, at


def test_a_disk_that_fills_up_while_deliveries_change(host):
    seen = failures_from(
        host, ["y", "abcde", "abcdef", "example.com, 10.1.2", "", "ann"],
        lambda: load(host, "Accounts", EXISTING), 12)
    outputs = b"".join(seen)
    assert b"couldn't be retained" in outputs
    assert b"Postmaster account setup completed." in outputs
    for output, runs in seen.items():
        for at, status, state in runs:
            lost = b"couldn't be retained" in output
            assert status == (255 if lost else 0), at
            if b"information has been retained" in output:
                assert "\tGone\n" in state


def test_one_failing_store_is_rolled_back(host):
    """The n-th store alone fails, for every n."""
    seen = []
    for at in range(1, 12):
        load(host, "Accounts", EXISTING)
        run = host.run("run_task",
                       ["y", "abcde", "abcdef", "example.com, 10.1.2", "",
                        "<>, nosuch, ann"], ["SetupAdminAccount"],
                       env=environment("fail", at, paths=PATH,
                                       calls="write,pwrite,pwritev",
                                       errno="ENOSPC"))
        delivery = account(host, "Postmaster", "Account-Delivery")
        retained = "old delivery information has been retained" in squeeze(
            run.text)
        seen.append(retained)
        assert run.status == 0
        assert delivery == (["Ann", "Gone"] if retained else ["Ann"]), at
        assert sound(host, "Accounts")
    assert any(seen) and not all(seen)


def with_one_failure(host, prepare, calls, names, errno):
    """[(run, dump)] of runs that make the accounts while the n-th call fails."""
    runs = []
    for at in range(1, calls):
        prepare()
        run = host.run("run_task", ["secret1"], ["SetupAdminAccount"],
                       env=environment("fail", at, paths=PATH, calls=names,
                                       errno=errno))
        runs.append((run, dump(host, "Accounts") if host.exists(PATH) else ""))
    return runs


@pytest.mark.parametrize("before, said", [
    ("", "cannot_deliver_to_root"),
    ("/Boss\nSMTP-Address\n\troot@mail.example.com\n", None)])
def test_root_cannot_be_made_the_first_postmaster(host, before, said):
    """Not fatal: the deliveries are asked for a moment later."""
    def prepare():
        host.sh(f"rm -f {PATH}*")
        if before:
            load(host, "Accounts", before)
    failed = [(run, state) for run, state in with_one_failure(
        host, prepare, 8, "pwrite", "ENOSPC")
              if "deliver mail to the root" in squeeze(run.text)]
    assert failed
    for run, state in failed:
        assert run.status == 0
        assert "/Postmaster\n" in state and "\tsecret1\n" in state
        if said:
            assert run.output == screen(said)
        else:
            # The other way to say it: without the exclamation mark.
            assert "Creating Postmaster account.... failed\n\n" in run.text


def test_root_cannot_be_added_to_the_postmaster(host):
    """The new account can't be opened again: both go."""
    failed = [(run, state) for run, state in with_one_failure(
        host, lambda: host.sh(f"rm -f {PATH}*"), 10, "pread", "EIO")
              if "add root to the Postmaster" in squeeze(run.text)]
    assert failed
    for run, state in failed:
        check_screen(run, "SetupAdminAccount/cannot_add_root")
        assert (run.status, state) == (255, "")


CHANGE = ["y", "abcdef", "example.com", "<>, nosuch, ann, carol@x.org"]
OLD_DELIVERIES = (["Ann", "Gone"], ["SMTP bob@elsewhere.org", "Other channel"])
NEW_DELIVERIES = (["Ann"], ["SMTP carol@x.org"])


def deliveries(host):
    return tuple(account(host, "Postmaster", f"{kind}-Delivery")
                 for kind in ("Account", "Channel"))


def changed_without_sync(host, typed, times):
    """A run in which the last `times` syncs of the accounts fail (0: all)."""
    load(host, "Accounts", EXISTING)
    answers = ["y", "abcdef", "example.com", typed]

    def run(env):
        return host.run("run_task", answers, ["SetupAdminAccount"], env=env)

    at = 1
    if times != 0:
        at = len(counted_calls(host, run, paths=PATH, calls="fdatasync"))
        load(host, "Accounts", EXISTING)
    return run(environment("fail", at, paths=PATH, times=times,
                           calls="fdatasync", errno="EIO"))


def test_completed_is_said_of_what_is_on_disk_only(host):
    # After a sync that failed a second one may succeed without the data.
    for times in 1, 0:
        run = changed_without_sync(host, "ann", times)
        assert "Postmaster account setup completed." not in run.text
        assert "delivery information couldn't be retained" in squeeze(run.text)
        assert run.status == 255 and deliveries(host) == OLD_DELIVERIES


def test_a_password_that_may_not_be_on_disk_is_told(host):
    run = changed_without_sync(host, "nosuch", 1)
    assert "No valid addresses specified" in run.text
    assert "An error occurred while editing the postmaster account" in squeeze(
        run.text)
    assert run.status == 0 and deliveries(host) == OLD_DELIVERIES


@pytest.mark.parametrize("mode, statuses", [("signal", [3]), ("kill", [-9])])
def test_the_deliveries_are_never_empty(host, mode, statuses):
    """Neither a signal nor the death of the program cuts their change."""
    def run(env):
        load(host, "Accounts", EXISTING)
        return host.run("run_task", CHANGE, ["SetupAdminAccount"], env=env)

    calls = counted_calls(host, run, paths=PATH)
    assert len(calls) > 20 and deliveries(host) == NEW_DELIVERIES
    old, new = [], []
    for at, call in enumerate(calls, 1):
        number = (1, 2, 3, 15)[at % 4]
        done = run(environment(mode, at, paths=PATH, signal=number))
        state = deliveries(host)
        assert state in (OLD_DELIVERIES, NEW_DELIVERIES), (at, call, number)
        assert done.status in statuses, (at, call, number)
        assert sound(host, "Accounts"), at
        (new if state == NEW_DELIVERIES else old).append(at)
    assert len(old) > 20 and len(new) > 2 and max(old) < min(new)


def test_a_run_that_is_killed_at_any_call_leaves_whole_accounts(host):
    def run(env):
        host.sh(f"rm -f {PATH}*")
        return host.run("run_task", ["secret1"], ["SetupAdminAccount"], env=env)

    calls = counted_calls(host, run, paths=PATH)
    assert len(calls) > 20
    for at, call in enumerate(calls, 1):
        assert run(environment("kill", at, paths=PATH)).status == -9
        state = dump(host, "Accounts") if host.exists(PATH) else ""
        for uid, last in (("Postmaster", "SMTP-RewriteStyle\n\tcomment"),
                          ("Root", "UNIX-UserName\n\troot")):
            assert (f"/{uid}\n" in state) == (
                f"SMTP-Address\n\t{uid}@".lower() in state.lower()
                and last in state), (at, call)
        # The next run goes on from there.
        again = host.run_task("SetupAdminAccount", {
            "change any information": "y", "Postmaster password": "secret2",
            "Postmasters:": "bob@x.org"})
        assert again.status == 0, (at, call)
        assert account(host, "Postmaster", "Password") == ["secret2"]
        assert deliveries(host) == ([], ["SMTP bob@x.org"]), (at, call)
        assert host.sh(f"ls {PATH}*") == PATH + "\n", (at, call)


@pytest.mark.parametrize("number", [1, 2, 3, 15])
@pytest.mark.parametrize("prompt", [
    "Postmaster password:", "Access Domains: [", "Postmasters: ["])
def test_signals_at_prompts(host, number, prompt):
    run = host.run_task("SetupAdminAccount", signal_at={prompt: number})
    assert run.status == 3
    assert run.text.rstrip("] ").rsplit("\n", 1)[-1].startswith(prompt[:10])
    assert sound(host, "Accounts")
