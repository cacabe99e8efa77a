"""The server's special accounts."""

import pytest

from databases import CONFIG, account, dump, load, sound
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
