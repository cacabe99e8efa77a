"""The server's special accounts."""

import pytest

from databases import CONFIG, account, dump, load, sound
from faults import counted_calls, environment
from harness import SCREENS

ALL = {
    "Accounts": ("Account Manager", "Channel-Delivery", "Account-Manager"),
    "Configuration": ("Configuration Manager", "Channel-Delivery", "Dispatch"),
    "Lists": ("Mailing List Manager", "Channel-Delivery", "Account-Manager"),
    "Help": ("Mail System Help", "Account-Delivery", "Postmaster"),
    "Mailer-Daemon": ("Mail Delivery Subsystem", "Account-Delivery",
                      "Postmaster"),
    "Nobody": ("Discarded Mail", None, None),
}


def expected(uid):
    name, field, delivery = ALL[uid]
    fields = {"Access-Domains": [], "Name": [name],
              "SMTP-Address": [f"{uid}@mail.example.com",
                               f"{uid}@[192.0.2.7]"],
              "SMTP-RewriteStyle": ["comment"]}
    if field:
        fields[field] = [delivery]
    return "".join([f"/{uid}\n", *(
        key + "\n" + "".join(f"\t{value}\n" for value in fields[key])
        for key in sorted(fields))])


def test_all_are_created_silently(host):
    run = host.run_task("SetupSpecialAccounts")
    assert (run.status, run.output) == (0, b"")
    assert dump(host, "Accounts") == "".join(map(expected, sorted(ALL)))
    assert run.changed() == {f"{CONFIG}/Accounts": "created"}
    assert sound(host, "Accounts")


def test_existing_ones_are_left_alone(host):
    load(host, "Accounts", "/Help\nName\n\tOurs\n/Ann\nName\n\tAnn\n")
    assert host.run_task("SetupSpecialAccounts").status == 0
    assert dump(host, "Accounts").count("/Help\n") == 1
    assert account(host, "Help", "Name") == ["Ours"]
    assert account(host, "Help", "SMTP-Address") is None
    assert account(host, "Nobody", "Name") == ["Discarded Mail"]
    again = host.run_task("SetupSpecialAccounts")
    assert (again.status, again.output, again.changes) == (0, b"", {})


@pytest.mark.parametrize("break_it", [
    f"echo x > {CONFIG}/Accounts", f"chown root {CONFIG}; chmod 755 {CONFIG}",
    f"rm -r {CONFIG}"])
def test_the_database_cannot_be_written(host, break_it):
    host.sh(break_it)
    run = host.run_task("SetupSpecialAccounts")
    screen = (SCREENS / "ConfigureFeatures/cannot_open.txt").read_bytes()
    assert run.output == screen[screen.index(b"ERROR:"):]
    assert run.status == 255


@pytest.mark.parametrize("mode, status", [("kill", -9), ("signal", 3)])
def test_a_run_that_ends_at_any_call_leaves_whole_accounts(host, mode, status):
    path = f"{CONFIG}/Accounts"

    def run(env):
        host.sh(f"rm -f {path}*")
        return host.run("run_task", [], ["SetupSpecialAccounts"], env=env)

    calls = counted_calls(host, run, paths=path)
    assert len(calls) > 15
    seen = set()
    for at, call in enumerate(calls, 1):
        assert run(environment(mode, at, paths=path)).status == status, call
        state = dump(host, "Accounts") if host.exists(path) else ""
        made = [uid for uid in ALL if f"/{uid}\n" in state]
        assert made == list(ALL)[:len(made)], (at, call)
        assert state == "".join(map(expected, sorted(made))), (at, call)
        seen.add(len(made))
        assert host.run_task("SetupSpecialAccounts").status == 0
        assert dump(host, "Accounts") == "".join(map(expected, sorted(ALL)))
    assert seen == set(range(7))


def test_a_full_disk_stops_the_installation(host):
    host.sh(f"mount -t tmpfs -o size=8k,mode=0750,uid=950,gid=950 none {CONFIG}"
            f" && dd if=/dev/zero of={CONFIG}/fill bs=4096 || true")
    run = host.run_task("SetupSpecialAccounts")
    screen = (SCREENS / "ConfigureFeatures/cannot_open.txt").read_bytes()
    assert run.output == screen[screen.index(b"ERROR:"):]
    assert run.status == 255 and host.listdir(CONFIG) == ["fill"]
